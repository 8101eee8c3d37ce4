#pragma once

#include "ky/SystemError.h"
#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include "support/Asleep.h"
#include "support/Child.h"

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>

#include <cstdlib>

namespace ky::test {

/// The library at the light level, initialised before and terminated after each test.
struct LightLibrary : ::testing::Test {
    LightLibrary() { initializeKySystem(InitType::Light, false); }
    ~LightLibrary() override { terminateKySystem(); }
};

/// The library at the full level, with its threads at rest.
struct FullLibrary : ::testing::Test {
    FullLibrary()
    {
        initializeKySystem(InitType::Full, false);
        WaitUntilOthersAreAsleep();
    }
    ~FullLibrary() override { terminateKySystem(); }
};

/// Runs `body` in a child whose local set is that of the C locale.
inline void ExpectChildPassesInTheCLocale(const std::function<void()>& body)
{
    ExpectChildPasses([&] {
        terminateKySystem();
        ::setenv("LC_ALL", "C", 1);
        initializeKySystem(InitType::Light, false);
        body();
    });
}

/// The description that messages give of an `errno` value.
inline std::string ErrorText(int errorNumber)
{
    return SystemError(errorNumber).toString();
}

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
