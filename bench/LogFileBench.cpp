// From the first statement to the last byte on file: 4 threads write 1,000,000 messages of about 60
// characters, beside spdlog with its background thread and without, and beside the least that a
// background log can do: one mutex, two buffers that are swapped, the bare message.

#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include <benchmark/benchmark.h>
#ifdef KY_HAVE_SPDLOG
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>
#include <cstdio>

namespace {

constexpr int sThreads = 4;
constexpr int sLines = 1000000;
constexpr const char* sPath = "/tmp/ky-bench-file.log";

template <typename LogLine>
void OnFourThreads(LogLine logLine)
{
    std::vector<std::thread> threads;
    for (int thread = 0; thread < sThreads; ++thread)
        threads.emplace_back([&] {
            for (int i = 0; i < sLines / sThreads; ++i)
                logLine(i);
        });
    for (std::thread& thread : threads)
        thread.join();
}

void Count(benchmark::State& state)
{
    state.SetItemsProcessed(state.iterations() * sLines);
    std::remove(sPath);
}

void OursToFile(benchmark::State& state)
{
    ky::initializeKySystem(ky::InitType::Full, false);
    ky::kyLog::Instance()->installFileHandlerUtf8(sPath);
    for (auto _ : state) {
        OnFourThreads([](int i) {
            ky::kyLogObject(ky::kyLog::Info)
                << "finished reading the file sensor-17.dat at record number " << i;
        });
        ky::kyLog::Instance()->flush();
    }
    ky::terminateKySystem();
    Count(state);
}
BENCHMARK(OursToFile)->UseRealTime()->Iterations(3)->Unit(benchmark::kMillisecond);

#ifdef KY_HAVE_SPDLOG
void SpdlogAsync(benchmark::State& state)
{
    spdlog::drop_all();
    for (auto _ : state) {
        spdlog::init_thread_pool(8192, 1);
        const auto logger = spdlog::basic_logger_mt<spdlog::async_factory>("bench", sPath);
        OnFourThreads([&](int i) {
            logger->info("finished reading the file sensor-17.dat at record number {}", i);
        });
        logger->flush();
        spdlog::shutdown();
    }
    Count(state);
}
BENCHMARK(SpdlogAsync)->UseRealTime()->Iterations(2)->Unit(benchmark::kMillisecond);

void SpdlogSynchronous(benchmark::State& state)
{
    spdlog::drop_all();
    const auto logger = spdlog::basic_logger_mt("bench", sPath);
    for (auto _ : state) {
        OnFourThreads([&](int i) {
            logger->info("finished reading the file sensor-17.dat at record number {}", i);
        });
        logger->flush();
    }
    spdlog::drop_all();
    Count(state);
}
BENCHMARK(SpdlogSynchronous)->UseRealTime()->Iterations(3)->Unit(benchmark::kMillisecond);
#endif

/// Two buffers and a thread.
class BareQueue {
public:
    explicit BareQueue(int fd) : mFd(fd), mThread([this] { run(); }) {}
    ~BareQueue()
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mStop = true;
        }
        mWork.notify_one();
        mThread.join();
    }
    BareQueue(const BareQueue&) = delete;
    BareQueue& operator=(const BareQueue&) = delete;

    void push(const std::string& line)
    {
        bool wasEmpty = false;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            wasEmpty = mFilling.empty();
            mFilling.append(line).push_back('\n');
        }
        if (wasEmpty)
            mWork.notify_one();
    }

private:
    void run()
    {
        std::string writing;
        std::unique_lock<std::mutex> lock(mMutex);
        while (!mStop || !mFilling.empty()) {
            mWork.wait(lock, [this] { return mStop || !mFilling.empty(); });
            writing.swap(mFilling);
            lock.unlock();
            benchmark::DoNotOptimize(::write(mFd, writing.data(), writing.size()));
            writing.clear();
            lock.lock();
        }
    }

    const int mFd;
    std::mutex mMutex;
    std::condition_variable mWork;
    std::string mFilling;
    bool mStop = false;
    std::thread mThread;
};

void BareQueueToFile(benchmark::State& state)
{
    const int fd = ::open(sPath, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    for (auto _ : state) {
        BareQueue queue(fd);
        OnFourThreads([&](int i) {
            queue.push("finished reading the file sensor-17.dat at record number " +
                       std::to_string(i));
        });
    }
    ::close(fd);
    Count(state);
}
BENCHMARK(BareQueueToFile)->UseRealTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
