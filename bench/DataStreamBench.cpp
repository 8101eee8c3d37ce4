// Values through a data stream, to a file and to memory, beside the peers that are installed and
// beside the limit: the same bytes stored inline into a buffer of 1 MiB that is written when full.
// All write and read the same values; `by_inline` is the time by that of the inline code for the
// same medium, measured turn by turn.

#include "DataStreamLimits.h"
#include "Timing.h"

#include "ky/kyDataStream.h"

#include <benchmark/benchmark.h>

#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>
#include <cstring>

#ifdef KY_HAVE_BOOST
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>
#endif
#ifdef KY_HAVE_QT
#include <QBuffer>
#include <QByteArray>
#include <QDataStream>
#include <QFile>
#endif
#ifdef KY_HAVE_POCO
#include <Poco/BinaryReader.h>
#include <Poco/BinaryWriter.h>
#include <Poco/MemoryStream.h>
#endif

namespace {

constexpr int sPairs = 5'000'000;  // an int and a double each
constexpr int sStrings = 1'000'000;
constexpr std::size_t sNumberBytes = sPairs * (sizeof(int) + sizeof(double));
constexpr std::size_t sMaxBytes = sNumberBytes + sNumberBytes / 4;  // for what archives add
const std::string sText = "sixteen bytes, 1";

/// A device of a user: memory that is there already.
class MemoryDevice : public ky::kyIoDevice {
public:
    explicit MemoryDevice(std::vector<char>& bytes) : kyIoDevice(DataWayWrite), mBytes(bytes) {}
    unsigned long readBytes(char* /*dst*/, unsigned long /*n*/) override { return 0; }
    unsigned long writeBytes(const char* src, unsigned long n) override
    {
        if (n > mBytes.size() - mSize)
            return 0;
        if (n == sizeof(int))
            std::memcpy(mBytes.data() + mSize, src, sizeof(int));
        else if (n == sizeof(double))
            std::memcpy(mBytes.data() + mSize, src, sizeof(double));
        else
            std::memcpy(mBytes.data() + mSize, src, n);
        mSize += n;
        return n;
    }
    bool atEnd() const override { return true; }

private:
    std::vector<char>& mBytes;
    std::size_t mSize = 0;
};

/// Memory shared by all; every page is there before the first turn.
std::vector<char>& Memory()
{
    static std::vector<char> bytes(sMaxBytes, 'x');
    return bytes;
}

/// Archives take references to constants only.
template <typename Stream>
void PutPair(Stream& stream, const int& number, const double& real)
{
    stream << number << real;
}

template <typename Stream>
void PutNumbers(Stream& stream)
{
    for (int i = 0; i < sPairs; ++i)
        PutPair(stream, i, i * 0.5);
}

template <typename Stream>
void GetNumbers(Stream& stream)
{
    long sum = 0;
    for (int i = 0; i < sPairs; ++i) {
        int number = 0;
        double real = 0;
        stream >> number >> real;
        sum += number + static_cast<long>(real * 2) - 2L * i;
    }
    Check(sum == 0);
}

template <typename Stream>
void PutStrings(Stream& stream)
{
    for (int i = 0; i < sStrings; ++i)
        stream << sText;
}

template <typename Stream>
void GetStrings(Stream& stream)
{
    std::string text;
    for (int i = 0; i < sStrings; ++i)
        stream >> text;
    Check(text == sText);
}

enum Work { WriteNumbers, ReadNumbers, WriteStrings, ReadStrings };
const char* const sWorkNames[] = {"WriteNumbers", "ReadNumbers", "WriteStrings", "ReadStrings"};

bool IsWrite(int work)
{
    return work == WriteNumbers || work == WriteStrings;
}

template <typename Stream>
void Put(int work, Stream& stream)
{
    work == WriteNumbers ? PutNumbers(stream) : PutStrings(stream);
}

template <typename Stream>
void Get(int work, Stream& stream)
{
    work == ReadNumbers ? GetNumbers(stream) : GetStrings(stream);
}

template <typename Stream>
void Do(int work, Stream& stream)
{
    IsWrite(work) ? Put(work, stream) : Get(work, stream);
}

void InlineToFile(int work)
{
    InlineFile file(IsWrite(work) ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY);
    Do(work, file);
}

void InlineInMemory(int work)
{
    static std::vector<char> bytes(sMaxBytes, 'x');
    InlineMemory memory(bytes);
    Do(work, memory);
    benchmark::ClobberMemory();
}

void FstreamToFile(int work)
{
    BareFstream file(IsWrite(work) ? std::ios_base::out : std::ios_base::in);
    Do(work, file);
}

using Endianness = ky::kyDataStream::Endianness;

template <Endianness endianness>
void OursToFile(int work)
{
    ky::kyIoDeviceFileStream file(
        FilePath(), IsWrite(work) ? ky::kyIoDevice::DataWayWrite : ky::kyIoDevice::DataWayRead,
        true);
    ky::kyDataStream stream(file, endianness);
    Do(work, stream);
    Check(stream.isOk() && file.close());
}

template <Endianness endianness>
void OursInMemory(int work)
{
    if (IsWrite(work)) {
        MemoryDevice device(Memory());
        ky::kyDataStream stream(device, endianness);
        Do(work, stream);
        Check(stream.isOk());
    } else {
        ky::kyIoDeviceByteContainerReadOnly device(Memory().data(), Memory().size());
        ky::kyDataStream stream(device, endianness);
        Do(work, stream);
        Check(stream.isOk());
    }
}

#ifdef KY_HAVE_BOOST
void BoostToFile(int work)
{
    if (IsWrite(work)) {
        std::ofstream file(FilePath(), std::ios_base::binary);
        boost::archive::binary_oarchive archive(file, boost::archive::no_header);
        Put(work, archive);
    } else {
        std::ifstream file(FilePath(), std::ios_base::binary);
        boost::archive::binary_iarchive archive(file, boost::archive::no_header);
        Get(work, archive);
    }
}
#endif

#ifdef KY_HAVE_QT
/// Text as the bytes that the others write.
struct QtStream {
    QDataStream stream;
    template <typename Value>
    QtStream& operator<<(Value value)
    {
        stream << value;
        return *this;
    }
    QtStream& operator<<(const std::string& text)
    {
        stream.writeBytes(text.data(), static_cast<uint>(text.size()));
        return *this;
    }
    template <typename Value>
    QtStream& operator>>(Value& value)
    {
        stream >> value;
        return *this;
    }
    QtStream& operator>>(std::string& text)
    {
        char* bytes = nullptr;
        uint size = 0;
        stream.readBytes(bytes, size);
        text.assign(bytes, size);
        delete[] bytes;
        return *this;
    }
};

template <QDataStream::ByteOrder order>
void QtOver(QIODevice& device, int work)
{
    QtStream stream{QDataStream(&device)};
    stream.stream.setByteOrder(order);
    Do(work, stream);
    Check(stream.stream.status() == QDataStream::Ok);
}

template <QDataStream::ByteOrder order>
void QtToFile(int work)
{
    QFile file(QString::fromStdString(FilePath()));
    Check(file.open(IsWrite(work) ? QIODevice::WriteOnly | QIODevice::Truncate
                                  : QIODevice::ReadOnly));
    QtOver<order>(file, work);
}

template <QDataStream::ByteOrder order>
void QtInMemory(int work)
{
    static QByteArray bytes(static_cast<int>(sMaxBytes), 'x');
    QBuffer buffer(&bytes);
    Check(buffer.open(QIODevice::ReadWrite));
    QtOver<order>(buffer, work);
}
#endif

#ifdef KY_HAVE_POCO
void PocoWrite(std::ostream& stream, int work)
{
    Poco::BinaryWriter writer(stream, Poco::BinaryWriter::LITTLE_ENDIAN_BYTE_ORDER);
    Put(work, writer);
    Check(writer.good());
}

void PocoRead(std::istream& stream, int work)
{
    Poco::BinaryReader reader(stream, Poco::BinaryReader::LITTLE_ENDIAN_BYTE_ORDER);
    Get(work, reader);
    Check(reader.good());
}

void PocoToFile(int work)
{
    std::fstream file(FilePath(), (IsWrite(work) ? std::ios_base::out : std::ios_base::in) |
                                      std::ios_base::binary);
    IsWrite(work) ? PocoWrite(file, work) : PocoRead(file, work);
}

void PocoInMemory(int work)
{
    const auto size = static_cast<std::streamsize>(Memory().size());
    Poco::MemoryOutputStream out(Memory().data(), size);
    Poco::MemoryInputStream in(Memory().data(), size);
    IsWrite(work) ? PocoWrite(out, work) : PocoRead(in, work);
}
#endif

struct Side {
    const char* name;
    void (*run)(int work);
    void (*limit)(int work);
};

const Side sSides[] = {
    {"File/ours_little", OursToFile<Endianness::LittleEndian>, InlineToFile},
    {"File/ours_big", OursToFile<Endianness::BigEndian>, InlineToFile},
    {"File/fstream", FstreamToFile, InlineToFile},
#ifdef KY_HAVE_BOOST
    {"File/boost", BoostToFile, InlineToFile},
#endif
#ifdef KY_HAVE_QT
    {"File/qt_little", QtToFile<QDataStream::LittleEndian>, InlineToFile},
    {"File/qt_big", QtToFile<QDataStream::BigEndian>, InlineToFile},
#endif
#ifdef KY_HAVE_POCO
    {"File/poco", PocoToFile, InlineToFile},
#endif
    {"Memory/ours_little", OursInMemory<Endianness::LittleEndian>, InlineInMemory},
    {"Memory/ours_big", OursInMemory<Endianness::BigEndian>, InlineInMemory},
#ifdef KY_HAVE_QT
    {"Memory/qt_little", QtInMemory<QDataStream::LittleEndian>, InlineInMemory},
    {"Memory/qt_big", QtInMemory<QDataStream::BigEndian>, InlineInMemory},
#endif
#ifdef KY_HAVE_POCO
    {"Memory/poco", PocoInMemory, InlineInMemory},
#endif
};

void Compare(benchmark::State& state, const Side& side, int work)
{
    // What is read was written by the same side; the first writing also makes the pages.
    const int written = work == ReadNumbers || work == WriteNumbers ? WriteNumbers : WriteStrings;
    side.limit(written);
    side.run(written);
    Turns turns = TakeTurns(
        state, [] {}, [&] { side.run(work); }, [&] { side.limit(work); });
    const long values = written == WriteNumbers ? 2L * sPairs : sStrings;
    state.SetItemsProcessed(values * state.iterations());
    state.counters["by_inline"] = turns.medianByMedian();
    for (const char* suffix : {"", "-inline"})
        ::unlink((FilePath() + suffix).c_str());
}

const bool sAreRegistered = [] {
    for (int work = WriteNumbers; work <= ReadStrings; ++work)
        for (const Side& side : sSides)
            benchmark::RegisterBenchmark((std::string(sWorkNames[work]) + "/" + side.name).c_str(),
                                         [&side, work](auto& state) { Compare(state, side, work); })
                ->Iterations(5)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
    return true;
}();

}  // namespace
