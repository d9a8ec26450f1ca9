package lumen.preferences;

import lumen.preferences.IPreferencesListener;

// The preferences service. Keys and string values are UTF-16; the method order fixes the
// transaction codes (1 for the first method) and must not change.
interface IPreferencesService {
    void setInteger(String key, int value);
    void setDouble(String key, double value);
    void setString(String key, String value);
    void setLong(String key, long value);
    void setBoolean(String key, boolean value);
    void setFloat(String key, float value);
    int getInteger(String key);
    double getDouble(String key);
    String getString(String key);
    long getLong(String key);
    boolean getBoolean(String key);
    float getFloat(String key);
    void setIntegerCurrent(String key, int value);
    void setDoubleCurrent(String key, double value);
    void setStringCurrent(String key, String value);
    void setLongCurrent(String key, long value);
    void setBooleanCurrent(String key, boolean value);
    void setFloatCurrent(String key, float value);
    int getIntegerCurrent(String key);
    double getDoubleCurrent(String key);
    String getStringCurrent(String key);
    long getLongCurrent(String key);
    boolean getBooleanCurrent(String key);
    float getFloatCurrent(String key);
    int getType(String key);
    void setIntegerUser(String key, int value, int userId);
    void setDoubleUser(String key, double value, int userId);
    void setStringUser(String key, String value, int userId);
    void setLongUser(String key, long value, int userId);
    void setBooleanUser(String key, boolean value, int userId);
    void setFloatUser(String key, float value, int userId);
    int getIntegerUser(String key, int userId);
    double getDoubleUser(String key, int userId);
    String getStringUser(String key, int userId);
    long getLongUser(String key, int userId);
    boolean getBooleanUser(String key, int userId);
    float getFloatUser(String key, int userId);
    void reset(String key);
    void registerListener(IPreferencesListener listener, in String[] keys, boolean flag);
    void unregisterListener(IPreferencesListener listener);
    void profile(@utf8InCpp String command, in @utf8InCpp String[] args);
}
