#include "support/LogCapture.h"

#include <gtest/gtest.h>

namespace Halo::OS::testing {

LogCapture::LogCapture() : mActive(true) {
    ::testing::internal::CaptureStderr();
}

LogCapture::~LogCapture() {
    text();
}

const std::string& LogCapture::text() {
    if (mActive) {
        mText = ::testing::internal::GetCapturedStderr();
        mActive = false;
    }
    return mText;
}

bool LogCapture::contains(const std::string& fragment) {
    return text().find(fragment) != std::string::npos;
}

}  // namespace Halo::OS::testing
