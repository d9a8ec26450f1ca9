#define LOG_TAG "PreferencesService"

#include "properties/SystemProperties.h"

#include <android-base/properties.h>
#include <fcntl.h>
#include <log/log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "threads/Mutex.h"

namespace Halo::OS {
namespace {

// Guards libbase's property map (see the class comment). Taken alone or inside
// Persistence::mutex, and only around the libbase call itself.
Mutex& storeLock() {
    static Mutex* lock = new Mutex;
    return *lock;
}

bool setInStore(const std::string& key, const std::string& value) {
    Mutex::Autolock lock(storeLock());
    return android::base::SetProperty(key, value);
}

struct Persistence {
    // Held across a set of a "persist." key and the file's rewrite, so the file keeps the order
    // in which the values were set.
    Mutex mutex;
    std::string path GUARDED_BY(mutex);
    // What the file holds, so that a write never needs to read it back.
    std::map<std::string, std::string> values GUARDED_BY(mutex);
};

Persistence& persistence() {
    static Persistence* p = new Persistence;
    return *p;
}

bool startsWith(const std::string& text, const char* prefix) {
    return text.compare(0, strlen(prefix), prefix) == 0;
}

// Reads "key=value" lines; false when the file exists but cannot be read.
bool readPropertyFile(const std::string& path, std::map<std::string, std::string>& out,
                      bool mustExist) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0 && errno == ENOENT && !mustExist) return true;
    std::ifstream in(path);
    if (!in || !S_ISREG(info.st_mode)) {
        ALOGE("Unable to read properties from %s", path.c_str());
        return false;
    }
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (line.empty() || line[0] == '#') continue;
        const size_t equals = line.find('=');
        if (equals == 0 || equals == std::string::npos) {
            ALOGW("%s:%d: not a key=value line, skipped", path.c_str(), number);
            continue;
        }
        out[line.substr(0, equals)] = line.substr(equals + 1);
    }
    return true;
}

bool writePropertyFile(const std::string& path, const std::map<std::string, std::string>& values) {
    const std::string temporary = path + ".tmp";
    int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        ALOGE("Unable to write %s: %s", temporary.c_str(), strerror(errno));
        return false;
    }
    std::ostringstream text;
    for (const auto& [key, value] : values) text << key << '=' << value << '\n';
    const std::string data = text.str();
    bool ok = write(fd, data.data(), data.size()) == static_cast<ssize_t>(data.size()) &&
              fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    if (!ok || rename(temporary.c_str(), path.c_str()) != 0) {
        ALOGE("Unable to write %s: %s", path.c_str(), strerror(errno));
        unlink(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace

bool SystemProperties::set(const std::string& key, const std::string& value) {
    if (!startsWith(key, kPersistPrefix)) return setInStore(key, value);
    Persistence& p = persistence();
    Mutex::Autolock lock(p.mutex);
    const bool ok = setInStore(key, value);
    if (p.path.empty()) return ok;
    if (value.empty()) {
        p.values.erase(key);
    } else {
        p.values[key] = value;
    }
    return writePropertyFile(p.path, p.values) && ok;
}

std::string SystemProperties::get(const std::string& key, const std::string& defaultValue) {
    Mutex::Autolock lock(storeLock());
    return android::base::GetProperty(key, defaultValue);
}

bool SystemProperties::enablePersistence(const std::string& path) {
    std::map<std::string, std::string> stored;
    if (!readPropertyFile(path, stored, /*mustExist=*/false)) return false;
    Persistence& p = persistence();
    Mutex::Autolock lock(p.mutex);
    p.path = path;
    p.values.clear();
    for (const auto& [key, value] : stored) {
        if (!startsWith(key, kPersistPrefix)) continue;
        setInStore(key, value);
        p.values[key] = value;
    }
    return true;
}

bool SystemProperties::loadFile(const std::string& path) {
    std::map<std::string, std::string> values;
    if (!readPropertyFile(path, values, /*mustExist=*/true)) return false;
    for (const auto& [key, value] : values) setInStore(key, value);
    return true;
}

}  // namespace Halo::OS
