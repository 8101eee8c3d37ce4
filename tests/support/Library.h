#pragma once

#include "ky/kySystem.h"

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>

namespace ky::test {

/// The library at the light level, initialised before and terminated after each test.
struct LightLibrary : ::testing::Test {
    LightLibrary() { initializeKySystem(InitType::Light, false); }
    ~LightLibrary() override { terminateKySystem(); }
};

/// The library at the full level.
struct FullLibrary : ::testing::Test {
    FullLibrary() { initializeKySystem(InitType::Full, false); }
    ~FullLibrary() override { terminateKySystem(); }
};

/// Catches what is written to a standard stream object while it lives.
class CaughtStream {
public:
    explicit CaughtStream(std::ostream& stream) : mStream(stream), mPrevious(stream.rdbuf(&mText))
    {}
    ~CaughtStream() { mStream.rdbuf(mPrevious); }
    CaughtStream(const CaughtStream&) = delete;
    CaughtStream& operator=(const CaughtStream&) = delete;

    /// What was caught since the last call.
    std::string take()
    {
        std::string text = mText.str();
        mText.str("");
        return text;
    }

private:
    std::ostream& mStream;
    std::stringbuf mText;
    std::streambuf* const mPrevious;
};

}  // namespace ky::test
