#include "ky/kyLog.h"

#include "log/LogFile.h"
#include "log/LogParameters.h"
#include "log/LogThread.h"

#include <limits>
#include <memory>
#include <utility>

namespace ky {
namespace {

constexpr unsigned int sAllOptions =
    kyLog::FileAppend | kyLog::FileShared | kyLog::FileEchoToConsole;
constexpr unsigned long sSmallestFileBytes = 1024;

/// Null when nothing is wrong.
const char* WhatIsWrong(const impl::LogFileSettings& settings)
{
    const std::string& name = settings.baseName;
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos)
        return "the name is not that of a file in the folder";
    if ((settings.options & ~sAllOptions) != 0)
        return "there is no such option";
    if (settings.interval < kyLog::TimeRotationInterval::None ||
        settings.interval > kyLog::TimeRotationInterval::Monthly)
        return "there is no such interval";
    // As long as the longest mark and a number.
    constexpr std::size_t longestName = 255 - 30;
    const unsigned long size = settings.maxFileSizeBytes;
    const bool rotates = size != 0 || settings.interval != kyLog::TimeRotationInterval::None;
    if (rotates && name.size() > longestName)
        return "the name is too long to be put aside";
    if (size != 0 && (size < sSmallestFileBytes || size > std::numeric_limits<long>::max()))
        return "the size is not between 1024 and 2^63 - 1 bytes";
    return nullptr;
}

void RemoveFile(kyLogParameters& parameters)
{
    parameters.mFileSettings = {};
    parameters.mFile.reset();
    // kept: a log file without its own option turns the console echo off for good.
    parameters.mEchoToConsole = false;
    parameters.mEchoBesideFile = false;
}

/// Ends what `configureAndHold` begins.
class Hold {
public:
    explicit Hold(kyLogThread* thread) : mThread(thread) {}
    ~Hold()
    {
        if (mThread != nullptr)
            mThread->goOn();
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

private:
    kyLogThread* const mThread;
};

}  // namespace

bool kyLog::installFileHandlerUtf8(const std::string& pathUtf8, std::string* error)
{
    const std::string::size_type base = pathUtf8.rfind('/') + 1;
    return installFileHandlerExUtf8(pathUtf8.substr(0, base), pathUtf8.substr(base), FileAppend, 0,
                                    0, TimeRotationInterval::None, error);
}

bool kyLog::installFileHandlerExUtf8(const std::string& folderUtf8, const std::string& baseName,
                                     unsigned int options, unsigned int maxFileCount,
                                     unsigned long maxFileSizeBytes, TimeRotationInterval interval,
                                     std::string* error)
{
    if (error != nullptr)
        error->clear();
    // Lines that other threads log meanwhile wait for the new file.
    const bool isHeld = mThread && mThread->isServing() && !mThread->isCurrent() &&
                        mThread->configureAndHold(*mParameters, &RemoveFile);
    const Hold hold(isHeld ? mThread.get() : nullptr);
    if (!isHeld)
        removeFileHandler();
    const bool needsSlash = !folderUtf8.empty() && folderUtf8.back() != '/';
    const impl::LogFileSettings settings = {
        folderUtf8, baseName,     folderUtf8 + (needsSlash ? "/" : "") + baseName,
        options,    maxFileCount, maxFileSizeBytes,
        interval};
    if (const char* const wrong = WhatIsWrong(settings)) {
        if (error != nullptr)
            *error = "Fail to install log file handler to '" + settings.pathUtf8 +
                     "' error was : " + wrong;
        return false;
    }
    const std::shared_ptr<impl::LogFile> file = impl::LogFile::Open(settings, error);
    if (!file)
        return false;
    configure([&](kyLogParameters& parameters) {
        parameters.mFileSettings = settings;
        parameters.mFile = file;
        parameters.mEchoToConsole = (options & FileEchoToConsole) != 0;
    });
    return true;
}

void kyLog::removeFileHandler()
{
    configure(&RemoveFile);
}

std::string kyLog::getCurrentLogFileNameUtf8()
{
    std::string path;
    configure([&](const kyLogParameters& parameters) { path = parameters.mFileSettings.pathUtf8; });
    return path;
}

unsigned long kyLog::getLostLineCount()
{
    unsigned long lost = 0;
    configure([&](const kyLogParameters& parameters) {
        lost = parameters.mFile ? parameters.mFile->lostLines() : 0;
    });
    return lost;
}

}  // namespace ky
