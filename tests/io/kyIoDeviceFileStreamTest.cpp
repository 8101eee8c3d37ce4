#include "ky/kyIoDevice.h"

#include "support/Child.h"
#include "support/Devices.h"
#include "support/Library.h"

#include <filesystem>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <climits>
#include <csignal>
#include <cstdlib>

namespace fs = std::filesystem;
using ky::kyIoDeviceFileStream;
using ky::test::Content;
using ky::test::Read;

namespace {

using Way = ky::kyIoDevice::DataWay;
using From = ky::kyIoDeviceRandomAccess::SeekStart;
constexpr Way sRead = ky::kyIoDevice::DataWayRead;
constexpr Way sWrite = ky::kyIoDevice::DataWayWrite;
constexpr Way sBoth = ky::kyIoDevice::DataWayReadWrite;
constexpr From sBegin = ky::kyIoDeviceRandomAccess::SeekFromBeginning;
const char* const sWriteError = "std sub stream fail bit is set after a write";

struct FileStream : ky::test::LightLibrary {
    const ky::test::TemporaryFolder folder;
    const std::string path = folder.path("file");
};

void LimitFileSize(rlim_t bytes)
{
    rlimit limit = {};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = bytes;
    ::setrlimit(RLIMIT_FSIZE, &limit);
}

/// Writes numbers until one is refused at a limit that is lifted then. What the system took must be
/// in the file, once and in order, and everything else must have been told.
void ExpectNoSilentLoss(const std::string& path, Way way, int flushEvery)
{
    SCOPED_TRACE("way " + std::to_string(way) + " flush " + std::to_string(flushEvery));
    constexpr rlim_t limit = 1'000'000;
    LimitFileSize(limit);
    kyIoDeviceFileStream file(path, way, true);
    std::string written;
    for (int number = 0; file.good() && written.size() < 2 * limit; ++number) {
        std::string text = std::to_string(number) + ",";
        file << text;
        written += text;
        if (number % flushEvery == 0)
            file.flush();
    }
    EXPECT_EQ(file.getDeviceErrorMsg(), sWriteError);
    EXPECT_EQ(file.writeBytes("x", 1), 0u);
    LimitFileSize(RLIM_INFINITY);
    file.clearDeviceError();
    EXPECT_EQ(file.seek(0, ky::kyIoDeviceRandomAccess::SeekFromCurrent), way == sBoth);
    EXPECT_EQ(file.getCurrentPos(), way == sBoth ? long{limit} : -1);
    EXPECT_FALSE(file.close());
    EXPECT_TRUE(Content(path) == written.substr(0, limit));
}

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
        {sBoth, true, true, "abc"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.way) + row.afterwards);
        fs::remove(path);
        if (row.exists)
            folder.write("file", "0123456789");
        kyIoDeviceFileStream file(path, row.way, row.truncate);
        const bool writes = row.way != sRead;
        EXPECT_EQ(file.writeBytes("abc", 3), writes ? 3u : 0u);
        EXPECT_EQ(file.getCurrentPos(), writes ? 3 : 0) << "kept: counts from 0 when appending";
        EXPECT_TRUE(row.way != sWrite || Read(file, 3).empty());
        EXPECT_TRUE(file.close());
        EXPECT_FALSE(file.close());
        EXPECT_EQ(file.getSupportedDataWay(), Way{});
        EXPECT_EQ(Content(path), row.afterwards);
    }
}

TEST_F(FileStream, TellsWhyItIsNotOpen)
{
    const struct {
        std::string path;
        int way;
        const char* bits;
    } rows[] = {{"", 1, "00"},
                {path, 0, "00"},
                {path, 4, "00"},
                {path, 1, "10"},
                {folder.path(""), 3, "10"},
                {std::string("/dev/null\0x", 11), 1, "10"}};
    for (const auto& row : rows) {
        kyIoDeviceFileStream file(row.path, static_cast<Way>(row.way), false);
        EXPECT_FALSE(file.isOpen() || file.seek(0, sBegin));
        EXPECT_EQ(file.getDeviceErrorMsg(),
                  "failed to open file: '" + row.path + "' (bits " + row.bits + ")");
        file.clearDeviceError();
        EXPECT_FALSE(file.seek(0, sBegin));
        EXPECT_EQ(file.getDeviceErrorMsg(), "File is not open");
        EXPECT_TRUE(file.setFilePath(path) && file.good());
        EXPECT_FALSE(file.atEnd());
    }
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(FileStream, LosesNothingAtTheEndOfTheFile)
{
    folder.write("file", "0123456789");
    kyIoDeviceFileStream file(path, sBoth, false);
    EXPECT_EQ(Read(file, 8), "01234567");
    EXPECT_EQ(Read(file, 8), "89");
    EXPECT_TRUE(file.atEnd() && file.good());
    EXPECT_EQ(file.writeBytes("abc", 3), 3u);
    EXPECT_TRUE(file.atEnd());
    EXPECT_EQ(file.writeBytes("d", 1), 1u);
    EXPECT_EQ(file.getCurrentPos(), 14);
    EXPECT_TRUE(file.seek(-2, ky::kyIoDeviceRandomAccess::SeekFromEnd));
    EXPECT_EQ(Read(file, 9), "cd");
    EXPECT_TRUE(file.seek(1, sBegin));
    EXPECT_EQ(file.writeBytes("X", 1), 1u);
    EXPECT_EQ(Read(file, 2), "23") << "read behind what was just written";
    EXPECT_TRUE(file.close());
    EXPECT_EQ(Content(path), "0X23456789abcd");

    // Peeking at a file that cannot be read ends in the end-of-file state.
    kyIoDeviceFileStream output(path, sWrite, true);
    for (const char* text : {"a", "b"}) {
        EXPECT_TRUE(output.atEnd());
        EXPECT_EQ(output.writeBytes(text, 1), 1u);
        EXPECT_TRUE(output.flush());
    }
    EXPECT_EQ(Content(path), "ab");
    kyIoDeviceFileStream appended(path, sWrite, false);
    EXPECT_TRUE(appended.seek(0, ky::kyIoDeviceRandomAccess::SeekFromEnd) && appended.atEnd());
    EXPECT_TRUE(appended.seek(0, sBegin));
    EXPECT_FALSE(appended.atEnd()) << "a question has changed the answer to a later one";
}

TEST_F(FileStream, SeeksAsFarAsItsWayAllows)
{
    folder.write("file", "0123456789");
    kyIoDeviceFileStream input(path, sRead, false);
    EXPECT_EQ(Read(input, 99).size(), 10u);
    EXPECT_TRUE(input.seek(-4, ky::kyIoDeviceRandomAccess::SeekFromCurrent));
    EXPECT_TRUE(input.seek(3, static_cast<From>(3)));
    EXPECT_EQ(input.getCurrentPos(), 6) << "moved";
    EXPECT_EQ(Read(input, 1), "6");
    EXPECT_TRUE(input.seek(-1, sBegin)) << "kept: no error where only reading is possible";
    EXPECT_EQ(input.getCurrentPos(), -1);
    EXPECT_EQ(Read(input, 1), "");
    EXPECT_TRUE(input.seek(LONG_MAX, sBegin) || input.getCurrentPos() == -1);
    EXPECT_EQ(Read(input, 1), "");
    EXPECT_TRUE(input.good() && input.seek(0, sBegin));
    EXPECT_EQ(Read(input, 2), "01");

    for (const Way way : {sWrite, sBoth}) {
        kyIoDeviceFileStream output(path, way, true);
        EXPECT_EQ(output.writeBytes("0123", 4), 4u);
        EXPECT_TRUE(output.seek(9, static_cast<From>(-1)));
        EXPECT_EQ(output.getCurrentPos(), 4);
        EXPECT_FALSE(output.seek(-1, sBegin));
        EXPECT_EQ(output.getDeviceErrorMsg(), "std sub stream is in error after a seekp");
        output.clearDeviceError();
        // kept: only a file that can be read, too, drops the state of its stream.
        EXPECT_EQ(output.seek(1, sBegin), way == sBoth);
    }
}

TEST_F(FileStream, ReportsWhatAFullDeviceTakesBack)
{
    char byte = 0;
    for (const Way way : {sWrite, sBoth}) {
        // Small writes are refused by what hands them to the system.
        kyIoDeviceFileStream file("/dev/full", way, way == sWrite);
        EXPECT_EQ(file.writeBytes("abc", 3), 3u);
        EXPECT_FALSE(file.flush());
        EXPECT_EQ(file.getDeviceErrorMsg(), sWriteError);
        file.clearDeviceError();
        EXPECT_FALSE(file.close());
        EXPECT_EQ(file.getDeviceErrorMsg(), sWriteError) << "what is lost stays lost";
        EXPECT_TRUE(file.open("/dev/full", way, way == sWrite));
        EXPECT_EQ(file.writeBytes("abc", 3), 3u);
        EXPECT_FALSE(file.seek(0, sBegin));
        EXPECT_EQ(file.getDeviceErrorMsg(), "std sub stream is in error after a seekp");
    }
    for (const bool asks : {false, true}) {
        kyIoDeviceFileStream file("/dev/full", sBoth, false);
        EXPECT_EQ(file.writeBytes("abc", 3), 3u);
        EXPECT_FALSE(asks && file.atEnd()) << "a failed write taken for the end";
        EXPECT_EQ(asks ? file.writeBytes("d", 1) : file.readBytes(&byte, 1), 0u);
        EXPECT_EQ(file.getDeviceErrorMsg(), sWriteError);
    }
}

TEST_F(FileStream, NeitherLosesNorRepeatsBytesAtALimit)
{
    ky::test::ExpectChildPasses([&] {
        ::signal(SIGXFSZ, SIG_IGN);
        for (const Way way : {sWrite, sBoth})
            for (const int flushEvery : {1000, 32768, 8 << 20})
                ExpectNoSilentLoss(path, way, flushEvery);
    });
}

TEST_F(FileStream, KeepsItsFileFromProgramsAndOffTheStandardStreams)
{
    ky::test::ExpectChildPasses([&] {
        const kyIoDeviceFileStream plain(path, sWrite, true);
        ::close(STDIN_FILENO);
        const kyIoDeviceFileStream file(path, sBoth, true);
        EXPECT_TRUE(plain.isOpen() && file.isOpen());
        EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), -1);
        const std::string listing = "ls -l /proc/self/fd | grep -q " + path;
        EXPECT_NE(std::system(listing.c_str()), 0);
        const int inherited = ::open(path.c_str(), O_RDONLY);
        EXPECT_EQ(std::system(listing.c_str()), 0) << "cannot be seen at all";
        ::close(inherited);
    });
}
