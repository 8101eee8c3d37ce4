#include "ky/kyDataStream.h"

#include "support/Devices.h"
#include "support/Library.h"

using ky::kyDataStream;
using ky::test::NotingDevice;
using namespace std::string_literals;

using DataStream = ky::test::LightLibrary;

namespace {

constexpr auto sLittle = kyDataStream::LittleEndian;
constexpr auto sBig = kyDataStream::BigEndian;

template <typename Value>
void ExpectLaidOut(const Value& value, const std::string& big, std::string little = {})
{
    if (little.empty())
        little.assign(big.rbegin(), big.rend());
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

}  // namespace

TEST_F(DataStream, LaysOutEveryTypeInBothOrders)
{
    ExpectLaidOut(true, "\xFF"s);
    ExpectLaidOut(static_cast<short>(-2), "\xFF\xFE"s);
    ExpectLaidOut(0x0123456789ABCDEFul, "\x01\x23\x45\x67\x89\xAB\xCD\xEF"s);
    ExpectLaidOut(-1.5f, "\xBF\xC0\0\0"s);
    ExpectLaidOut(-1.5, "\xBF\xF8\0\0\0\0\0\0"s);
    ExpectLaidOut("a\0b"s, "\0\0\0\3a\0b"s, "\3\0\0\0a\0b"s);
    ExpectLaidOut(std::vector<char>{'x'}, "\0\0\0\1x"s, "\1\0\0\0x"s);

    NotingDevice device("\2");
    kyDataStream stream(device, sBig);
    bool isSet = false;
    stream >> isSet;
    EXPECT_TRUE(isSet) << "anything but 0";
    int number = 0x01020304;
    EXPECT_TRUE(stream.write4BytesBigEndian(reinterpret_cast<char*>(&number)));
    EXPECT_EQ(number, 0x01020304) << "the caller's value was reversed";
    stream << static_cast<const char*>(nullptr);
    EXPECT_EQ(device.content.substr(5), "\0\0\0\0"s);
}

TEST_F(DataStream, StaysFailedFromAnyCallOnAndKeepsItsTargets)
{
    const std::vector<unsigned long> allCalls = {4, 4, 4, 8};
    std::string whole;
    for (std::size_t failsAt = allCalls.size() + 1; failsAt-- > 0;) {
        SCOPED_TRACE(failsAt);
        NotingDevice device({}, failsAt);
        kyDataStream stream(device, sBig);
        stream << 1 << "text" << 2.0;
        EXPECT_EQ(stream.isOk(), failsAt > 3);
        EXPECT_EQ(stream.getErrorMsg(), "") << "kept: only the device's text is told";
        // Texts are skipped after a failure, numbers are not, and the bytes of a text follow the
        // length although that has failed.
        EXPECT_EQ(device.calls, failsAt < 1 ? std::vector<unsigned long>({4, 8}) : allCalls);
        whole = failsAt > 3 ? device.content : whole;

        NotingDevice source(whole, failsAt);
        kyDataStream reader(source, sBig);
        int number = 77;
        std::string text = "old";
        reader >> number >> text;
        EXPECT_EQ(reader.isOk(), failsAt > 2);
        EXPECT_EQ(number, failsAt > 0 ? 1 : 77) << "a failed big-endian read changed its target";
        EXPECT_EQ(text, failsAt > 2 ? "text" : "");
    }
    ky::kyIoDeviceDummy dummy;
    kyDataStream stream(dummy, sLittle);
    dummy.setDeviceError("broken");
    EXPECT_TRUE(stream.writeRawData("x", 1)) << "kept: the flag, although nothing was written";
    EXPECT_EQ(stream.getErrorMsg(), "broken");
}

TEST_F(DataStream, DoesNothingWithoutADevice)
{
    kyDataStream stream(nullptr, sLittle);
    std::string text = "old";
    stream << 1 << "text" >> text;
    EXPECT_TRUE(text.empty() && !stream.isOk());
    stream.setIoDevice(nullptr, sBig);
    EXPECT_FALSE(stream.writeRawData("x", 1));
    stream.setIoDevice(nullptr, sBig);
    EXPECT_TRUE(stream.readRawBytes(text.data(), 1) == 0 && !stream.isOk());
}

TEST_F(DataStream, TrustsNoLengthAndRefusesTextsThatHaveNone)
{
    NotingDevice hostile("\xFF\xFF\xFF\xFF"s + "five!");
    kyDataStream stream(hostile, sBig);
    std::string text = "old";
    stream >> text;
    EXPECT_TRUE(text.empty() && !stream.isOk());
    EXPECT_LT(text.capacity(), 32U << 20);
    // Just above the size that is read in one call.
    NotingDevice device;
    stream.setIoDevice(&device, sBig);
    const std::string large((40u << 20) + 1, 't');
    stream << large >> text;
    EXPECT_TRUE(stream.isOk() && text == large);
    device.calls.clear();
    stream << std::string_view("never touched", 1ul << 32);
    EXPECT_TRUE(!stream.isOk() && device.calls.empty());
}
