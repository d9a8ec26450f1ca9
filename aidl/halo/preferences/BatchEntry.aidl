package halo.preferences;

// One key of an IPreferencesExtension.setBatch: the key, the type it is written as (the codes of
// IPreferencesService.getType: 0 integer, 1 double, 2 string, 3 long, 4 boolean, 5 float) and the
// value in the field of that type. The fields of the other types are not read.
parcelable BatchEntry {
    String key;
    int type;
    int integerValue;
    double doubleValue;
    String stringValue;
    long longValue;
    boolean booleanValue;
    float floatValue;
}
