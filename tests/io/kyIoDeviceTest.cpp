#include "ky/kyIoDevice.h"

#include "support/Child.h"
#include "support/Devices.h"
#include "support/Library.h"

#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using ky::kyIoDevice;
using ky::kyIoDeviceByteContainerReadOnly;
using ky::kyIoDeviceDummy;
using ky::kyIoDeviceFileStream;
using ky::kyIoDeviceNullWriteOnly;
using ky::kyIoDeviceStdStreamProxy;
using ky::test::NotingDevice;
using ky::test::Read;

namespace {

using Access = ky::kyIoDeviceRandomAccess;
struct IoDevice : ky::test::LightLibrary {};

}  // namespace

TEST_F(IoDevice, KeepsTheFirstErrorAndLogsItEveryTime)
{
    ky::kyLog::Instance()->setLogLevel(ky::kyLogLevel::All);
    ky::test::CaughtStream console(std::cout);
    kyIoDeviceDummy device;
    for (const char* message : {"", "second"}) {
        device.setDeviceError(message);
        const std::string line = console.take();
        EXPECT_TRUE(line.starts_with("TRACE PID ")) << line;
        EXPECT_TRUE(line.ends_with(" : kyIoDevice error :  unknown device error\n")) << line;
        EXPECT_EQ(device.getDeviceErrorMsg(), " unknown device error");
    }
    device.clearDeviceError();
    EXPECT_TRUE(device.good() && device.getDeviceErrorMsg().empty());
}

TEST_F(IoDevice, SkipsInPiecesUpToAShortRead)
{
    NotingDevice device(std::string(9000, 'x'));
    EXPECT_EQ(device.skipBytes(5000), 5000u);
    EXPECT_EQ(device.skipBytes(10000), 4000u);
    EXPECT_EQ(device.calls, (std::vector<unsigned long>{4096, 904, 4096}));
    const char* const none = nullptr;
    device << none << std::string("a\0b", 3) << "cd";
    EXPECT_EQ(device.content.substr(9000), std::string("a\0bcd", 5));
}

TEST_F(IoDevice, TransfersWhatIsLeftAndBlamesTheSource)
{
    NotingDevice source("head" + std::string((4 << 20) + 1, 'x'));
    NotingDevice target;
    source.skipBytes(4);
    unsigned long written = 7;
    std::vector<char> buffer(10 << 20);
    EXPECT_TRUE(source.writeBackToDevice(target, &written, &buffer));
    EXPECT_EQ(written, (4ul << 20) + 1);
    EXPECT_EQ(target.content, source.content.substr(4));
    EXPECT_EQ(buffer.size(), 4u << 20);

    NotingDevice refusing({}, 1);
    source.position = 0;
    EXPECT_FALSE(source.writeBackToDevice(refusing, &written));
    EXPECT_EQ(source.getDeviceErrorMsg(), "Destination device is in error");
    EXPECT_EQ(written, (4ul << 20) + 1) << "touched";

    // A device that tells more than was asked for.
    struct : NotingDevice {
        unsigned long readBytes(char* /*dst*/, unsigned long n) override { return n + 1; }
        bool atEnd() const override { return false; }
    } lying;
    EXPECT_EQ(lying.skipBytes(5000), 5000u);
    EXPECT_FALSE(lying.writeBackToDevice(target, &written));
    EXPECT_EQ(lying.getDeviceErrorMsg(), "Device tells more bytes than it was asked for");
}

TEST_F(IoDevice, EndsTransfersAndLoadsOnEveryKindOfDevice)
{
    const ky::test::TemporaryFolder folder;
    kyIoDeviceFileStream closed;
    kyIoDeviceFileStream file(folder.write("file", "content"), kyIoDevice::DataWayReadWrite, false);
    kyIoDeviceFileStream directory(folder.path(""), kyIoDevice::DataWayRead, false);
    std::istringstream text("content");
    std::ifstream failing(folder.path(""));
    failing.exceptions(std::ios_base::badbit);
    kyIoDeviceStdStreamProxy proxy(static_cast<std::istream*>(&text));
    kyIoDeviceStdStreamProxy failingProxy(static_cast<std::istream*>(&failing));
    kyIoDeviceByteContainerReadOnly noBytes(nullptr, 0);
    const struct {
        Access& device;
        bool loads;
        std::string content;
        std::string error;  // that transferring meets
    } rows[] = {
        {closed, false, "", ""},
        {file, true, "content", ""},
        {directory, false, "", "std sub stream bad bit is set after a read"},
        {proxy, true, "content", ""},
        {failingProxy, false, "",
         "std sub stream is in error after a read : istream bad bit is set"},
        {noBytes, true, "", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        kyIoDeviceNullWriteOnly target;
        unsigned long written = 1;
        EXPECT_EQ(row.device.writeBackToDevice(target, &written), row.error.empty());
        EXPECT_EQ(row.device.getDeviceErrorMsg(), row.error);
        EXPECT_TRUE(row.error.empty() || row.device.atEnd()) << "asked for ever";
        EXPECT_EQ(written, row.content.size());
        row.device.clearDeviceError();
        row.device.seek(0, Access::SeekFromBeginning);
        std::vector<char> loaded;
        EXPECT_EQ(row.device.loadFullFileContent(loaded), row.loads);
        if (row.loads) {
            EXPECT_EQ(std::string(loaded.begin(), loaded.end()), row.content);
            EXPECT_EQ(row.device.getCurrentPos(), 0);
        }
    }

    // What cannot be loaded is still to be read. Both ends of the pipe, so that opening does not
    // wait.
    ASSERT_EQ(::mkfifo(folder.path("fifo").c_str(), 0600), 0);
    const int fifo = ::open(folder.path("fifo").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::write(fifo, "content", 7), 7);
    kyIoDeviceFileStream pipe(folder.path("fifo"), kyIoDevice::DataWayRead, false);
    std::vector<char> loaded;
    EXPECT_FALSE(pipe.loadFullFileContent(loaded));
    EXPECT_EQ(Read(pipe, 7), "content");
    ::close(fifo);
}

TEST_F(IoDevice, ProxiesLeaveStreamsUsableAtTheirEnd)
{
    constexpr auto everything = ~std::ios_base::goodbit;
    std::stringstream text("0123456789");
    text.exceptions(everything);
    kyIoDeviceStdStreamProxy input(static_cast<std::istream*>(&text));
    EXPECT_EQ(Read(input, 99), "0123456789");
    EXPECT_TRUE(input.atEnd() && input.good());
    EXPECT_EQ(input.getCurrentPos(), 10);
    // kept: whatever is no beginning and no current position is the end.
    EXPECT_TRUE(input.seek(-3, static_cast<Access::SeekStart>(7)));
    EXPECT_EQ(Read(input, 2), "78");
    EXPECT_TRUE(input.seek(-99, Access::SeekFromBeginning)) << "true while there is a stream";
    EXPECT_EQ(input.getCurrentPos(), -1);

    std::stringstream sink;
    kyIoDeviceStdStreamProxy output(static_cast<std::ostream*>(&sink));
    sink.peek();
    EXPECT_EQ(output.writeBytes("abc", 3), 3u);
    sink.exceptions(everything);
    EXPECT_EQ(sink.str(), "abc") << "lost at the end of the file";
    EXPECT_TRUE(output.seek(1, Access::SeekFromBeginning));
    EXPECT_EQ(output.getCurrentPos(), 1);
    EXPECT_TRUE(output.seek(-1, Access::SeekFromBeginning));
    EXPECT_EQ(output.getCurrentPos(), -1);
    EXPECT_EQ(output.writeBytes("d", 1), 0u);
    EXPECT_EQ(output.getDeviceErrorMsg(),
              "std sub stream is in error after a write : ostream fail and/or bad bit is set");
}

TEST_F(IoDevice, SeeksWithinBytesAndStopsAtTheirEnds)
{
    const struct {
        long offset;
        int from;
        long position;
        const char* error;
    } rows[] = {
        {10, 0, 10, ""},
        {-4, 1, 0, ""},
        {-10, 2, 0, ""},
        {-1, 0, 0, "seek offset is negative"},
        {-5, 1, 0, "seek offset is negative"},
        {LONG_MIN, 2, 0, "seek offset is negative"},
        {11, 0, 10, "seek offset is bigger than buffer"},
        {LONG_MAX, 1, 10, "seek offset is bigger than buffer"},
        {1, 3, 4, "seek unhandled enum"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.offset) + " from " + std::to_string(row.from));
        kyIoDeviceByteContainerReadOnly device("0123456789", 10);
        EXPECT_EQ(Read(device, 4), "0123");
        EXPECT_EQ(device.seek(row.offset, static_cast<Access::SeekStart>(row.from)),
                  *row.error == '\0');
        EXPECT_EQ(device.getCurrentPos(), row.position);
        EXPECT_EQ(device.getDeviceErrorMsg(), row.error);
        EXPECT_EQ(Read(device, 99), std::string("0123456789").substr(row.position))
            << "kept: an error does not stop the reading";
        EXPECT_TRUE(device.atEnd());
    }
}

TEST_F(IoDevice, SinksCountOrForget)
{
    kyIoDeviceNullWriteOnly null;
    EXPECT_EQ(null.writeBytes(nullptr, 10), 10u);
    EXPECT_TRUE(null.seek(2, Access::SeekFromBeginning) && null.seek(3, Access::SeekFromCurrent));
    EXPECT_EQ(null.getCurrentPos(), 5);
    EXPECT_TRUE(null.seek(-1, Access::SeekFromEnd));
    EXPECT_EQ(null.getCurrentPos(), 9);
    EXPECT_TRUE(null.seek(-10, Access::SeekFromCurrent)) << "kept: unchecked";
    EXPECT_FALSE(null.seek(0, static_cast<Access::SeekStart>(3)));
    EXPECT_EQ(null.getDeviceErrorMsg(), "Unhandled seekp enum");
    EXPECT_EQ(null.getCurrentPos(), -1);

    kyIoDeviceNullWriteOnly counter;
    kyIoDeviceByteContainerReadOnly bytes("x", 1);
    EXPECT_EQ(Read(counter, 1), "");
    EXPECT_EQ(bytes.writeBytes("y", 1), 0u);
    EXPECT_EQ(counter.getDeviceErrorMsg(), "readBytes is not supported");
    EXPECT_EQ(bytes.getDeviceErrorMsg(), "Write is not supported");
    kyIoDeviceDummy dummy;
    dummy.setDeviceError("broken");
    EXPECT_EQ(dummy.writeBytes("y", 1), 1u) << "kept: an error does not stop it";
    EXPECT_TRUE(dummy.atEnd() && counter.atEnd());
}
