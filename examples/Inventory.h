#pragma once

// What the daemon of daemon.cpp works at: it counts the files below a folder by their types, and
// their bytes and lines, on all processors, while anybody may ask how far it is.

#include "ky/ConcurrentPool.h"
#include "ky/MimeTypeInfo.h"
#include "ky/kyCancelInterface.h"
#include "ky/kyIoDevice.h"
#include "ky/kyLog.h"
#include "ky/kyMutex.h"
#include "ky/kyProgressNotifier.h"
#include "ky/kyStringUtils.h"
#include "ky/kySystemUtils.h"
#include "ky/kyWorkThread.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

inline std::string ToUtf8(const std::string& local)
{
    using Strings = ky::kyStringUtils;
    return Strings::convertCharset(local, Strings::CharSetLocal8Bit, Strings::CharSetUtf8);
}

inline std::string ToLocal(const std::string& utf8)
{
    using Strings = ky::kyStringUtils;
    return Strings::convertCharset(utf8, Strings::CharSetUtf8, Strings::CharSetLocal8Bit);
}

struct Totals {
    long bytes = 0;
    long lines = 0;
    long unreadable = 0;
    std::map<std::string, long> filesByType;
};

/// One file. What it has found goes into the totals while it holds the mutex of the pool.
class CountFile : public ky::ConcurrentPool::SolverBase {
public:
    CountFile(std::string path, Totals& totals, ky::ConcurrentPool::ProgressNotifierProxy& progress,
              const ky::kyCancelInterfaceReadOnly& cancel)
        : mPath(std::move(path)), mTotals(totals), mProgress(progress), mCancel(cancel)
    {}

    void solve(ky::kyMutex& poolMutex, ky::kyWaitCondition& /*poolCondition*/) override
    {
        poolMutex.unlock();
        long bytes = 0;
        long lines = 0;
        const bool isGood = count(bytes, lines);
        const std::string& type = ky::GetMimeTypeInfoFromFileNameOrExt(mPath).getMimeType();
        poolMutex.lock();
        mTotals.bytes += bytes;
        mTotals.lines += lines;
        mTotals.unreadable += isGood ? 0 : 1;
        ++mTotals.filesByType[type.empty() ? "of no known type" : type];
        mProgress.incrementCurrentStepProgress(1.0);
        mProgress.updateProxy();
    }

private:
    bool count(long& bytes, long& lines) const
    {
        std::vector<char> block(65536);
        ky::kyIoDeviceFileStream file(mPath, ky::kyIoDevice::DataWayRead, false);
        unsigned long size = block.size();
        while (file.good() && size == block.size() && !mCancel.shouldCancel()) {
            size = file.readBytes(block.data(), block.size());
            bytes += static_cast<long>(size);
            lines += std::count(block.data(), block.data() + size, '\n');
        }
        return file.good();
    }

    const std::string mPath;
    Totals& mTotals;
    ky::ConcurrentPool::ProgressNotifierProxy& mProgress;
    const ky::kyCancelInterfaceReadOnly& mCancel;
};

/// Scans on a thread of its own, which spreads the files over the process-wide pool. Any thread
/// may call the members.
class Inventory : public ky::kyWorkThread {
public:
    explicit Inventory(const ky::kyCancelInterfaceReadOnly& cancel)
        : mCancel(cancel), mProgress(nullptr, &cancel)
    {
        startThread("inventory");
    }
    /// A scan that nobody has cancelled is done first.
    ~Inventory() override { stop(); }

    /// For the next scan.
    void setFolder(const std::string& folderUtf8)
    {
        const ky::kyMutexLocker lock(mMutex);
        mFolder = folderUtf8;
    }

    /// Does not wait: while a scan is on its way, another one follows it.
    void requestScan()
    {
        {
            const ky::kyMutexLocker lock(mMutex);
            if (std::exchange(mIsWanted, true) || mIsScanning)
                return;
        }
        beginWake();
        addJob(&mScan);
        endWake();
    }

    std::string status()
    {
        const ky::kyMutexLocker lock(mMutex);
        std::string text =
            mIsScanning
                ? "scanning, " +
                      std::to_string(static_cast<int>(mProgress.getGlobalProgress() * 100)) + " %\n"
                : "idle\n";
        text += mSummary + "\n";
        for (const auto& [type, files] : mTotals.filesByType)
            text += std::to_string(files) + " " + type + "\n";
        return text;
    }

private:
    void processJob(ky::kyJob* /*job*/) override
    {
        std::string folder;
        while (takeRequest(folder)) {
            const unsigned long begin = ky::kySystemUtils::GetTimeBaseMs();
            Totals totals;
            const std::size_t files = scan(folder, totals);
            // A part of the folder tells nothing.
            if (mCancel.shouldCancel())
                continue;
            publish(std::move(totals), folder, files, ky::kySystemUtils::GetTimeBaseMs() - begin);
        }
    }

    bool takeRequest(std::string& folder)
    {
        const ky::kyMutexLocker lock(mMutex);
        mIsScanning = std::exchange(mIsWanted, false) && !mCancel.shouldCancel();
        folder = mFolder;
        return mIsScanning;
    }

    std::size_t scan(const std::string& folderUtf8, Totals& totals)
    {
        mProgress.resetNotifier();
        ky::ConcurrentPool::ProgressNotifierProxy progress(mProgress);
        std::vector<std::unique_ptr<CountFile>> solvers;
        std::error_code error;
        const auto skip = std::filesystem::directory_options::skip_permission_denied;
        for (std::filesystem::recursive_directory_iterator entry(ToLocal(folderUtf8), skip, error),
             end;
             !error && entry != end && !mCancel.shouldCancel(); entry.increment(error)) {
            if (entry->is_regular_file(error))
                solvers.push_back(std::make_unique<CountFile>(ToUtf8(entry->path().string()),
                                                              totals, progress, mCancel));
        }
        if (error)
            ky::kyLogObject(ky::kyLog::Warning, "scan")
                << "stopped below " << folderUtf8 << ": " << ky::SystemError(error.value());
        std::vector<ky::ConcurrentPool::SolverBase*> borrowed;
        for (const auto& solver : solvers)
            borrowed.push_back(solver.get());
        progress.setCurrentStepMaxProgress(static_cast<double>(solvers.size()));
        ky::concurrent::GetConcurrentPool()->solve(borrowed);
        return solvers.size();
    }

    void publish(Totals totals, const std::string& folder, std::size_t files, unsigned long ms)
    {
        const std::string summary = folder + ": " + std::to_string(files) + " files, " +
                                    std::to_string(totals.bytes) + " bytes, " +
                                    std::to_string(totals.lines) + " lines, " +
                                    std::to_string(totals.unreadable) + " not readable";
        ky::kyLogObject(ky::kyLog::Info, "scan") << summary << ", in " << ms << " ms";
        const ky::kyMutexLocker lock(mMutex);
        mTotals = std::move(totals);
        mSummary = summary;
    }

    const ky::kyCancelInterfaceReadOnly& mCancel;
    ky::kyProgressNotifierBase mProgress;
    ky::kyJob mScan;  // in the queue once at most
    ky::kyMutex mMutex;
    // Under mMutex.
    std::string mFolder;
    std::string mSummary = "no scan so far";
    Totals mTotals;
    bool mIsWanted = false;
    bool mIsScanning = false;
};
