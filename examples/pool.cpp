// Counts the bytes of all files below a folder, spread over the process-wide pool, with a bar, and
// tells how much information they hold. An interrupt (Ctrl-C) stops it within a few blocks.
//
//     example-pool [FOLDER]

#include "ky/ConcurrentPool.h"
#include "ky/kyIoDevice.h"
#include "ky/kyProgressNotifier.h"
#include "ky/kySystem.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

namespace {

constexpr unsigned long sBlockBytes = 65536;
constexpr int sBlocksPerReport = 16;

using Histogram = std::array<std::uint64_t, 256>;

bool gIsInterrupted = false;

extern "C" void Interrupt(int)
{
    __atomic_store_n(&gIsInterrupted, true, __ATOMIC_RELAXED);
}

std::uint64_t Sum(const Histogram& counts)
{
    return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
}

/// What the solvers share: used while they hold the mutex of the pool.
struct Shared {
    Histogram total{};
    ky::ConcurrentPool::ProgressNotifierProxy* progress = nullptr;
};

class CountFile : public ky::ConcurrentPool::SolverBase {
public:
    CountFile(const std::filesystem::directory_entry& file, Shared& shared)
        : mPath(file.path().string()), mShared(shared)
    {
        std::error_code error;
        const std::uintmax_t size = file.file_size(error);
        mUnreported = error ? 0.0 : static_cast<double>(size);
    }

    double size() const { return mUnreported; }

    void solve(ky::kyMutex& poolMutex, ky::kyWaitCondition& /*poolCondition*/) override
    {
        ky::kyIoDeviceFileStream file;
        Histogram counts{};
        bool hasMore = true;
        while (hasMore && !mShared.progress->shouldCancel()) {
            // Without the mutex while this solver is busy with what is its own.
            poolMutex.unlock();
            const std::uint64_t before = Sum(counts);
            hasMore = (file.isOpen() || file.open(mPath, ky::kyIoDevice::DataWayRead, false)) &&
                      countBlocks(file, counts);
            const auto bytes = static_cast<double>(Sum(counts) - before);
            poolMutex.lock();
            // A file that has shrunk, or cannot be read, is done all the same.
            report(hasMore ? std::min(bytes, mUnreported) : mUnreported);
        }
        std::transform(counts.begin(), counts.end(), mShared.total.begin(), mShared.total.begin(),
                       std::plus<>());
    }

private:
    /// False at the end of the file.
    static bool countBlocks(ky::kyIoDeviceFileStream& file, Histogram& counts)
    {
        std::vector<char> block(sBlockBytes);
        for (int i = 0; i < sBlocksPerReport; ++i) {
            const unsigned long size = file.readBytes(block.data(), sBlockBytes);
            for (unsigned long k = 0; k < size; ++k)
                ++counts[static_cast<unsigned char>(block[k])];
            if (size < sBlockBytes)
                return false;
        }
        return true;
    }

    /// The bar learns of progress, and the solvers of an interrupt, through the proxy.
    void report(double bytes)
    {
        mUnreported -= bytes;
        mShared.progress->incrementCurrentStepProgress(bytes);
        mShared.progress->updateProxy();
    }

    const std::string mPath;
    Shared& mShared;
    double mUnreported = 0.0;  // bytes
};

std::vector<std::unique_ptr<CountFile>> SolversFor(const std::string& folder, Shared& shared)
{
    std::vector<std::unique_ptr<CountFile>> solvers;
    std::error_code error;
    const auto skip = std::filesystem::directory_options::skip_permission_denied;
    for (std::filesystem::recursive_directory_iterator entry(folder, skip, error), end;
         !error && entry != end; entry.increment(error)) {
        if (entry->is_regular_file(error))
            solvers.push_back(std::make_unique<CountFile>(*entry, shared));
    }
    return solvers;
}

double BitsPerByte(const Histogram& counts)
{
    const auto all = static_cast<double>(Sum(counts));
    double bits = 0.0;
    for (const std::uint64_t count : counts) {
        if (count != 0)
            bits -= static_cast<double>(count) / all * std::log2(static_cast<double>(count) / all);
    }
    return bits;
}

}  // namespace

int main(int argc, char** argv)
{
    ky::initializeKySystem(ky::InitType::Full, false);
    std::signal(SIGINT, &Interrupt);
    bool isInterrupted = false;
    {
        ky::kyProgressNotifierConsoleView bar(&gIsInterrupted, 40);
        ky::ConcurrentPool::ProgressNotifierProxy progress(bar);
        Shared shared;
        shared.progress = &progress;

        const auto solvers = SolversFor(argc > 1 ? argv[1] : "/etc", shared);
        double bytes = 0.0;
        std::vector<ky::ConcurrentPool::SolverBase*> borrowed;
        for (const auto& solver : solvers) {
            bytes += solver->size();
            borrowed.push_back(solver.get());
        }
        progress.setCurrentStepMaxProgress(bytes);
        ky::concurrent::GetConcurrentPool()->solve(borrowed);

        isInterrupted = bar.shouldCancel();
        std::cout << "\n"
                  << (isInterrupted ? "interrupted after " : "") << Sum(shared.total)
                  << " bytes of " << solvers.size() << " files, " << BitsPerByte(shared.total)
                  << " bits of information in each\n";
    }
    ky::terminateKySystem();
    return isInterrupted ? 1 : 0;
}
