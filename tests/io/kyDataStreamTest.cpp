#include "ky/kyDataStream.h"

#include "support/Devices.h"
#include "support/Library.h"

#include <limits>

#include <sys/resource.h>

using ky::kyDataStream;
using ky::test::NotingDevice;
using namespace std::string_literals;

namespace {

struct DataStream : ky::test::LightLibrary {};

constexpr auto sLittle = kyDataStream::LittleEndian;
constexpr auto sBig = kyDataStream::BigEndian;

template <typename Value>
void ExpectLaidOut(const Value& value, const std::string& big, const std::string& little)
{
    SCOPED_TRACE(::testing::PrintToString(big));
    for (const auto order : {sLittle, sBig, static_cast<kyDataStream::Endianness>(2)}) {
        NotingDevice device;
        kyDataStream stream(device, order);
        stream << value;
        EXPECT_EQ(device.content, order == sBig ? big : little);
        Value read{};
        stream >> read;
        EXPECT_TRUE(read == value && stream.isOk());
    }
}

template <typename Number>
void ExpectLaidOut(Number number, const std::string& big)
{
    ExpectLaidOut(number, big, std::string(big.rbegin(), big.rend()));
}

}  // namespace

TEST_F(DataStream, LaysOutEveryTypeInBothOrders)
{
    ExpectLaidOut(true, "\xFF"s);
    ExpectLaidOut(false, "\0"s);
    ExpectLaidOut('a', "a"s);
    ExpectLaidOut(static_cast<signed char>(-2), "\xFE"s);
    ExpectLaidOut(static_cast<unsigned char>(0x80), "\x80"s);
    ExpectLaidOut(static_cast<short>(-2), "\xFF\xFE"s);
    ExpectLaidOut(static_cast<unsigned short>(0x1234), "\x12\x34"s);
    ExpectLaidOut(1, "\0\0\0\1"s);
    ExpectLaidOut(0x89ABCDEFu, "\x89\xAB\xCD\xEF"s);
    ExpectLaidOut(1L, "\0\0\0\0\0\0\0\1"s);
    ExpectLaidOut(0x0123456789ABCDEFul, "\x01\x23\x45\x67\x89\xAB\xCD\xEF"s);
    ExpectLaidOut(-1.5f, "\xBF\xC0\0\0"s);
    ExpectLaidOut(std::numeric_limits<double>::denorm_min(), "\0\0\0\0\0\0\0\1"s);
    ExpectLaidOut("a\0b"s, "\0\0\0\3a\0b"s, "\3\0\0\0a\0b"s);
    ExpectLaidOut(std::vector<char>{'x'}, "\0\0\0\1x"s, "\1\0\0\0x"s);

    // One call per value and one per text.
    NotingDevice device;
    kyDataStream stream(device, sBig);
    const char* const none = nullptr;
    stream << 1 << 2.0 << 'c' << "text" << none;
    device.writeBytes("raw", 3);
    EXPECT_TRUE(stream.writeRawData("\2", 1));
    EXPECT_EQ(device.calls, (std::vector<unsigned long>{4, 8, 1, 4, 4, 4, 3, 1}));
    EXPECT_EQ(device.content.substr(21), "\0\0\0\0raw\2"s);

    int number = 0x01020304;
    EXPECT_TRUE(stream.write4BytesBigEndian(reinterpret_cast<char*>(&number)));
    EXPECT_EQ(number, 0x01020304) << "the caller's value was reversed";
    device.position = 28;
    bool isSet = false;
    stream >> isSet;
    EXPECT_TRUE(isSet) << "anything but 0";
}

TEST_F(DataStream, StaysFailedFromAnyCallOnAndKeepsItsTargets)
{
    const std::vector<unsigned long> allCalls = {4, 1, 4, 4, 8, 4, 3};
    std::string whole;
    for (std::size_t failsAt = allCalls.size() + 1; failsAt-- > 0;) {
        SCOPED_TRACE(failsAt);
        const bool isOk = failsAt == allCalls.size();
        NotingDevice device({}, failsAt);
        kyDataStream stream(device, sBig);
        stream << 1 << true << "text" << 2.0 << std::vector<char>(3, 'v');
        EXPECT_EQ(stream.isOk(), isOk);
        EXPECT_EQ(stream.getErrorMsg(), "") << "kept: only the device's text is told";
        // Texts are skipped after a failure, numbers are not, and the bytes of a text follow the
        // length although that has failed.
        std::vector<unsigned long> expected = allCalls;
        if (failsAt < 5)
            expected.resize(5);
        if (failsAt < 2)
            expected.erase(expected.begin() + 2, expected.begin() + 4);
        EXPECT_EQ(device.calls, expected);
        if (isOk)
            whole = device.content;
        EXPECT_FALSE(stream.writeRawData("x", 1));
        EXPECT_EQ(device.calls.size(), expected.size() + isOk);

        NotingDevice source(whole, failsAt);
        kyDataStream reader(source, sBig);
        int number = 77;
        bool isSet = true;
        std::string text = "old";
        double real = 77;
        std::vector<char> bytes = {'o'};
        reader >> number >> isSet >> text >> real >> bytes;
        EXPECT_EQ(reader.isOk(), isOk);
        EXPECT_EQ(number, failsAt > 0 ? 1 : 77) << "a failed big-endian read changed its target";
        EXPECT_EQ(isSet, failsAt > 1);
        EXPECT_EQ(text, failsAt > 3 ? "text" : "");
        EXPECT_EQ(real, failsAt > 4 ? 2.0 : 77);
        EXPECT_EQ(bytes.size(), isOk ? 3u : 0u);
        char raw = 0;
        EXPECT_EQ(reader.readRawBytes(&raw, 1), 0u);
    }

    ky::kyIoDeviceDummy dummy;
    kyDataStream stream(dummy, sLittle);
    int number = 0;
    stream >> number;
    EXPECT_EQ(stream.getErrorMsg(), "Read is not supported");
    dummy.clearDeviceError();
    EXPECT_FALSE(stream.isOk()) << "sticky";
    stream.setIoDevice(&dummy, sBig);
    dummy.setDeviceError("broken");
    EXPECT_FALSE(stream.isOk());
    EXPECT_TRUE(stream.writeRawData("x", 1)) << "kept: the flag, although nothing was written";
}

TEST_F(DataStream, DoesNothingWithoutADevice)
{
    kyDataStream none;
    kyDataStream null(nullptr, sLittle);
    EXPECT_TRUE(!none.isOk() && null.isOk());
    for (kyDataStream* stream : {&none, &null}) {
        std::string text = "old";
        bool isSet = true;
        char bytes[8] = {};
        *stream << 1 << "text" >> text >> isSet;
        EXPECT_TRUE(text.empty() && !isSet && !stream->isOk());
        EXPECT_EQ(stream->readRawBytes(bytes, 8), 0u);
        stream->setIoDevice(nullptr, sBig);
        EXPECT_EQ(stream->readRawBytes(nullptr, 8), 0u);
        EXPECT_TRUE(stream->isOk()) << "no place to read to is no failure";
        EXPECT_FALSE(stream->writeRawData(bytes, 8));
    }
}

TEST_F(DataStream, TrustsNoLengthAndRefusesTextsThatHaveNone)
{
    NotingDevice hostile("\xFF\xFF\xFF\xFF"s + "five!");
    kyDataStream stream(hostile, sBig);
    std::string text = "old";
    rusage before = {};
    ::getrusage(RUSAGE_SELF, &before);
    stream >> text;
    EXPECT_TRUE(text.empty() && !stream.isOk() && hostile.atEnd());
    rusage after = {};
    ::getrusage(RUSAGE_SELF, &after);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 32 << 10) << "KiB";
#endif

    // Just above the size that is read in one call, and a device that ends within it.
    for (const unsigned missing : {0u, 1u}) {
        NotingDevice device;
        stream.setIoDevice(&device, sBig);
        const std::string large((40u << 20) + 1, 't');
        stream << large;
        device.content.resize(device.content.size() - missing);
        stream >> text;
        EXPECT_EQ(stream.isOk(), missing == 0);
        EXPECT_TRUE(text == (missing == 0 ? large : ""));
    }
    NotingDevice untouched;
    stream.setIoDevice(&untouched, sBig);
    stream << std::string_view("never touched", 1ul << 32);
    EXPECT_FALSE(stream.isOk());
    EXPECT_TRUE(untouched.calls.empty());
}
