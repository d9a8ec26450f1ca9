package binder.test;

import binder.test.ITestCallback;

// A service that exercises values, objects, descriptors and the runtime's call patterns.
interface ITestService {
    int echoInt(int value);
    String echoString(String value);
    byte[] echoBytes(in byte[] value);
    IBinder echoBinder(IBinder value);
    @nullable IBinder echoNullableBinder(@nullable IBinder value);
    ITestCallback echoCallback(ITestCallback value);
    FileDescriptor echoFd(in FileDescriptor fd);
    ParcelFileDescriptor echoPfd(in ParcelFileDescriptor fd);

    // The caller's identity as the service sees it.
    int callingUid();
    int callingPid();
    // PermissionCache::checkCallingPermission in the service.
    boolean checkCallingPermission(String permission);

    // Calls callback.onCall(value) while the caller waits and returns its result + 1.
    int callBack(ITestCallback callback, int value);
    // Whether a and b are the same object here, and whether b is this service itself.
    boolean isSame(IBinder a, IBinder b);
    boolean isSelf(IBinder b);
    IBinder self();

    int failServiceSpecific(int code, @utf8InCpp String message);
    void failException(int exceptionCode);
    // Returns Status::fromStatusT(status): the reply carries the bare status.
    void failStatus(int status);

    // One-way calls, recorded in arrival order; recorded() waits until `count` have arrived
    // (or a few seconds pass) and returns them.
    oneway void record(int sequence);
    int[] recorded(int count);

    // Keeps `callback`; spam() sends it `count` one-way onData calls of `bytes` bytes each and
    // returns how many were accepted.
    void keepCallback(ITestCallback callback);
    int spam(int count, int bytes);
    // Links a death recipient to the kept callback; deaths() is how many times it was told.
    void watchKeptCallback();
    int deaths(int waitForAtLeast);

    // hold() runs until release() is called (or a few seconds pass), so the one-way calls that
    // follow it on the caller's connection wait in the runtime's queue meanwhile.
    oneway void hold();
    void release();
    // BinderRuntime::queueStats() of the serving process: calls in progress now, the most calls
    // and bytes one connection had in progress.
    int[] queueStats();

    // Records the calling pid, then the calling uid, for recorded().
    oneway void recordCaller();
    // Waits until `parties` calls of meet have run at once (now or before), or `waitMs` pass;
    // returns the most that ran at once.
    int meet(int parties, int waitMs);
    // Looks up the callback published as `name` and returns its onCall(value).
    int callNamed(@utf8InCpp String name, int value);
    // The service published as `name`, as this process finds it.
    IBinder lookUp(@utf8InCpp String name);
}
