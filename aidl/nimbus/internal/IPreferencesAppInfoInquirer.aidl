package nimbus.internal;

import nimbus.internal.IPreferencesAppInfoListener;

// The app-info service: installed packages' schemas and the device's users.
interface IPreferencesAppInfoInquirer {
    // Sends every package's schema again through the registered listener.
    void getFullPackageInfo();
    int[] getUserList();
    boolean registerPackageInfoListener(IPreferencesAppInfoListener listener);
    boolean unregisterPackageInfoListener();
}
