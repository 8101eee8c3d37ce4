#include "ky/kyIoDevice.h"

#include "support/Child.h"
#include "support/Devices.h"
#include "support/Library.h"

#include <fstream>
#include <sstream>

#include <climits>

using ky::kyIoDeviceFileStream;
using ky::kyIoDeviceStdStreamProxy;
using ky::test::NotingDevice;
using ky::test::Read;

using Access = ky::kyIoDeviceRandomAccess;
using IoDevice = ky::test::LightLibrary;

TEST_F(IoDevice, KeepsTheFirstErrorAndLogsItEveryTime)
{
    ky::kyLog::Instance()->setLogLevel(ky::kyLogLevel::All);
    ky::test::CaughtStream console(std::cout);
    ky::kyIoDeviceDummy device;
    for (const char* message : {"", "second"}) {
        device.setDeviceError(message);
        EXPECT_TRUE(console.take().ends_with(" : kyIoDevice error :  unknown device error\n"));
    }
    EXPECT_EQ(device.writeBytes("y", 1), 1u) << "kept: an error does not stop it";
    device.clearDeviceError();
    device << static_cast<const char*>(nullptr);
    EXPECT_EQ(device.readBytes(nullptr, 1), 0u);
    EXPECT_EQ(device.getDeviceErrorMsg(), "Read is not supported");
}

TEST_F(IoDevice, TransfersInPiecesAndBlamesTheSource)
{
    NotingDevice source(std::string((4 << 20) + 1, 'x'));
    NotingDevice target;
    unsigned long written = 7;
    std::vector<char> buffer(10 << 20);
    EXPECT_TRUE(source.writeBackToDevice(target, &written, &buffer));
    EXPECT_EQ(written, (4ul << 20) + 1);
    EXPECT_TRUE(target.content == source.content);
    EXPECT_EQ(buffer.size(), 4u << 20);
    source.position -= 5000;
    EXPECT_EQ(source.skipBytes(10000), 5000u);
    NotingDevice refusing({}, 1);
    source.position = 0;
    EXPECT_FALSE(source.writeBackToDevice(refusing, &written));
    EXPECT_EQ(source.getDeviceErrorMsg(), "Destination device is in error");
}

TEST_F(IoDevice, EndsTransfersAndLoadsOnEveryKindOfDevice)
{
    const ky::test::TemporaryFolder folder;
    kyIoDeviceFileStream closed;
    kyIoDeviceFileStream file(folder.write("file", "content"), Access::DataWayReadWrite, false);
    kyIoDeviceFileStream directory(folder.path(""), Access::DataWayRead, false);
    std::ifstream failing(folder.path(""));
    failing.exceptions(std::ios_base::badbit);
    kyIoDeviceStdStreamProxy proxy(static_cast<std::istream*>(&failing));
    const struct {
        Access& device;
        std::string content;
        std::string error;  // that transferring meets
    } rows[] = {
        {closed, "", ""},
        {file, "content", ""},
        {directory, "", "std sub stream bad bit is set after a read"},
        {proxy, "", "std sub stream is in error after a read : istream bad bit is set"},
    };
    for (const auto& [device, content, error] : rows) {
        NotingDevice target;
        EXPECT_EQ(device.writeBackToDevice(target, nullptr), error.empty());
        EXPECT_EQ(device.getDeviceErrorMsg(), error);
        EXPECT_TRUE(error.empty() || device.atEnd()) << "asked for ever";
        EXPECT_EQ(target.content, content);
        device.clearDeviceError();
        std::vector<char> loaded;
        EXPECT_EQ(device.loadFullFileContent(loaded), !content.empty());
        EXPECT_TRUE(content.empty() || std::string(loaded.begin(), loaded.end()) == content);
    }
}

TEST_F(IoDevice, ProxiesLeaveStreamsUsableAtTheirEnd)
{
    std::stringstream text("0123456789");
    text.exceptions(~std::ios_base::goodbit);
    kyIoDeviceStdStreamProxy input(static_cast<std::istream*>(&text));
    kyIoDeviceStdStreamProxy output(static_cast<std::ostream*>(&text));
    EXPECT_EQ(Read(input, 99), "0123456789");
    // kept: whatever is no beginning and no current position is the end.
    EXPECT_TRUE(input.seek(-3, static_cast<Access::SeekStart>(7)));
    EXPECT_EQ(Read(input, 99), "789");
    EXPECT_EQ(output.writeBytes("abc", 3), 3u);
    EXPECT_EQ(text.str(), "abc3456789") << "lost at the end of the file";
    EXPECT_TRUE(output.seek(-1, Access::SeekFromBeginning)) << "true while there is a stream";
    EXPECT_EQ(output.writeBytes("d", 1), 0u);
    EXPECT_EQ(output.getDeviceErrorMsg(),
              "std sub stream is in error after a write : ostream fail and/or bad bit is set");
}

TEST_F(IoDevice, ProxiesTellOfBuffersThatThrowByNoPosition)
{
    struct : std::streambuf {
        pos_type seekoff(off_type, std::ios_base::seekdir, std::ios_base::openmode) override
        {
            throw 1;
        }
    } buffer;
    std::iostream stream(&buffer);
    const kyIoDeviceStdStreamProxy input(static_cast<std::istream*>(&stream));
    kyIoDeviceStdStreamProxy output(static_cast<std::ostream*>(&stream));
    EXPECT_EQ(input.getCurrentPos(), -1);
    EXPECT_EQ(output.getCurrentPos(), -1);
    EXPECT_TRUE(output.seek(0, Access::SeekFromBeginning));
    EXPECT_TRUE(stream.bad());
}

TEST_F(IoDevice, SeeksWithinBytesAndStopsAtTheirEnds)
{
    const struct {
        long offset;
        int from;
        const char* left;
        const char* error;
    } rows[] = {
        {10, 0, "", ""},
        {-4, 1, "0123456789", ""},
        {LONG_MIN, 2, "0123456789", "seek offset is negative"},
        {LONG_MAX, 1, "", "seek offset is bigger than buffer"},
        {1, 3, "456789", "seek unhandled enum"},
    };
    for (const auto& row : rows) {
        ky::kyIoDeviceByteContainerReadOnly device("0123456789", 10);
        EXPECT_EQ(Read(device, 4), "0123");
        EXPECT_EQ(device.seek(row.offset, Access::SeekStart(row.from)), *row.error == '\0');
        EXPECT_EQ(device.getDeviceErrorMsg(), row.error);
        EXPECT_EQ(Read(device, 99), row.left) << "kept: an error does not stop the reading";
    }
    ky::kyIoDeviceNullWriteOnly null;
    EXPECT_EQ(null.writeBytes(nullptr, 10), 10u);
    EXPECT_TRUE(null.seek(2, Access::SeekFromBeginning) && null.seek(-1, Access::SeekFromEnd));
    EXPECT_TRUE(null.seek(-10, Access::SeekFromCurrent)) << "kept: unchecked";
    EXPECT_EQ(null.getCurrentPos(), -1);
    EXPECT_FALSE(null.seek(0, static_cast<Access::SeekStart>(3)));
    EXPECT_EQ(null.getDeviceErrorMsg(), "Unhandled seekp enum");
    ky::kyIoDeviceNullWriteOnly sink;
    ky::kyIoDeviceByteContainerReadOnly bytes(nullptr, 0);
    EXPECT_EQ(sink.readBytes(nullptr, 1) + bytes.writeBytes("y", 1), 0u);
    EXPECT_EQ(sink.getDeviceErrorMsg(), "readBytes is not supported");
    EXPECT_EQ(bytes.getDeviceErrorMsg(), "Write is not supported");
}
