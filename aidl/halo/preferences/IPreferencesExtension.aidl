package halo.preferences;

import halo.preferences.BatchEntry;
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
    // The most entries that one setBatch takes.
    const int MAX_BATCH_ENTRIES = 256;

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

    // Writes every entry for the user of `flavour` (as the typed sets: FLAVOUR_USER writes the
    // user `userId`), all or nothing: each entry passes the checks of the single typed set of
    // its type (OS permission, the key's permission row, its declared type, the user), and the
    // first entry refused ends the call with that set's service-specific error and nothing
    // written. On success every listener of the changed keys gets one onChanged with all of its
    // keys that changed. More than MAX_BATCH_ENTRIES entries, an unknown flavour or type code
    // are the exception EX_ILLEGAL_ARGUMENT; an empty batch succeeds and changes nothing.
    // The message of a refusal is "entry N", N the index of the refused entry.
    void setBatch(in BatchEntry[] entries, int flavour, int userId);

    // Restores the default of `key` for the user of `flavour` (FLAVOUR_USER: the user `userId`),
    // as IPreferencesService's reset does for the caller's own user, with the checks of the
    // typed sets for that user: -7 without the OS write permission, -3 without the key's write
    // permission, -8 for an unknown key, a user the device does not have, or a user key of
    // another user than the caller's (root excepted). An unknown flavour is the exception
    // EX_ILLEGAL_ARGUMENT. Listeners are notified as for a write.
    void resetUser(String key, int flavour, int userId);
}
