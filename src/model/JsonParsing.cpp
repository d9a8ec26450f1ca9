#include "model/JsonParsing.h"

#include <fcntl.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>

namespace Halo::OS {
namespace {

// Parser messages span several lines; a log line must not.
void setError(std::string* error, std::string text) {
    if (error == nullptr) return;
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && text.back() == ' ') text.pop_back();
    *error = std::move(text);
}

}  // namespace

bool parseJsonText(const std::string& text, Json::Value& out, std::string* error,
                   unsigned int maxDepth) {
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = maxDepth;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &out, &errors)) return true;
    } catch (const Json::Exception& e) {
        // Thrown when the document nests deeper than the stack limit.
        errors = "nested deeper than " + std::to_string(maxDepth) + " levels (" + e.what() + ")";
    } catch (const std::exception& e) {
        errors = e.what();
    }
    setError(error, "not valid JSON: " + errors);
    return false;
}

bool readJsonFile(const std::string& path, size_t maxBytes, unsigned int maxDepth, Json::Value& out,
                  std::string* error) {
    // Not blocked by a FIFO planted under the name, which is refused below.
    const int fd = TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd < 0) {
        setError(error, std::string("cannot be read: ") + strerror(errno));
        return false;
    }
    std::string text;
    std::string failure;
    struct stat st;
    if (fstat(fd, &st) != 0) {
        failure = std::string("cannot be read: ") + strerror(errno);
    } else if (!S_ISREG(st.st_mode)) {
        failure = "not a regular file";
    } else if (static_cast<size_t>(st.st_size) > maxBytes) {
        failure = "larger than " + std::to_string(maxBytes) + " bytes";
    }
    char buffer[65536];
    while (failure.empty()) {
        // One byte more than allowed tells a file that is too large.
        const size_t want = std::min(sizeof(buffer), maxBytes + 1 - text.size());
        const ssize_t n = TEMP_FAILURE_RETRY(read(fd, buffer, want));
        if (n < 0) {
            failure = std::string("cannot be read: ") + strerror(errno);
            break;
        }
        if (n == 0) break;
        text.append(buffer, static_cast<size_t>(n));
        if (text.size() > maxBytes) {
            failure = "larger than " + std::to_string(maxBytes) + " bytes";
            break;
        }
    }
    close(fd);
    if (!failure.empty()) {
        setError(error, failure);
        return false;
    }
    return parseJsonText(text, out, error, maxDepth);
}

}  // namespace Halo::OS
