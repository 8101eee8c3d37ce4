// Counts the bytes of all files below a folder, spread over the process-wide pool, with a bar, and
// tells how much information they hold. An interrupt (Ctrl-C) stops it between two blocks.
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

using Histogram = std::array<std::uint64_t, 256>;

bool gIsInterrupted = false;

extern "C" void Interrupt(int)
{
    __atomic_store_n(&gIsInterrupted, true, __ATOMIC_RELAXED);
}

/// What the solvers share: used while they hold the mutex of the pool.
struct Shared {
    Histogram total{};
    ky::ConcurrentPool::ProgressNotifierProxy* progress = nullptr;
};

class CountFile : public ky::ConcurrentPool::SolverBase {
public:
    CountFile(std::string path, Shared& shared) : mPath(std::move(path)), mShared(shared) {}

    void solve(ky::kyMutex& poolMutex, ky::kyWaitCondition& /*poolCondition*/) override
    {
        // Without the mutex while this solver is busy with what is its own.
        poolMutex.unlock();
        Histogram counts{};
        count(counts);
        poolMutex.lock();
        std::transform(counts.begin(), counts.end(), mShared.total.begin(), mShared.total.begin(),
                       std::plus<>());
        mShared.progress->incrementCurrentStepProgress(1.0);
        mShared.progress->updateProxy();
    }

private:
    void count(Histogram& counts) const
    {
        ky::kyIoDeviceFileStream file;
        if (!file.open(mPath, ky::kyIoDevice::DataWayRead, false))
            return;
        std::vector<char> block(sBlockBytes);
        while (!mShared.progress->shouldCancel()) {
            const unsigned long size = file.readBytes(block.data(), sBlockBytes);
            for (unsigned long i = 0; i < size; ++i)
                ++counts[static_cast<unsigned char>(block[i])];
            if (size < sBlockBytes)
                return;
        }
    }

    const std::string mPath;
    Shared& mShared;
};

std::vector<std::unique_ptr<CountFile>> SolversFor(const std::string& folder, Shared& shared)
{
    std::vector<std::unique_ptr<CountFile>> solvers;
    std::error_code error;
    const auto skip = std::filesystem::directory_options::skip_permission_denied;
    for (std::filesystem::recursive_directory_iterator entry(folder, skip, error), end;
         !error && entry != end; entry.increment(error)) {
        if (entry->is_regular_file(error))
            solvers.push_back(std::make_unique<CountFile>(entry->path().string(), shared));
    }
    return solvers;
}

std::uint64_t Sum(const Histogram& counts)
{
    return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
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
        progress.setCurrentStepMaxProgress(static_cast<double>(solvers.size()));
        std::vector<ky::ConcurrentPool::SolverBase*> borrowed;
        for (const auto& solver : solvers)
            borrowed.push_back(solver.get());
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
