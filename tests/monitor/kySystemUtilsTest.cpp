#include "ky/kySystemUtils.h"

#include "frame/ProcessId.h"
#include "frame/ThreadId.h"
#include "monitor/CpuQuota.h"
#include "support/Child.h"
#include "support/Library.h"

#include <chrono>
#include <filesystem>
#include <limits>
#include <string>
#include <thread>

#include <sched.h>
#include <unistd.h>
#include <cstdlib>
#include <ctime>

using ky::kySystemUtils;

namespace {

struct SystemUtils : ky::test::LightLibrary {};

}  // namespace

TEST(SystemUtilsAlone, TellTimesAndMemoryInTheirUnits)
{
    const std::chrono::milliseconds base(kySystemUtils::GetTimeBaseMs());
    const auto passed = std::chrono::steady_clock::now().time_since_epoch() - base;
    EXPECT_TRUE(passed.count() >= 0 && passed < std::chrono::seconds(60));
    // This clock may be set meanwhile.
    EXPECT_LT(std::abs(kySystemUtils::GetSecElapsedSinceEpoch() - std::time(nullptr)), 60);
    EXPECT_LT(std::abs(kySystemUtils::GetMSecElapsedSinceEpoch() / 1000 - std::time(nullptr)), 60);
    const long bytes = kySystemUtils::GetUsedRamQuantityInBytes(kySystemUtils::Resident);
    EXPECT_TRUE(100 * 1024 < bytes && bytes < 1L << 50 && bytes % 1024 == 0) << bytes;
    EXPECT_EQ(kySystemUtils::GetUsedRamQuantityInBytes(kySystemUtils::Unavailable), 0);
    const std::string& disk = ky::getMainHDDDevice();
    EXPECT_TRUE(disk.empty() || disk.starts_with("/dev/")) << disk;
}

TEST_F(SystemUtils, FormatsSecondsInLocalTimeAndUtc)
{
    ::setenv("TZ", "XXX-1", 1);
    kySystemUtils::InitializeSystemUtils();
    const auto convert = &kySystemUtils::ConvertSecElapsedSinceEpochToString;
    EXPECT_EQ(convert(1709643787, "%FT%T%z", false), "2024-03-05T13:03:07+0000");
    EXPECT_EQ(convert(1709643787, "%FT%T%z", true), "2024-03-05T14:03:07+0100");
    EXPECT_EQ(convert(-1, "%F %T", false), "1969-12-31 23:59:59");
    EXPECT_EQ(convert(0, "caf\xc3\xa9", false), "caf\xc3\xa9");
    EXPECT_EQ(convert(0, "\xff", false), "") << "is no UTF-8";
    EXPECT_EQ(convert(0, "", false), "");
    EXPECT_EQ(convert(0, std::string(128, 'x').c_str(), false), std::string(128, 'x'));
    EXPECT_EQ(convert(0, std::string(129, 'x').c_str(), false), "");
    EXPECT_EQ(convert(std::numeric_limits<long>::max(), "%Y", true), "");
    EXPECT_TRUE(kySystemUtils::GetCurrentDateTimeISO(true).ends_with("+0100"));
    ::unsetenv("TZ");
    kySystemUtils::InitializeSystemUtils();
}

TEST_F(SystemUtils, KnowsTheProcessAndThreadOfAForkedChild)
{
    EXPECT_EQ(ky::impl::CachedProcessId(), kySystemUtils::GetCurrentProcessID());
    std::thread([] {
        EXPECT_EQ(ky::impl::CurrentThreadIdText(), std::to_string(::gettid()));
    }).join();
    ky::test::ExpectChildPasses([parent = ::getpid()] {
        EXPECT_EQ(kySystemUtils::GetParentProcessID(), parent);
        EXPECT_EQ(ky::impl::CachedProcessId(), static_cast<unsigned long>(::getpid()));
        EXPECT_EQ(ky::impl::CurrentThreadIdText(), std::to_string(::getpid()));
    });
}

TEST(IdealThreadCount, CountsTheProcessorsThatAffinityAndQuotaLeave)
{
    const struct {
        const char* file;
        const char* content;
        const char* groups;
        unsigned int processors;
    } rows[] = {
        {"a/b/cpu.max", "max 100000\n", "0::/a/b\n", 0},
        {"a/b/cpu.max", "150000 100000\n", "0::/a/b\n", 2},
        {"a/cpu.max", "300000 100000", "0::/a/b", 3},
        {"cpu.max", "200000 100000\n", "0::/../outside\n", 2},
        {"cpu/c/cpu.cfs_quota_us", "400000\n", "4:memory:/x\n3:cpuacct,cpu:/c\n0::/\n", 4},
        {"cpu/c/cpu.cfs_quota_us", "-1\n", "3:cpu:/c\n", 0},
        {"cpu.max", "200000 100000\n", "no line of groups\n:\n", 0},
    };
    for (const auto& row : rows) {
        const ky::test::TemporaryFolder root;
        for (const char* folder : {"a/b", "cpu/c"})
            std::filesystem::create_directories(root.path(folder));
        root.write("cpu/c/cpu.cfs_period_us", "100000\n");
        root.write(row.file, row.content);
        EXPECT_EQ(ky::impl::ProcessorsByQuota(root.path("."), row.groups), row.processors)
            << row.content << row.groups;
    }
    ky::test::ExpectChildPasses([] {
        cpu_set_t one;
        ::sched_getaffinity(0, sizeof one, &one);
        for (int cpu = 0; CPU_COUNT(&one) > 1; ++cpu)
            CPU_CLR(static_cast<unsigned int>(cpu), &one);
        ::sched_setaffinity(0, sizeof one, &one);
        EXPECT_EQ(kySystemUtils::GetIdealThreadCount(), 1u);
    });
}
