package nimbus.internal;

// Receives schema lists and user events from the app-info service; every call is one-way.
oneway interface IPreferencesAppInfoListener {
    // A schema-list document (JSON) as bytes.
    void onSchema(in byte[] schema);
    void deleteUserData(int userId);
    void currentUser(int userId);
    void userList(in int[] users);
}
