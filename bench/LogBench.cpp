// The caller's cost of a log statement: at a disabled level beside a bare flag test, and written
// synchronously to a file beside spdlog writing the same line with its synchronous logger.

#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include <benchmark/benchmark.h>
#ifdef KY_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

#include <atomic>
#include <cstdio>
#include <string>

#include <unistd.h>

namespace {

std::atomic<bool> sFlag = false;
const std::string sFileName = "sensor-17.dat";

/// The library at the light level, writing to a file through a custom handler and nowhere else.
class LoggedToFile {
public:
    LoggedToFile() : mFile(std::fopen("/tmp/ky-bench.log", "we"))
    {
        ky::initializeKySystem(ky::InitType::Light, false);
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

void SpdlogItsOwnLine(benchmark::State& state)
{
    RunSpdlog(state, "%+");
}
BENCHMARK(SpdlogItsOwnLine);
#endif

}  // namespace
