#include "service/PreferencesExtension.h"

#include <utils/String8.h>

#include <utility>

#include "keymanager/KeyManagerStatus.h"
#include "model/PreferencesGenerationLayout.h"
#include "service/PreferencesOverrides.h"
#include "service/PreferencesService.h"
#include "service/String16Utils.h"
#include "service/ValueCodec.h"

namespace Halo::OS {

namespace {

using android::String16;
using android::binder::Status;

// The service's three getters of one type, one per flavour.
template <typename T>
struct Getters {
    Status (PreferencesService::*caller)(const String16&, T*);
    Status (PreferencesService::*current)(const String16&, T*);
    Status (PreferencesService::*user)(const String16&, int32_t, T*);
};

using S = PreferencesService;
template <typename T>
constexpr Getters<T> kGetters{};
template <>
constexpr Getters<int32_t> kGetters<int32_t>{&S::getInteger, &S::getIntegerCurrent,
                                             &S::getIntegerUser};
template <>
constexpr Getters<int64_t> kGetters<int64_t>{&S::getLong, &S::getLongCurrent, &S::getLongUser};
template <>
constexpr Getters<float> kGetters<float>{&S::getFloat, &S::getFloatCurrent, &S::getFloatUser};
template <>
constexpr Getters<double> kGetters<double>{&S::getDouble, &S::getDoubleCurrent, &S::getDoubleUser};
template <>
constexpr Getters<bool> kGetters<bool>{&S::getBoolean, &S::getBooleanCurrent, &S::getBooleanUser};
template <>
constexpr Getters<String16> kGetters<String16>{&S::getString, &S::getStringCurrent,
                                               &S::getStringUser};

halo::preferences::KeyDescription toParcelable(
        const PreferencesKeyManager::KeyDescription& description) {
    halo::preferences::KeyDescription parcel;
    parcel.key = String16(description.key.data(), description.key.size());
    parcel.type = static_cast<int32_t>(description.type);
    parcel.scope = static_cast<int32_t>(description.scope);
    parcel.hasDefaultValue = description.defaultValue.has_value();
    const std::string defaultValue = description.defaultValue.value_or(std::string());
    parcel.defaultValue = String16(defaultValue.data(), defaultValue.size());
    parcel.hasOwnerPackage = description.ownerPackage.has_value();
    const std::string owner = description.ownerPackage.value_or(std::string());
    parcel.ownerPackage = String16(owner.data(), owner.size());
    parcel.writable = description.writable;
    return parcel;
}

Status toStatus(int result) {
    return result == KeyManagerStatus::Ok ? Status::ok() : Status::fromServiceSpecificError(result);
}

static_assert(PreferencesKeyManager::kMaxBatchEntries ==
              halo::preferences::IPreferencesExtension::MAX_BATCH_ENTRIES);

// The value text of `entry` in its type; false for a type code that names no value type.
bool entryText(const halo::preferences::BatchEntry& entry, PreferencesKeyInfo::Type* type,
               std::string* text) {
    using Type = PreferencesKeyInfo::Type;
    switch (static_cast<Type>(entry.type)) {
        case Type::Integer:
            *text = ValueCodec<int32_t>::toText(entry.integerValue);
            break;
        case Type::Double:
            *text = ValueCodec<double>::toText(entry.doubleValue);
            break;
        case Type::String:
            *text = ValueCodec<String16>::toText(entry.stringValue);
            break;
        case Type::Long:
            *text = ValueCodec<int64_t>::toText(entry.longValue);
            break;
        case Type::Boolean:
            *text = ValueCodec<bool>::toText(entry.booleanValue);
            break;
        case Type::Float:
            *text = ValueCodec<float>::toText(entry.floatValue);
            break;
        default:
            return false;
    }
    *type = static_cast<Type>(entry.type);
    return true;
}

}  // namespace

PreferencesExtension::PreferencesExtension(const android::wp<PreferencesService>& service,
                                           std::shared_ptr<PreferencesKeyManager> keyManager)
    : mService(service), mKeyManager(std::move(keyManager)) {}

Status PreferencesExtension::getGenerationTable(android::os::ParcelFileDescriptor* out) {
    android::base::unique_fd fd = mKeyManager->generations().openReadOnly();
    if (fd.get() < 0) return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE);
    *out = android::os::ParcelFileDescriptor(std::move(fd));
    return Status::ok();
}

template <typename T>
Status PreferencesExtension::stamped(const String16& key, int32_t flavour, int32_t userId,
                                     GenerationStamp* stamp, T* out) {
    const android::sp<PreferencesService> service = mService.promote();
    if (service == nullptr) return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE);
    stamp->slot = NO_SLOT;
    Status status;
    switch (flavour) {
        case FLAVOUR_CALLER:
            status = (service.get()->*kGetters<T>.caller)(key, out);
            break;
        case FLAVOUR_CURRENT:
            status = (service.get()->*kGetters<T>.current)(key, out);
            break;
        case FLAVOUR_USER:
            status = (service.get()->*kGetters<T>.user)(key, userId, out);
            break;
        default:
            return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT);
    }
    const PreferencesGenerationTable& table = mKeyManager->generations();
    if (status.isOk() && table.valid()) {
        // Read after the value: a change that lands between the caller's own reading of the
        // table and this point shows as a difference, and the caller does not keep the answer.
        const uint32_t slot = PreferencesGenerationLayout::slotOf(toString(key));
        stamp->slot = static_cast<int32_t>(slot);
        stamp->globalGeneration = static_cast<int64_t>(table.global());
        stamp->slotGeneration = static_cast<int64_t>(table.slot(slot));
    }
    return status;
}

Status PreferencesExtension::getIntegerStamped(const String16& key, int32_t flavour, int32_t userId,
                                               GenerationStamp* stamp, int32_t* out) {
    return stamped(key, flavour, userId, stamp, out);
}

Status PreferencesExtension::getDoubleStamped(const String16& key, int32_t flavour, int32_t userId,
                                              GenerationStamp* stamp, double* out) {
    return stamped(key, flavour, userId, stamp, out);
}

Status PreferencesExtension::getStringStamped(const String16& key, int32_t flavour, int32_t userId,
                                              GenerationStamp* stamp, String16* out) {
    return stamped(key, flavour, userId, stamp, out);
}

Status PreferencesExtension::getLongStamped(const String16& key, int32_t flavour, int32_t userId,
                                            GenerationStamp* stamp, int64_t* out) {
    return stamped(key, flavour, userId, stamp, out);
}

Status PreferencesExtension::getBooleanStamped(const String16& key, int32_t flavour, int32_t userId,
                                               GenerationStamp* stamp, bool* out) {
    return stamped(key, flavour, userId, stamp, out);
}

Status PreferencesExtension::getFloatStamped(const String16& key, int32_t flavour, int32_t userId,
                                             GenerationStamp* stamp, float* out) {
    return stamped(key, flavour, userId, stamp, out);
}

Status PreferencesExtension::listKeys(const String16& ownerPackage,
                                      std::vector<KeyDescription>* out) {
    std::vector<PreferencesKeyManager::KeyDescription> descriptions;
    const int result = mKeyManager->listKeys(toString(ownerPackage), descriptions);
    if (result != KeyManagerStatus::Ok) return toStatus(result);
    out->clear();
    out->reserve(descriptions.size());
    for (const auto& description : descriptions) out->push_back(toParcelable(description));
    return Status::ok();
}

Status PreferencesExtension::describeKey(const String16& key, KeyDescription* out) {
    PreferencesKeyManager::KeyDescription description;
    const int result = mKeyManager->describeKey(toString(key), description);
    if (result != KeyManagerStatus::Ok) return toStatus(result);
    *out = toParcelable(description);
    return Status::ok();
}

Status PreferencesExtension::setBatch(const std::vector<halo::preferences::BatchEntry>& entries,
                                      int32_t flavour, int32_t userId) {
    if (flavour != FLAVOUR_CALLER && flavour != FLAVOUR_CURRENT && flavour != FLAVOUR_USER) {
        return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "unknown flavour");
    }
    if (entries.size() > static_cast<size_t>(MAX_BATCH_ENTRIES)) {
        return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "too many entries");
    }
    std::vector<PreferencesKeyManager::BatchEntry> batch(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        batch[i].key = toString(entries[i].key);
        if (!entryText(entries[i], &batch[i].type, &batch[i].value)) {
            return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT,
                                             android::String8::format("entry %zu: no type", i));
        }
    }
    size_t refused = 0;
    int result = KeyManagerStatus::Ok;
    switch (flavour) {
        case FLAVOUR_CALLER:
            result = mKeyManager->setBatch(batch, &refused);
            break;
        case FLAVOUR_CURRENT:
            result = mKeyManager->setBatchUser(batch, mKeyManager->getCurrentUser(), &refused);
            break;
        default:
            result = mKeyManager->setBatchUser(batch, static_cast<unsigned int>(userId), &refused);
            break;
    }
    if (result != KeyManagerStatus::Ok) {
        return Status::fromServiceSpecificError(result,
                                                android::String8::format("entry %zu", refused));
    }
    if (flavour == FLAVOUR_CALLER) {
        bool overridden = false;
        for (const halo::preferences::BatchEntry& entry : entries) {
            if (entry.type != static_cast<int32_t>(PreferencesKeyInfo::Type::Integer) ||
                PreferencesOverrides::kOverrides.count(toString(entry.key)) == 0) {
                continue;
            }
            PreferencesOverrides::setInteger(entry.key, entry.integerValue);
            overridden = true;
        }
        if (overridden) mKeyManager->invalidateAllReads();
    }
    return Status::ok();
}

Status PreferencesExtension::resetUser(const String16& key, int32_t flavour, int32_t userId) {
    int result = KeyManagerStatus::Ok;
    switch (flavour) {
        case FLAVOUR_CALLER:
            result = mKeyManager->reset(toString(key));
            break;
        case FLAVOUR_CURRENT:
            result = mKeyManager->resetUser(toString(key), mKeyManager->getCurrentUser());
            break;
        case FLAVOUR_USER:
            result = mKeyManager->resetUser(toString(key), static_cast<unsigned int>(userId));
            break;
        default:
            return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "unknown flavour");
    }
    if (result != KeyManagerStatus::Ok) return toStatus(result);
    return Status::ok();
}

}  // namespace Halo::OS
