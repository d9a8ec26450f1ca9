package halo.preferences;

import halo.preferences.GenerationStamp;
import halo.preferences.KeyDescription;

// Calls of the preferences service beside lumen.preferences.IPreferencesService, reached through
// the service object's Binder extension (IBinder::getExtension). New calls are added at the end
// only, so that the transaction codes of the existing ones stay as they are.
interface IPreferencesExtension {
    // The flavours of the typed gets, and the slot of a stamp whose answer must not be cached.
    const int FLAVOUR_CALLER = 0;
    const int FLAVOUR_CURRENT = 1;
    const int FLAVOUR_USER = 2;
    const int NO_SLOT = -1;

    // The read-only, seal-locked descriptor of the service's generation table: a 64-byte header
    // (magic, slot count, global generation) followed by one 64-bit generation per slot.
    ParcelFileDescriptor getGenerationTable();

    // The answer of IPreferencesService's get of the same type and flavour (FLAVOUR_USER reads
    // the user `userId`), refusals included, with `stamp` filled in on success. Any other flavour
    // is the exception EX_ILLEGAL_ARGUMENT.
    int getIntegerStamped(String key, int flavour, int userId, out GenerationStamp stamp);
    double getDoubleStamped(String key, int flavour, int userId, out GenerationStamp stamp);
    String getStringStamped(String key, int flavour, int userId, out GenerationStamp stamp);
    long getLongStamped(String key, int flavour, int userId, out GenerationStamp stamp);
    boolean getBooleanStamped(String key, int flavour, int userId, out GenerationStamp stamp);
    float getFloatStamped(String key, int flavour, int userId, out GenerationStamp stamp);

    // The keys that the caller could read one at a time with the plain gets, in key order; with
    // a non-empty `ownerPackage`, only those that package owns. Refused as a get is, before any
    // key is looked at: -7 without the OS read permission, -9 when the caller's user is not one
    // of the device.
    KeyDescription[] listKeys(String ownerPackage);
    // The description of `key` when the caller could read it with a plain get; otherwise the
    // service-specific error that get would give (-7, -9 or -3).
    KeyDescription describeKey(String key);
}
