package binder.test;

// Implemented by test clients; the test service calls it back.
interface ITestCallback {
    int onCall(int value);
    oneway void onData(in byte[] data);
}
