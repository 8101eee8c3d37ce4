#include "ky/kyIoDevice.h"

#include "support/Child.h"
#include "support/Devices.h"
#include "support/Library.h"

#include <fstream>
#include <functional>
#include <memory>
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

namespace {

using Access = ky::kyIoDeviceRandomAccess;
struct IoDevice : ky::test::LightLibrary {};

std::string Read(kyIoDevice& device, unsigned long n)
{
    std::string text(n, '?');
    text.resize(device.readBytes(text.data(), n));
    return text;
}

}  // namespace

TEST_F(IoDevice, KeepsTheFirstErrorAndLogsItEveryTime)
{
    ky::kyLog::Instance()->setLogLevel(ky::kyLogLevel::All);
    ky::test::CaughtStream console(std::cout);
    kyIoDeviceDummy device;
    device.setDeviceError("");
    device.setDeviceError("second");
    EXPECT_EQ(device.getDeviceErrorMsg(), " unknown device error");
    const auto lines = ky::test::Lines(console.take());
    ASSERT_EQ(lines.size(), 2u);
    for (const std::string& line : lines) {
        EXPECT_EQ(line.find("TRACE PID "), 0u) << line;
        EXPECT_NE(line.find(" : kyIoDevice error :  unknown device error"), std::string::npos);
    }
    device.clearDeviceError();
    EXPECT_TRUE(device.good() && device.getDeviceErrorMsg().empty());
}

TEST_F(IoDevice, SkipsInPiecesUpToAShortRead)
{
    NotingDevice device(std::string(5000, 'x'));
    EXPECT_EQ(device.skipBytes(0), 0u);
    EXPECT_EQ(device.skipBytes(10000), 5000u);
    EXPECT_EQ(device.calls, (std::vector<unsigned long>{4096, 4096}));
    NotingDevice exact(std::string(9000, 'x'));
    EXPECT_EQ(exact.skipBytes(5000), 5000u);
    EXPECT_EQ(exact.calls, (std::vector<unsigned long>{4096, 904}));
    const char* const none = nullptr;
    exact << none << std::string("a\0b", 3) << "cd";
    EXPECT_EQ(exact.content.substr(9000), std::string("a\0bcd", 5));
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

    for (std::size_t failsAt = 0; failsAt < 2; ++failsAt) {
        NotingDevice refusing({}, failsAt);
        source.position = 0;
        source.clearDeviceError();
        EXPECT_FALSE(source.writeBackToDevice(refusing, &written));
        EXPECT_EQ(source.getDeviceErrorMsg(), "Destination device is in error");
        EXPECT_TRUE(refusing.good());
        EXPECT_EQ(written, (4ul << 20) + 1) << "touched";
    }

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
    const std::string file = folder.write("file", "content");
    ASSERT_EQ(::mkfifo(folder.path("fifo").c_str(), 0600), 0);
    // Both ends of the pipe, so that opening does not wait.
    const int fifo = ::open(folder.path("fifo").c_str(), O_RDWR | O_CLOEXEC);
    std::istringstream input("content");
    std::ifstream directory(folder.path(""));
    const auto open = [&](const std::string& name, kyIoDevice::DataWay way) {
        return [=, &folder] {
            return std::make_unique<kyIoDeviceFileStream>(folder.path(name), way, false);
        };
    };
    const struct {
        const char* name;
        std::function<std::unique_ptr<Access>()> make;
        bool loads;
        std::string loaded;
        const char* error;  // that transferring meets
        unsigned long transferred;
    } rows[] = {
        {"closed file", [] { return std::make_unique<kyIoDeviceFileStream>(); }, false, "", "", 0},
        {"file", open("file", kyIoDevice::DataWayRead), true, "content", "", 7},
        {"read-write file", open("file", kyIoDevice::DataWayReadWrite), true, "content", "", 7},
        {"appended file", open("file", kyIoDevice::DataWayWrite), false, "", "", 0},
        {"directory", open("", kyIoDevice::DataWayRead), false, "",
         "std sub stream bad bit is set after a read", 0},
        {"input",
         [&] {
             return std::make_unique<kyIoDeviceStdStreamProxy>(static_cast<std::istream*>(&input));
         },
         true, "content", "", 7},
        {"input that fails",
         [&] {
             return std::make_unique<kyIoDeviceStdStreamProxy>(
                 static_cast<std::istream*>(&directory));
         },
         false, "", "std sub stream is in error after a read : istream bad bit is set", 0},
        {"no stream",
         [] {
             return std::make_unique<kyIoDeviceStdStreamProxy>(static_cast<std::istream*>(nullptr));
         },
         false, "", "", 0},
        {"bytes", [] { return std::make_unique<kyIoDeviceByteContainerReadOnly>("content", 7); },
         true, "content", "", 7},
        {"no bytes", [] { return std::make_unique<kyIoDeviceByteContainerReadOnly>(nullptr, 0); },
         true, "", "", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto device = row.make();
        std::vector<char> bytes;
        EXPECT_EQ(device->loadFullFileContent(bytes), row.loads);
        if (row.loads) {
            EXPECT_EQ(std::string(bytes.begin(), bytes.end()), row.loaded);
        }
        device->clearDeviceError();
        directory.clear();
        kyIoDeviceNullWriteOnly target;
        unsigned long written = 0;
        const auto again = row.loads ? nullptr : row.make();
        kyIoDevice& source = again ? *again : *device;
        EXPECT_EQ(source.writeBackToDevice(target, &written), *row.error == '\0');
        EXPECT_EQ(source.getDeviceErrorMsg(), row.error);
        EXPECT_TRUE(*row.error == '\0' || source.atEnd()) << "asked for ever";
        EXPECT_EQ(written, row.transferred);
    }

    // What cannot be loaded is still to be read.
    std::vector<char> bytes;
    kyIoDeviceFileStream pipe(folder.path("fifo"), kyIoDevice::DataWayRead, false);
    std::ifstream pipeStream(folder.path("fifo"));
    kyIoDeviceStdStreamProxy proxy(static_cast<std::istream*>(&pipeStream));
    for (Access* const device : {static_cast<Access*>(&pipe), static_cast<Access*>(&proxy)}) {
        ASSERT_EQ(::write(fifo, "content", 7), 7);
        EXPECT_FALSE(device->loadFullFileContent(bytes));
        EXPECT_TRUE(device->good());
        EXPECT_EQ(Read(*device, 7), "content");
    }
    ::close(fifo);
    unsigned long written = 1;
    EXPECT_TRUE(pipe.writeBackToDevice(pipe, &written));
    EXPECT_EQ(written, 0u);
}

TEST_F(IoDevice, ProxiesLeaveStreamsUsableAtTheirEnd)
{
    std::stringstream text("0123456789");
    kyIoDeviceStdStreamProxy input(static_cast<std::istream*>(&text));
    EXPECT_EQ(Read(input, 4), "0123");
    EXPECT_EQ(Read(input, 99), "456789");
    EXPECT_EQ(Read(input, 1), "");
    EXPECT_TRUE(input.atEnd() && input.good());
    EXPECT_EQ(input.getCurrentPos(), 10);
    // kept: whatever is no beginning and no current position is the end.
    EXPECT_TRUE(input.seek(-3, static_cast<Access::SeekStart>(7)));
    EXPECT_EQ(Read(input, 2), "78");
    EXPECT_TRUE(input.seek(-1, Access::SeekFromCurrent));
    EXPECT_EQ(Read(input, 1), "8");
    EXPECT_TRUE(input.seek(-99, Access::SeekFromBeginning)) << "true while there is a stream";
    EXPECT_EQ(input.getCurrentPos(), -1);
    EXPECT_EQ(input.writeBytes("x", 1), 0u);

    text.clear(std::ios_base::badbit);
    EXPECT_EQ(Read(input, 1), "");
    EXPECT_EQ(input.getDeviceErrorMsg(),
              "std sub stream is in error after a read : istream bad bit is set");

    std::stringstream sink;
    kyIoDeviceStdStreamProxy output(static_cast<std::ostream*>(&sink));
    sink.peek();
    EXPECT_EQ(output.writeBytes("abc", 3), 3u);
    EXPECT_EQ(sink.str(), "abc") << "lost at the end of the file";
    EXPECT_TRUE(output.seek(1, Access::SeekFromBeginning));
    EXPECT_EQ(output.getCurrentPos(), 1);
    EXPECT_EQ(Read(output, 1), "");
    EXPECT_FALSE(output.atEnd());
    sink.setstate(std::ios_base::failbit);
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
        {3, 0, 3, ""},
        {10, 0, 10, ""},
        {1, 1, 5, ""},
        {-4, 1, 0, ""},
        {0, 2, 10, ""},
        {-10, 2, 0, ""},
        {-1, 0, 0, "seek offset is negative"},
        {-5, 1, 0, "seek offset is negative"},
        {LONG_MIN, 2, 0, "seek offset is negative"},
        {11, 0, 10, "seek offset is bigger than buffer"},
        {7, 1, 10, "seek offset is bigger than buffer"},
        {LONG_MAX, 1, 10, "seek offset is bigger than buffer"},
        {1, 3, 4, "seek unhandled enum"},
        {1, -1, 4, "seek unhandled enum"},
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
    EXPECT_EQ(null.getCurrentPos(), -1);
    EXPECT_FALSE(null.seek(0, static_cast<Access::SeekStart>(3)));
    EXPECT_EQ(null.getDeviceErrorMsg(), "Unhandled seekp enum");
    EXPECT_EQ(null.getCurrentPos(), -1);

    kyIoDeviceDummy dummy;
    kyIoDeviceNullWriteOnly counter;
    kyIoDeviceByteContainerReadOnly bytes("x", 1);
    EXPECT_EQ(Read(counter, 1), "");
    EXPECT_EQ(bytes.writeBytes("y", 1), 0u);
    EXPECT_EQ(counter.getDeviceErrorMsg(), "readBytes is not supported");
    EXPECT_EQ(bytes.getDeviceErrorMsg(), "Write is not supported");
    dummy.setDeviceError("broken");
    EXPECT_EQ(dummy.writeBytes("y", 1), 1u) << "kept: an error does not stop it";
    EXPECT_TRUE(dummy.atEnd() && counter.atEnd());
}
