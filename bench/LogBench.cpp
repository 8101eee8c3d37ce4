// The caller's cost of a log statement: at a disabled level beside a bare flag test, written
// synchronously to a file and queued to a background thread that writes to a file, beside spdlog
// doing the same. `Queued` programs make bursts that fit into the queues of both and wait for the
// writer between them, outside the measured time: a full queue measures the writer, not the caller.

#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include <benchmark/benchmark.h>
#ifdef KY_HAVE_SPDLOG
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace {

std::atomic<bool> sFlag = false;
const std::string sFileName = "sensor-17.dat";

/// The library, writing to a file through a custom handler and nowhere else.
class LoggedToFile {
public:
    explicit LoggedToFile(ky::InitType level = ky::InitType::Light)
        : mFile(std::fopen("/tmp/ky-bench.log", "we"))
    {
        ky::initializeKySystem(level, false);
        ky::kyLog::Instance()->setEchoToConsole(false);
        ky::kyLog::Instance()->installCustomHandler(&Append, mFile);
    }
    ~LoggedToFile()
    {
        ky::terminateKySystem();
        std::fclose(mFile);
        std::remove("/tmp/ky-bench.log");
    }
    LoggedToFile(const LoggedToFile&) = delete;
    LoggedToFile& operator=(const LoggedToFile&) = delete;

private:
    static void Append(std::list<ky::kyLog::LogEntry>& batch, void* file)
    {
        auto* const out = static_cast<std::FILE*>(file);
        for (const auto& entry : batch) {
            std::fwrite(entry.prefix.data(), 1, entry.prefix.size(), out);
            std::fwrite(entry.message.data(), 1, entry.message.size(), out);
            std::fputc('\n', out);
        }
    }

    std::FILE* const mFile;
};

void BareFlagTest(benchmark::State& state)
{
    for (auto _ : state) {
        if (sFlag.load(std::memory_order_relaxed))
            benchmark::DoNotOptimize(state.iterations());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BareFlagTest);

void DisabledStatement(benchmark::State& state)
{
    const LoggedToFile log;
    int count = 0;
    for (auto _ : state) {
        ky::kyLogObject(ky::kyLog::Debug, "io") << "read " << sFileName << " again, try " << count;
        benchmark::ClobberMemory();
    }
}
BENCHMARK(DisabledStatement);

void SynchronousStatement(benchmark::State& state)
{
    const LoggedToFile log;
    int count = 0;
    for (auto _ : state)
        ky::kyLogObject(ky::kyLog::Info)
            << "finished reading the file " << sFileName << " at record " << ++count;
}
BENCHMARK(SynchronousStatement);

constexpr int sBurst = 200000;

/// Seconds per line as a caller sees them: the sum of the threads' own times by the lines of one.
template <typename LogLine>
double TimeOfBurst(int threads, LogLine logLine)
{
    std::atomic<int> ready = 0;
    std::vector<double> seconds(static_cast<std::size_t>(threads));
    std::vector<std::thread> producers;
    for (double& own : seconds)
        producers.emplace_back([&] {
            ++ready;
            while (ready < threads) {
            }
            const auto start = std::chrono::steady_clock::now();
            for (int i = 0; i < sBurst / threads; ++i)
                logLine(i);
            own = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        });
    for (std::thread& producer : producers)
        producer.join();
    double sum = 0;
    for (const double own : seconds)
        sum += own;
    return sum / sBurst;
}

void QueuedStatement(benchmark::State& state)
{
    const LoggedToFile log(ky::InitType::Full);
    for (auto _ : state) {
        state.SetIterationTime(TimeOfBurst(static_cast<int>(state.range(0)), [](int i) {
            ky::kyLogObject(ky::kyLog::Info)
                << "finished reading the file " << sFileName << " at record " << i;
        }));
        ky::kyLog::Instance()->flush();
    }
}
BENCHMARK(QueuedStatement)->Arg(1)->Arg(4)->UseManualTime()->Iterations(20);

#ifdef KY_HAVE_SPDLOG
void RunSpdlog(benchmark::State& state, const std::string& pattern)
{
    spdlog::drop_all();
    const auto logger = spdlog::basic_logger_mt("bench", "/tmp/ky-bench-spdlog.log", true);
    logger->set_pattern(pattern);
    int count = 0;
    for (auto _ : state)
        logger->info("finished reading the file {} at record {}", sFileName, ++count);
    std::remove("/tmp/ky-bench-spdlog.log");
}

void SpdlogSameLine(benchmark::State& state)
{
    // Its own %P asks the system for the process id each time, which would decide the comparison.
    RunSpdlog(state, "%l PID " + std::to_string(::getpid()) + " %a %b %d %H:%M:%S%z %Y : %v");
}
BENCHMARK(SpdlogSameLine);

void QueuedSpdlog(benchmark::State& state)
{
    spdlog::drop_all();
    spdlog::init_thread_pool(8192, 1);
    const auto logger =
        spdlog::basic_logger_mt<spdlog::async_factory>("bench", "/tmp/ky-bench-spdlog.log", true);
    for (auto _ : state) {
        state.SetIterationTime(TimeOfBurst(static_cast<int>(state.range(0)), [&](int i) {
            logger->info("finished reading the file {} at record {}", sFileName, i);
        }));
        while (spdlog::thread_pool()->queue_size() != 0)
            std::this_thread::yield();
    }
    spdlog::shutdown();
    std::remove("/tmp/ky-bench-spdlog.log");
}
BENCHMARK(QueuedSpdlog)->Arg(1)->Arg(4)->UseManualTime()->Iterations(20);

void SpdlogItsOwnLine(benchmark::State& state)
{
    RunSpdlog(state, "%+");
}
BENCHMARK(SpdlogItsOwnLine);
#endif

}  // namespace
