#include "ky/kySystemUtils.h"

#include "frame/ProcessId.h"
#include "frame/ThreadId.h"
#include "monitor/CpuQuota.h"
#include "support/Child.h"
#include "support/Library.h"

#include <filesystem>
#include <limits>
#include <regex>
#include <string>
#include <thread>

#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <clocale>
#include <cstdlib>
#include <ctime>

using ky::kySystemUtils;

namespace {

struct SystemUtils : ky::test::LightLibrary {};

}  // namespace

TEST_F(SystemUtils, ReadsBothClocksInMilliseconds)
{
    const unsigned long before = kySystemUtils::GetTimeBaseMs();
    std::timespec monotonic{};
    ::clock_gettime(CLOCK_MONOTONIC, &monotonic);
    const unsigned long after = kySystemUtils::GetTimeBaseMs();
    const unsigned long now = static_cast<unsigned long>(monotonic.tv_sec) * 1000 +
                              static_cast<unsigned long>(monotonic.tv_nsec) / 1000000;
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
    EXPECT_LE(static_cast<long>(before / 1000), kySystemUtils::GetTimeBaseSec());

    const long second = std::time(nullptr);
    const long ms = kySystemUtils::GetMSecElapsedSinceEpoch();
    EXPECT_LE(second, ms / 1000);
    EXPECT_LE(ms / 1000, kySystemUtils::GetSecElapsedSinceEpoch());
    EXPECT_LE(kySystemUtils::GetSecElapsedSinceEpoch(), std::time(nullptr) + 1);
}

TEST_F(SystemUtils, FormatsSecondsInLocalTimeAndUtc)
{
    ::setenv("TZ", "XXX-1", 1);
    kySystemUtils::InitializeSystemUtils();
    const auto convert = &kySystemUtils::ConvertSecElapsedSinceEpochToString;
    EXPECT_EQ(convert(1709643787, "%FT%T%z", false), "2024-03-05T13:03:07+0000");
    EXPECT_EQ(convert(1709643787, "%FT%T%z", true), "2024-03-05T14:03:07+0100");
    EXPECT_EQ(convert(-1, "%F %T", false), "1969-12-31 23:59:59");
    EXPECT_EQ(convert(0, "caf\xc3\xa9 %Y", false), "caf\xc3\xa9 1970");
    EXPECT_EQ(convert(0, "", false), "");
    EXPECT_EQ(convert(0, std::string(128, 'x').c_str(), false), std::string(128, 'x'));
    EXPECT_EQ(convert(0, std::string(129, 'x').c_str(), false), "");
    EXPECT_EQ(convert(std::numeric_limits<long>::max(), "%Y", true), "");
    EXPECT_EQ(convert(std::numeric_limits<long>::min(), "%Y", false), "");
    EXPECT_TRUE(std::regex_match(kySystemUtils::GetCurrentDateTimeISO(false),
                                 std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\+0000")));
    const std::string here = kySystemUtils::GetCurrentDateTimeISO(true);
    EXPECT_EQ(here.substr(here.size() - 5), "+0100");
    ::unsetenv("TZ");
    kySystemUtils::InitializeSystemUtils();
}

TEST(SystemUtilsAlone, TellTheTimeBeforeInitialisation)
{
    EXPECT_EQ(kySystemUtils::ConvertSecElapsedSinceEpochToString(0, "%F \xc3\xa9", false),
              "1970-01-01 \xc3\xa9");
    EXPECT_GT(kySystemUtils::GetUsedRamQuantityInBytes(kySystemUtils::Resident), 0);
}

TEST_F(SystemUtils, ReadsTheResidentMemoryOfTheProcess)
{
    const long bytes = kySystemUtils::GetUsedRamQuantityInBytes(kySystemUtils::Resident);
    EXPECT_GT(bytes, 100 * 1024);
    EXPECT_EQ(bytes % 1024, 0);
    EXPECT_LT(bytes, 1L << 50);
    EXPECT_EQ(kySystemUtils::GetUsedRamQuantityInBytes(kySystemUtils::Unavailable), 0);
}

TEST_F(SystemUtils, NamesAMainDiskThatIsABlockDeviceOrNone)
{
    const std::string& disk = ky::getMainHDDDevice();
    EXPECT_EQ(&disk, &ky::getMainHDDDevice());
    EXPECT_TRUE(disk.empty() || disk.compare(0, 5, "/dev/") == 0) << disk;
}

TEST_F(SystemUtils, KnowsTheProcessAndThreadOfAForkedChild)
{
    EXPECT_EQ(kySystemUtils::GetCurrentProcessID(), static_cast<unsigned long>(::getpid()));
    EXPECT_EQ(ky::impl::CachedProcessId(), kySystemUtils::GetCurrentProcessID());
    EXPECT_EQ(ky::impl::CurrentThreadIdText(), std::to_string(::syscall(SYS_gettid)));
    std::thread([] {
        EXPECT_EQ(ky::impl::CurrentThreadIdText(), std::to_string(::syscall(SYS_gettid)));
    }).join();

    const pid_t parent = ::getpid();
    ky::test::ExpectChildPasses([parent] {
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
        {"a/b/cpu.max", "1000 100000\n", "0::/a/b\n", 1},
        {"a/b/cpu.max", "", "0::/a/b\n", 0},
        {"a/cpu.max", "300000 100000", "0::/a/b", 3},
        {"cpu.max", "200000 100000\n", "0::/\n", 2},
        {"cpu.max", "200000 100000\n", "0::/../outside\n", 2},
        {"cpu/c/cpu.cfs_quota_us", "400000\n", "4:memory:/x\n3:cpuacct,cpu:/c\n0::/\n", 4},
        {"cpu/c/cpu.cfs_quota_us", "-1\n", "3:cpu:/c\n", 0},
        {"cpu.max", "200000 100000\n", "no line of groups\n:\n", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.file) + " " + row.content + row.groups);
        const ky::test::TemporaryFolder root;
        for (const char* folder : {"a/b", "cpu/c"})
            std::filesystem::create_directories(root.path(folder));
        root.write("cpu/c/cpu.cfs_period_us", "100000\n");
        root.write(row.file, row.content);
        EXPECT_EQ(ky::impl::ProcessorsByQuota(root.path("."), row.groups), row.processors);
    }
    const auto result = ky::test::RunInChild([] {
        EXPECT_LE(kySystemUtils::GetIdealThreadCount(), std::thread::hardware_concurrency());
        cpu_set_t one;
        ::sched_getaffinity(0, sizeof one, &one);
        for (int cpu = 0; CPU_COUNT(&one) > 1; ++cpu)
            CPU_CLR(static_cast<unsigned int>(cpu), &one);
        ::sched_setaffinity(0, sizeof one, &one);
        EXPECT_EQ(kySystemUtils::GetIdealThreadCount(), 1u);
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
}
