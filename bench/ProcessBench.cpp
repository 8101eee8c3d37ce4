// Starting a short program and waiting for its end, from a parent that has touched as many MiB as
// the argument tells. All do it turn by turn, so that the counters, medians in microseconds and our
// share of each, stand even where the speed of the machine does not. A size that memory does not
// allow is left out.

#include "FullLibrary.h"
#include "Timing.h"

#include "ky/kyProcess.h"

#include <benchmark/benchmark.h>
#ifdef KY_HAVE_BOOST
#include <boost/process.hpp>
#endif
#ifdef KY_HAVE_POCO
#include <Poco/Process.h>
#endif
#ifdef KY_HAVE_QT
#include <QProcess>
#endif

#include <fstream>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <climits>
#include <cstring>

namespace {

const std::string sProgram = "/bin/true";

bool LaunchOurs()
{
    return ky::kyProcess::ExecUtf8(sProgram, {}, "", false, UINT_MAX) == 0;
}

/// Fork handlers aside, what the system can do at best.
bool LaunchSpawn()
{
    std::string program = sProgram;
    char* arguments[] = {program.data(), nullptr};
    pid_t child = 0;
    int status = -1;
    return ::posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environ) == 0 &&
           ::waitpid(child, &status, 0) == child && status == 0;
}

#ifdef KY_HAVE_QT
bool LaunchQt()
{
    return QProcess::execute(QString::fromStdString(sProgram), {}) == 0;
}
#endif

#ifdef KY_HAVE_POCO
bool LaunchPoco()
{
    return Poco::Process::launch(sProgram, {}).wait() == 0;
}
#endif

#ifdef KY_HAVE_BOOST
bool LaunchBoost()
{
    boost::process::child child(sProgram);
    child.wait();
    return child.exit_code() == 0;
}
#endif

std::size_t AvailableMiB()
{
    std::ifstream file("/proc/meminfo");
    std::string name;
    std::string unit;
    std::size_t kibibytes = 0;
    while (file >> name && name != "MemAvailable:")
        std::getline(file, unit);
    file >> kibibytes;
    return kibibytes / 1024;
}

/// Pages of 4 KiB, as heaps that grow have them.
class TouchedMemory {
public:
    explicit TouchedMemory(std::size_t bytes) : mBytes(bytes)
    {
        if (bytes == 0)
            return;
        mMemory =
            ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mMemory == MAP_FAILED)
            return;
        ::madvise(mMemory, bytes, MADV_NOHUGEPAGE);
        std::memset(mMemory, 1, bytes);
    }
    ~TouchedMemory()
    {
        if (mBytes != 0 && mMemory != MAP_FAILED)
            ::munmap(mMemory, mBytes);
    }
    TouchedMemory(const TouchedMemory&) = delete;
    TouchedMemory& operator=(const TouchedMemory&) = delete;

    bool isThere() const { return mMemory != MAP_FAILED; }

private:
    const std::size_t mBytes;
    void* mMemory = nullptr;
};

struct Launcher {
    const char* name;
    bool (*launch)();
    std::vector<double> microseconds;
};

bool RunOnce(Launcher& launcher)
{
    bool isGood = false;
    launcher.microseconds.push_back(Seconds([&] { isGood = launcher.launch(); }) * 1e6);
    return isGood;
}

void StartAndWait(benchmark::State& state)
{
    const auto size = static_cast<std::size_t>(state.range(0));
    if (size + 512 > AvailableMiB())
        return state.SkipWithError("not enough memory");
    const TouchedMemory memory(size << 20);
    if (!memory.isThere())
        return state.SkipWithError("not enough memory");
    std::vector<Launcher> launchers = {
        {"ours", LaunchOurs, {}},   {"posix_spawn", LaunchSpawn, {}},
#ifdef KY_HAVE_QT
        {"qt", LaunchQt, {}},
#endif
#ifdef KY_HAVE_POCO
        {"poco", LaunchPoco, {}},
#endif
#ifdef KY_HAVE_BOOST
        {"boost", LaunchBoost, {}},
#endif
    };
    for (auto _ : state)
        for (Launcher& launcher : launchers)
            if (!RunOnce(launcher))
                return state.SkipWithError(launcher.name);
    const double ours = Median(launchers.front().microseconds);
    state.counters["ours"] = ours;
    for (std::size_t i = 1; i < launchers.size(); ++i) {
        const double peer = Median(launchers[i].microseconds);
        state.counters[launchers[i].name] = peer;
        state.counters[std::string("ours_by_") + launchers[i].name] = ours / peer;
    }
}
BENCHMARK(StartAndWait)->UseRealTime()->Arg(0)->Iterations(1000);
BENCHMARK(StartAndWait)->UseRealTime()->Arg(4096)->Iterations(50);

const FullLibrary sLibrary;

}  // namespace
