#include "store/StoreStatus.h"

namespace Halo::OS {

const char* storeStatusName(int32_t status) {
    switch (status) {
#define PREFS_STORE_STATUS_NAME(name, value, text) \
    case (value):                                  \
        return #name;
        PREFS_STORE_STATUS_LIST(PREFS_STORE_STATUS_NAME)
#undef PREFS_STORE_STATUS_NAME
    }
    return nullptr;
}

const char* storeStatusText(int32_t status) {
    switch (status) {
#define PREFS_STORE_STATUS_TEXT(name, value, text) \
    case (value):                                  \
        return text;
        PREFS_STORE_STATUS_LIST(PREFS_STORE_STATUS_TEXT)
#undef PREFS_STORE_STATUS_TEXT
    }
    return nullptr;
}

}  // namespace Halo::OS
