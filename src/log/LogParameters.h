#pragma once

#include "ky/kyLog.h"

#include <functional>
#include <set>
#include <string>

namespace ky {

/// What the writer works with.
class kyLogParameters {
public:
    bool operator==(const kyLogParameters& other) const = default;

    bool echoesToConsole() const { return mEchoToConsole || mEchoBesideFile; }

    kyLog::CustomHandler mHandler = nullptr;
    void* mHandlerData = nullptr;
    std::set<std::string, std::less<>> mDisabledSubTypes;
    /// Becomes a DEBUG entry before the next one written: how the writer speaks about itself.
    std::string mPendingNotice;
    bool mEchoToConsole = true;
    bool mEchoBesideFile = false;
};

}  // namespace ky
