#include "ky/kyIoDevice.h"

#include "support/Child.h"
#include "support/Devices.h"
#include "support/Library.h"

#include <tuple>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <csignal>

using ky::kyIoDeviceFileStream;
using ky::test::Content;
using ky::test::Read;
using std::string_literals::operator""s;

namespace {

using Way = ky::kyIoDevice::DataWay;
using Access = ky::kyIoDeviceRandomAccess;
constexpr Way sRead = ky::kyIoDevice::DataWayRead;
constexpr Way sWrite = ky::kyIoDevice::DataWayWrite;
constexpr Way sBoth = ky::kyIoDevice::DataWayReadWrite;
constexpr auto sBegin = Access::SeekFromBeginning;
const char* const sWriteError = "std sub stream fail bit is set after a write";

struct FileStream : ky::test::LightLibrary {
    const ky::test::TemporaryFolder folder;
    const std::string path = folder.path("file");
};

}  // namespace

TEST_F(FileStream, OpensByWayAndTruncation)
{
    const struct {
        Way way;
        bool truncate;
        bool exists;
        std::string afterwards;  // "abc" written or, for reading, not
    } rows[] = {
        {sRead, true, true, "0123456789"},  {sWrite, true, true, "abc"},
        {sWrite, false, false, "abc"},      {sWrite, false, true, "0123456789abc"},
        {sBoth, false, true, "abc3456789"}, {sBoth, false, false, "abc"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.way) + row.afterwards);
        ::unlink(path.c_str());
        if (row.exists)
            folder.write("file", "0123456789");
        kyIoDeviceFileStream file(path, row.way, row.truncate);
        const bool writes = row.way != sRead;
        EXPECT_EQ(file.writeBytes("abc", 3), writes ? 3u : 0u);
        EXPECT_EQ(file.getCurrentPos(), writes ? 3 : 0) << "kept: counts from 0 when appending";
        EXPECT_TRUE(file.close());
        EXPECT_EQ(Content(path), row.afterwards);
    }
}

TEST_F(FileStream, TellsWhyItIsNotOpen)
{
    for (const auto& [name, way, bits] :
         {std::tuple(""s, 1, "00"), std::tuple(path, 4, "00"), std::tuple(path, 1, "10"),
          std::tuple("/dev/null\0x"s, 1, "10")}) {
        kyIoDeviceFileStream file(name, static_cast<Way>(way), false);
        EXPECT_EQ(file.getDeviceErrorMsg(),
                  "failed to open file: '" + name + "' (bits " + bits + ")");
        EXPECT_TRUE(file.setFilePath(path) && !file.seek(0, sBegin) && !file.close());
        EXPECT_EQ(file.getDeviceErrorMsg(), "File is not open");
    }
}

TEST_F(FileStream, LosesNothingAtTheEndOfTheFile)
{
    folder.write("file", "0123456789");
    kyIoDeviceFileStream file(path, sBoth, false);
    EXPECT_EQ(Read(file, 99).size(), 10u);
    EXPECT_TRUE(file.atEnd() && file.good());
    EXPECT_EQ(file.writeBytes("abcd", 4), 4u);
    EXPECT_TRUE(file.seek(-2, Access::SeekFromEnd));
    EXPECT_EQ(Read(file, 9), "cd");
    EXPECT_TRUE(file.seek(1, sBegin));
    EXPECT_EQ(file.writeBytes("X", 1), 1u);
    EXPECT_EQ(Read(file, 2), "23") << "read behind what was just written";
    EXPECT_TRUE(file.close());
    EXPECT_EQ(Content(path), "0X23456789abcd");
}

TEST_F(FileStream, SeeksAsFarAsItsWayAllows)
{
    kyIoDeviceFileStream input(folder.write("file", "0123456789"), sRead, false);
    EXPECT_EQ(Read(input, 99).size(), 10u);
    EXPECT_TRUE(input.seek(-4, Access::SeekFromCurrent));
    EXPECT_EQ(Read(input, 1), "6");
    EXPECT_EQ(Read(input, 2), "78") << "from the buffer";
    EXPECT_TRUE(input.seek(-1, sBegin)) << "kept: no error where only reading is possible";
    EXPECT_EQ(input.getCurrentPos(), -1);
    EXPECT_TRUE(input.seek(0, sBegin));
    EXPECT_EQ(Read(input, 2), "01");
    for (const Way way : {sWrite, sBoth}) {
        kyIoDeviceFileStream output(path, way, true);
        EXPECT_FALSE(output.seek(-1, sBegin));
        EXPECT_EQ(output.getDeviceErrorMsg(), "std sub stream is in error after a seekp");
        output.clearDeviceError();
        // kept: only a file that can be read, too, drops the state of its stream.
        EXPECT_EQ(output.seek(1, sBegin), way == sBoth);
    }
}

TEST_F(FileStream, ReportsWhatAFullDeviceTakesBack)
{
    for (const bool asks : {false, true}) {
        // Small writes are refused by what hands them to the system.
        kyIoDeviceFileStream file("/dev/full", sBoth, false);
        EXPECT_EQ(file.writeBytes("abc", 3), 3u);
        EXPECT_FALSE(asks && file.atEnd()) << "a failed write taken for the end";
        EXPECT_EQ(asks ? file.writeBytes("d", 1) : Read(file, 1).size(), 0u);
        EXPECT_EQ(file.getDeviceErrorMsg(), sWriteError);
        EXPECT_TRUE(file.open("/dev/full", sBoth, false));
        EXPECT_EQ(file.writeBytes("abc", 3), 3u);
        EXPECT_FALSE(file.close());
    }
}

// What the system took must be in the file, once and in order, and everything else must be told.
TEST_F(FileStream, NeitherLosesNorRepeatsBytesAtALimit)
{
    ky::test::ExpectChildPasses([&] {
        ::signal(SIGXFSZ, SIG_IGN);
        for (const auto& [way, flushPeriod] :
             {std::pair(sWrite, 1000), std::pair(sWrite, 8 << 20), std::pair(sBoth, 32768)}) {
            rlimit limit = {1'000'000, RLIM_INFINITY};
            ::setrlimit(RLIMIT_FSIZE, &limit);
            kyIoDeviceFileStream file(path, way, true);
            std::string written;
            for (int number = 0; file.good() && written.size() < 2'000'000; ++number) {
                written += std::to_string(number) + ",";
                file << std::to_string(number) + ",";
                if (number % flushPeriod == 0)
                    file.flush();
            }
            EXPECT_EQ(file.getDeviceErrorMsg(), sWriteError);
            limit.rlim_cur = RLIM_INFINITY;
            ::setrlimit(RLIMIT_FSIZE, &limit);
            file.clearDeviceError();
            EXPECT_EQ(file.seek(0, Access::SeekFromCurrent), way == sBoth);
            EXPECT_FALSE(file.close()) << "what is lost stays lost";
            EXPECT_TRUE(Content(path) == written.substr(0, 1'000'000)) << way << flushPeriod;
        }
    });
}

TEST_F(FileStream, KeepsItsFileFromProgramsAndOffTheStandardStreams)
{
    ky::test::ExpectChildPasses([&] {
        const int lowest = ::open("/dev/null", O_RDONLY);
        for (const int freed : {lowest, STDIN_FILENO}) {
            ::close(freed);
            const kyIoDeviceFileStream file(path, sBoth, true);
            EXPECT_EQ(::fcntl(lowest, F_GETFD), FD_CLOEXEC);
        }
    });
}
