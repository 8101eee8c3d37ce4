// Character sets, turn by turn with iconv(3) on a handle that stays open.

#include "Timing.h"

#include "ky/kyStringUtils.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <iconv.h>

namespace {

using ky::kyStringUtils;

constexpr std::size_t sTextBytes = std::size_t{64} << 10;

// The local set of a program that was started in a usual environment.
const bool sEnvironmentSet = ::setenv("LC_ALL", "C.UTF-8", 1) == 0;
const bool sInitialized = kyStringUtils::InitializeStringUtils();

std::string Repeat(const std::string& piece)
{
    std::string text;
    while (text.size() + piece.size() <= sTextBytes)
        text += piece;
    return text;
}

std::string AsciiText()
{
    return Repeat("The quick brown fox jumps over the lazy dog, 1234567890 times.\n");
}

std::string MixedText()
{
    return Repeat(
        "Größe: 12 µm – Łódź, Ελλάδα, Москва, 東京, 🙂; plain words too. ");
}

std::wstring MixedWide()
{
    return kyStringUtils::convertToUnicode(MixedText(), kyStringUtils::CharSetUtf8);
}

/// The peer: a handle that stays open and a buffer that stays allocated.
class KeptIconv {
public:
    KeptIconv(const char* to, const char* from) : mHandle(::iconv_open(to, from)) {}
    ~KeptIconv() { ::iconv_close(mHandle); }
    KeptIconv(const KeptIconv&) = delete;
    KeptIconv& operator=(const KeptIconv&) = delete;

    template <typename Text>
    void convert(const Text& text, std::size_t capacity)
    {
        mBuffer.resize(capacity);
        char* in = const_cast<char*>(reinterpret_cast<const char*>(text.c_str()));
        char* out = mBuffer.data();
        std::size_t inLeft = (text.size() + 1) * sizeof(typename Text::value_type);
        std::size_t outLeft = mBuffer.size();
        benchmark::DoNotOptimize(::iconv(mHandle, &in, &inLeft, &out, &outLeft));
        benchmark::ClobberMemory();
    }

private:
    iconv_t mHandle;
    std::vector<char> mBuffer;
};

void CountBytes(benchmark::State& state, std::size_t bytes)
{
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes) * state.iterations());
}

void CompareCharset(benchmark::State& state, const std::string& text, const char* to,
                    const char* from, kyStringUtils::kyCharSet ourFrom,
                    kyStringUtils::kyCharSet ourTo)
{
    KeptIconv peer(to, from);
    Compare(
        state,
        [&] { benchmark::DoNotOptimize(kyStringUtils::convertCharset(text, ourFrom, ourTo)); },
        [&] { peer.convert(text, 2 * (text.size() + 1)); });
    CountBytes(state, text.size());
}

void AsciiUtf8ToLocal(benchmark::State& state)
{
    CompareCharset(state, AsciiText(), "UTF-8//TRANSLIT//IGNORE", "UTF-8",
                   kyStringUtils::CharSetUtf8, kyStringUtils::CharSetLocal8Bit);
}
BENCHMARK(AsciiUtf8ToLocal)->UseManualTime();

void MixedUtf8ToLocal(benchmark::State& state)
{
    CompareCharset(state, MixedText(), "UTF-8//TRANSLIT//IGNORE", "UTF-8",
                   kyStringUtils::CharSetUtf8, kyStringUtils::CharSetLocal8Bit);
}
BENCHMARK(MixedUtf8ToLocal)->UseManualTime();

void MixedUtf8ToWide(benchmark::State& state)
{
    const std::string text = MixedText();
    KeptIconv peer("WCHAR_T//TRANSLIT//IGNORE", "UTF-8");
    Compare(
        state,
        [&] {
            benchmark::DoNotOptimize(
                kyStringUtils::convertToUnicode(text, kyStringUtils::CharSetUtf8));
        },
        [&] { peer.convert(text, (text.size() + 1) * sizeof(wchar_t)); });
    CountBytes(state, text.size());
}
BENCHMARK(MixedUtf8ToWide)->UseManualTime();

void MixedWideToUtf8(benchmark::State& state)
{
    const std::wstring text = MixedWide();
    KeptIconv peer("UTF-8//TRANSLIT//IGNORE", "WCHAR_T");
    Compare(
        state,
        [&] {
            benchmark::DoNotOptimize(
                kyStringUtils::convertTo8Bits(text, kyStringUtils::CharSetUtf8));
        },
        [&] { peer.convert(text, 8 * (text.size() + 1)); });
    CountBytes(state, text.size() * sizeof(wchar_t));
}
BENCHMARK(MixedWideToUtf8)->UseManualTime();

/// What a log line or a path costs.
void ShortMixedUtf8ToLocal(benchmark::State& state)
{
    CompareCharset(state, "/home/zoë/Größe", "UTF-8//TRANSLIT//IGNORE", "UTF-8",
                   kyStringUtils::CharSetUtf8, kyStringUtils::CharSetLocal8Bit);
}
BENCHMARK(ShortMixedUtf8ToLocal)->UseManualTime();

}  // namespace
