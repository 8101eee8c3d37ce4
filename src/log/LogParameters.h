#pragma once

#include "ky/kyLog.h"

#include "log/LogFile.h"

#include <functional>
#include <memory>
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
    impl::LogFileSettings mFileSettings;
    std::shared_ptr<impl::LogFile> mFile;  // null while no file is installed
};

}  // namespace ky
