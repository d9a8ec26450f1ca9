package lumen.preferences;

// Called by the preferences service when registered keys change; never blocks the service.
oneway interface IPreferencesListener {
    void onChanged(in String[] keys);
}
