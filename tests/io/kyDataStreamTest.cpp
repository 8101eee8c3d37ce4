#include "ky/kyDataStream.h"

#include "support/Devices.h"
#include "support/Library.h"

#include <functional>
#include <limits>

#include <sys/resource.h>

using ky::kyDataStream;
using ky::test::NotingDevice;

namespace {

struct DataStream : ky::test::LightLibrary {};

constexpr auto sLittle = kyDataStream::LittleEndian;
constexpr auto sBig = kyDataStream::BigEndian;

/// One value of every type, with what it is on the wire in both orders.
struct Row {
    std::string little;
    std::string big;
    std::function<void(kyDataStream&)> write;
    std::function<bool(kyDataStream&)> reads;  // whether the same value came back
};

template <typename Value>
Row Case(Value value, std::string little, std::string big)
{
    return {little, big, [=](kyDataStream& stream) { stream << value; },
            [=](kyDataStream& stream) {
                Value read{};
                stream >> read;
                return read == value;
            }};
}

template <typename Value>
Row Case(Value value, std::string big)
{
    return Case(value, std::string(big.rbegin(), big.rend()), big);
}

using namespace std::string_literals;

std::vector<Row> AllTypes()
{
    std::vector<Row> rows = {
        Case(true, "\xFF"s),
        Case(false, "\0"s),
        Case('a', "a"s),
        Case(static_cast<signed char>(-2), "\xFE"s),
        Case(static_cast<unsigned char>(0x80), "\x80"s),
        Case(static_cast<short>(-2), "\xFF\xFE"s),
        Case(static_cast<unsigned short>(0x1234), "\x12\x34"s),
        Case(1, "\0\0\0\1"s),
        Case(0x89ABCDEFu, "\x89\xAB\xCD\xEF"s),
        Case(1L, "\0\0\0\0\0\0\0\1"s),
        Case(0x0123456789ABCDEFul, "\x01\x23\x45\x67\x89\xAB\xCD\xEF"s),
        Case(-1.5f, "\xBF\xC0\0\0"s),
        Case(-0.1, "\xBF\xB9\x99\x99\x99\x99\x99\x9A"s),
        Case(std::numeric_limits<double>::denorm_min(), "\0\0\0\0\0\0\0\1"s),
        Case("a\0b"s, "\3\0\0\0a\0b"s, "\0\0\0\3a\0b"s),
        Case(""s, "\0\0\0\0"s),
        Case(std::vector<char>{'x'}, "\1\0\0\0x"s, "\0\0\0\1x"s),
        Case(std::vector<char>{}, "\0\0\0\0"s),
    };
    const char* const none = nullptr;
    rows.push_back({"\2\0\0\0hi\0\0\0\0"s, "\0\0\0\2hi\0\0\0\0"s,
                    [=](kyDataStream& stream) { stream << "hi" << none; },
                    [](kyDataStream& stream) {
                        std::string text;
                        std::string empty = "not empty";
                        stream >> text >> empty;
                        return text == "hi" && empty.empty();
                    }});
    return rows;
}

}  // namespace

TEST_F(DataStream, LaysOutEveryTypeInBothOrders)
{
    for (const auto order : {sLittle, sBig, static_cast<kyDataStream::Endianness>(2)}) {
        std::size_t number = 0;
        for (const Row& row : AllTypes()) {
            SCOPED_TRACE("row " + std::to_string(number++) + " order " + std::to_string(order));
            NotingDevice device;
            kyDataStream stream(device, order);
            EXPECT_EQ(stream.getEndianness(), order);
            row.write(stream);
            EXPECT_EQ(device.content, order == sBig ? row.big : row.little);
            EXPECT_TRUE(row.reads(stream) && stream.isOk());
        }
    }
    NotingDevice two("\2");
    kyDataStream stream(two, sLittle);
    bool isSet = false;
    stream >> isSet;
    EXPECT_TRUE(isSet) << "anything but 0";

    // One call per value and one per text.
    NotingDevice device;
    stream.setIoDevice(&device, sBig);
    stream << 1 << 2.0 << 'c' << "text"
           << "";
    device.writeBytes("raw", 3);
    EXPECT_TRUE(stream.writeRawData("more", 4));
    EXPECT_EQ(device.calls, (std::vector<unsigned long>{4, 8, 1, 4, 4, 4, 3, 4}));
    EXPECT_EQ(device.content.substr(21), "\0\0\0\0rawmore"s);

    int number = 0x01020304;
    EXPECT_TRUE(stream.write4BytesBigEndian(reinterpret_cast<char*>(&number)));
    EXPECT_EQ(number, 0x01020304) << "the caller's value was reversed";
}

TEST_F(DataStream, StaysFailedFromAnyCallOnAndKeepsItsTargets)
{
    const auto write = [](kyDataStream& stream) {
        stream << 1 << true << "text" << 2.0 << std::vector<char>(3, 'v');
    };
    NotingDevice whole;
    kyDataStream writer(whole, sBig);
    write(writer);
    const std::vector<unsigned long> allCalls = {4, 1, 4, 4, 8, 4, 3};
    ASSERT_EQ(whole.calls, allCalls);
    for (std::size_t failsAt = 0; failsAt < allCalls.size(); ++failsAt) {
        SCOPED_TRACE(failsAt);
        NotingDevice device({}, failsAt);
        kyDataStream stream(device, sBig);
        write(stream);
        EXPECT_FALSE(stream.isOk());
        EXPECT_EQ(stream.getErrorMsg(), "") << "kept: only the device's text is told";
        // Texts are skipped after a failure, numbers are not, and the bytes of a text follow the
        // length although that has failed.
        std::vector<unsigned long> expected = allCalls;
        if (failsAt < 5)
            expected.resize(5);
        if (failsAt < 2)
            expected.erase(expected.begin() + 2, expected.begin() + 4);
        EXPECT_EQ(device.calls, expected);
        const std::size_t made = device.calls.size();
        EXPECT_FALSE(stream.writeRawData("x", 1));
        EXPECT_EQ(device.calls.size(), made);

        NotingDevice source(whole.content, failsAt);
        kyDataStream reader(source, sBig);
        int number = 77;
        bool isSet = true;
        std::string text = "old";
        double real = 77;
        std::vector<char> bytes = {'o'};
        reader >> number >> isSet >> text >> real >> bytes;
        EXPECT_FALSE(reader.isOk());
        EXPECT_EQ(number, failsAt > 0 ? 1 : 77) << "a failed big-endian read changed its target";
        EXPECT_EQ(isSet, failsAt > 1);
        EXPECT_EQ(text, failsAt > 3 ? "text" : "");
        EXPECT_EQ(real, failsAt > 4 ? 2.0 : 77);
        EXPECT_TRUE(bytes.empty());
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
    null << "text";
    EXPECT_FALSE(null.isOk());
    for (kyDataStream* stream : {&none, &null}) {
        std::string text = "old";
        bool isSet = true;
        char bytes[8] = {};
        *stream << 1 << "text" >> text >> isSet;
        EXPECT_TRUE(text.empty() && !isSet);
        EXPECT_FALSE(stream->write1Byte(bytes) || stream->read8BytesBigEndian(bytes));
        EXPECT_EQ(stream->readRawBytes(bytes, 8), 0u);
        EXPECT_FALSE(stream->writeRawData(bytes, 8));
        EXPECT_EQ(stream->getErrorMsg(), "");
        stream->setIoDevice(nullptr, sBig);
        EXPECT_EQ(stream->readRawBytes(nullptr, 8), 0u);
        EXPECT_TRUE(stream->isOk()) << "no place to read to is no failure";
        EXPECT_FALSE(stream->writeRawData(bytes, 8));
    }
}

TEST_F(DataStream, TrustsNoLengthAndRefusesTextsThatHaveNone)
{
    const std::string hostile = "\xFF\xFF\xFF\xFF"s + "five!";
    rusage before = {};
    ::getrusage(RUSAGE_SELF, &before);
    for (const bool isText : {false, true}) {
        ky::kyIoDeviceByteContainerReadOnly device(hostile.data(), hostile.size());
        kyDataStream stream(device, sLittle);
        std::string text = "old";
        std::vector<char> bytes = {'o'};
        isText ? stream >> text : stream >> bytes;
        EXPECT_FALSE(stream.isOk());
        EXPECT_TRUE(isText ? text.empty() : bytes.empty());
        EXPECT_TRUE(device.atEnd());
    }
    rusage after = {};
    ::getrusage(RUSAGE_SELF, &after);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 32 << 10) << "KiB";
#endif

    // Just above the size that is read in one call, and a device that ends within it.
    for (const unsigned missing : {0u, 1u}) {
        NotingDevice device;
        kyDataStream stream(device, sBig);
        const std::string text((40u << 20) + 1, 't');
        stream << text;
        device.content.resize(device.content.size() - missing);
        std::string read;
        stream >> read;
        EXPECT_EQ(stream.isOk(), missing == 0);
        EXPECT_TRUE(read == (missing == 0 ? text : ""));
    }
    NotingDevice device;
    kyDataStream stream(device, sBig);
    stream << std::string_view("never touched", 1ul << 32);
    EXPECT_FALSE(stream.isOk());
    EXPECT_TRUE(device.calls.empty());
}
