package halo.preferences;

// One key as IPreferencesExtension's listKeys and describeKey tell it to a caller that may read
// it.
parcelable KeyDescription {
    String key;
    // The codes of IPreferencesService.getType.
    int type;
    // 0 system, 1 user, 2 cross-user.
    int scope;
    // The default value in the text encoding of the type; meaningless when !hasDefaultValue.
    boolean hasDefaultValue;
    String defaultValue;
    // The owning package; meaningless when !hasOwnerPackage.
    boolean hasOwnerPackage;
    String ownerPackage;
    // Whether a set of the key by the caller, in its own user, passes the permission checks.
    boolean writable;
}
