#include "ky/StampGenerator.h"
#include "ky/UUID.h"
#include "ky/kyRandomUtils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/random.h>

namespace {
/// What getrandom(2) is to answer, call by call: a limit of bytes or a negated error number.
std::vector<int> answersOfSystem;
}  // namespace

/// Stands before the C library's function, whose interruptions and refusals cannot be ordered.
extern "C" ssize_t getrandom(void* buffer, std::size_t length, unsigned int flags)
{
    static const auto systemFunction =
        reinterpret_cast<ssize_t (*)(void*, std::size_t, unsigned int)>(
            ::dlsym(RTLD_NEXT, "getrandom"));
    if (answersOfSystem.empty())
        return systemFunction(buffer, length, flags);
    const int answer = answersOfSystem.front();
    answersOfSystem.erase(answersOfSystem.begin());
    if (answer < 0) {
        errno = -answer;
        return -1;
    }
    return systemFunction(buffer, std::min(length, static_cast<std::size_t>(answer)), flags);
}

namespace {

using ky::kyRandomUtils;
using ky::Stamp;
using ky::StampGenerator;
using ky::UUID;

using Bytes = std::array<unsigned char, 16>;

constexpr Bytes sBytes = {0x00, 0x01, 0x0F, 0xF0, 0x12, 0x34, 0x56, 0x78,
                          0x9A, 0xBC, 0xDE, 0xFF, 0x80, 0x7F, 0xA5, 0x5A};
constexpr const char* sCompactText = "00010ff0123456789abcdeff807fa55a";
constexpr const char* sDashedText = "00010ff0-1234-5678-9abc-deff807fa55a";

TEST(UUID, WritesBothLayoutsOverWhateverTheTextHeld)
{
    for (const std::size_t length : {0u, 5u, 32u, 36u, 500u}) {
        std::string text(length, '#');
        UUID::BinaryToString<UUID::Compact>(sBytes.data(), text);
        EXPECT_EQ(text, sCompactText) << length;
        text.assign(length, '#');
        UUID::BinaryToString<UUID::Dashed>(sBytes.data(), text);
        EXPECT_EQ(text, sDashedText) << length;
    }
    std::string null;
    UUID::BinaryToString<UUID::Dashed>(Bytes{}.data(), null);
    EXPECT_EQ(null, UUID::msNullText);

    std::string own(sBytes.begin(), sBytes.end());
    UUID::BinaryToString<UUID::Compact>(own.data(), own);
    EXPECT_EQ(own, sCompactText) << "the bytes lay in the text itself";
}

TEST(UUID, ReadsBothLayoutsInAnyCase)
{
    for (const char* const text :
         {sCompactText, sDashedText, "00010FF0123456789ABCDEFF807FA55A",
          "00010FF0-1234-5678-9ABC-DEFF807FA55A", "00010fF0-1234-5678-9aBc-dEfF807Fa55A"}) {
        Bytes bytes{};
        EXPECT_TRUE(UUID::StringToBinary(text, bytes.data())) << text;
        EXPECT_EQ(bytes, sBytes) << text;
    }
}

TEST(UUID, RefusesEveryOtherTextAndLeavesTheBytesAlone)
{
    std::vector<std::string> rows = {
        "",
        "00010ff0123456789abcdeff807fa55",
        "00010ff0123456789abcdeff807fa55a0",
        "00010ff0-1234-5678-9abc-deff807fa55",
        "00010ff0-1234-5678-9abc-deff807fa55a0",
        "00010ff0-1234-5678-9abcdeff807fa55a",
        "00010ff01234-5678-9abc-deff807fa55a-",
        "00010ff-01234-5678-9abc-deff807fa55a",
        "00010ff0_1234_5678_9abc_deff807fa55a",
        "00010ff0012340567809abc0deff807fa55a",
        "00010ff0-1234-5678-9abc-deff807f-55a",
        "00010ff0-123456789abcdeff807fa55",
        "{00010ff0123456789abcdeff807fa5}",
        " 00010ff0123456789abcdeff807fa55",
        "00010ff0123456789abcdeff807fa5+5",
        "00010ff0123456789abcdeff807fa50x",
    };
    // The neighbours of the digits, a zero byte and a byte of other alphabets, at every position.
    for (const char wrong : std::string("/:@G`g\0\xC3", 8)) {
        for (std::size_t i = 0; i < 32; ++i) {
            rows.emplace_back(sCompactText);
            rows.back()[i] = wrong;
        }
    }
    for (const std::string& text : rows) {
        Bytes bytes = sBytes;
        EXPECT_FALSE(UUID::StringToBinary(text, bytes.data())) << text;
        EXPECT_EQ(bytes, sBytes) << text;
    }
    EXPECT_FALSE(UUID::StringToBinary({}, nullptr));
}

/// Puts a generator in force for one test.
struct ScopedGenerator {
    explicit ScopedGenerator(kyRandomUtils::RandGenerator generator)
    {
        kyRandomUtils::SetRandGenerator(generator);
    }
    ~ScopedGenerator() { kyRandomUtils::SetRandGenerator(nullptr); }
};

std::vector<int> asked;  // lengths that CountingRand was called with
std::size_t failingCall = 0;

int CountingRand(unsigned char*, int length)
{
    asked.push_back(length);
    return asked.size() == failingCall ? 0 : 7;
}

int PatternRand(unsigned char* buffer, int length)
{
    for (int i = 0; i < length; ++i)
        buffer[i] = sBytes[static_cast<std::size_t>(i) % sBytes.size()];
    return 1;
}

TEST(Random, GivesThePreviousGeneratorBackAndTheDefaultForNull)
{
    const auto defaultRand = kyRandomUtils::SetRandGenerator(CountingRand);
    ASSERT_NE(defaultRand, nullptr);
    EXPECT_EQ(kyRandomUtils::SetRandGenerator(PatternRand), CountingRand);
    EXPECT_EQ(kyRandomUtils::SetRandGenerator(nullptr), PatternRand);
    EXPECT_EQ(kyRandomUtils::sRandGenerator.load(), defaultRand);
    EXPECT_EQ(kyRandomUtils::SetRandGenerator(nullptr), defaultRand);
}

TEST(Random, HandsLargeRequestsOverInPiecesUntilOneFails)
{
    const ScopedGenerator scope(CountingRand);
    // Room that the generator is never going to touch.
    const unsigned long huge = 2UL * INT_MAX + 3;
    void* const room =
        ::mmap(nullptr, huge, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(room, MAP_FAILED);
    const struct {
        unsigned long length;
        std::size_t failingCall;
        int result;
        std::vector<int> asked;
    } rows[] = {
        {0, 0, 7, {0}},
        {1, 0, 7, {1}},
        {1, 1, 0, {1}},
        {INT_MAX, 0, 7, {INT_MAX}},
        {INT_MAX + 1UL, 0, 7, {INT_MAX, 1}},
        {huge, 0, 7, {INT_MAX, INT_MAX, 3}},
        {huge, 2, 0, {INT_MAX, INT_MAX}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.length) + ", failing " + std::to_string(row.failingCall));
        asked.clear();
        failingCall = row.failingCall;
        EXPECT_EQ(kyRandomUtils::Rand(static_cast<char*>(room), row.length), row.result);
        EXPECT_EQ(asked, row.asked);
    }
    ::munmap(room, huge);
}

TEST(Random, WritesTwoDigitsAByteAndAtLeastOneByte)
{
    const ScopedGenerator scope(PatternRand);
    EXPECT_EQ(kyRandomUtils::CreateRandHexString(0), "00");
    EXPECT_EQ(kyRandomUtils::CreateRandHexString(1), "00");
    EXPECT_EQ(kyRandomUtils::CreateRandHexString(16), sCompactText);
    kyRandomUtils::SetRandGenerator(CountingRand);
    asked.clear();
    failingCall = 1;
    EXPECT_EQ(kyRandomUtils::CreateRandHexString(300), std::string(600, '0'))
        << "a failing generator must not show stray memory";
}

TEST(RandomDeathTest, SeedsTheDefaultGeneratorOncePerThreadInOrderOfFirstUse)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process in which nobody drew yet
    const auto draw = [] {
        // The second call goes on where the first one stopped.
        std::string bytes(9, '\0');
        kyRandomUtils::Rand(bytes.data(), 4);
        kyRandomUtils::Rand(bytes.data() + 4, 5);
        return bytes;
    };
    const auto check = [&draw] {
        std::array<std::string, 4> drawn;
        drawn[0] = draw();
        for (std::size_t i = 1; i < drawn.size(); ++i)
            std::thread([&] { drawn[i] = draw(); }).join();
        int status = 0;
        for (unsigned int seed = 0; seed < drawn.size(); ++seed) {
            std::srand(seed);
            std::string expected(9, '\0');
            for (char& byte : expected)
                byte = static_cast<char>(std::rand() & 0xFF);
            if (drawn[seed] != expected)
                status |= 1 << seed;
        }
        std::_Exit(status);
    };
    EXPECT_EXIT(check(), ::testing::ExitedWithCode(0), "");
}

TEST(Random, TakesSecretsFromTheSystemHoweverItIsInterrupted)
{
    std::string bytes(96, '\0');
    auto* const buffer = reinterpret_cast<unsigned char*>(bytes.data());
    answersOfSystem = {-EINTR, 16, -EINTR, 16};
    EXPECT_NE(kyRandomUtils::SystemRand(buffer, 64), 0);
    EXPECT_TRUE(answersOfSystem.empty());
    for (std::size_t piece = 0; piece < 64; piece += 16)
        EXPECT_NE(bytes.substr(piece, 16), std::string(16, '\0')) << piece;
    EXPECT_EQ(bytes.substr(64), std::string(32, '\0')) << "wrote behind the end";

    answersOfSystem = {16, -ENOSYS};
    EXPECT_EQ(kyRandomUtils::SystemRand(buffer, 64), 0);
    EXPECT_TRUE(answersOfSystem.empty());

    EXPECT_NE(kyRandomUtils::SystemRand(nullptr, 0), 0);
    EXPECT_EQ(kyRandomUtils::SystemRand(nullptr, -1), 0);

    const ScopedGenerator scope(kyRandomUtils::SystemRand);
    EXPECT_NE(kyRandomUtils::CreateRandHexString(32), kyRandomUtils::CreateRandHexString(32));
}

TEST(StampGenerator, CountsUpFromOneAndOnItsOwn)
{
    StampGenerator first;
    StampGenerator second;
    for (const unsigned long expected : {1UL, 2UL, 3UL})
        EXPECT_EQ(first.generateStamp().value(), expected);
    EXPECT_EQ(second.generateStamp().value(), 1u);

    const Stamp older = first.generateStamp();
    const Stamp newer = first.generateStamp();
    EXPECT_TRUE(older < newer && older <= newer && newer > older && newer >= older);
    EXPECT_TRUE(older != newer && older == Stamp(4) && older <= Stamp(4) && older >= Stamp(4));
    EXPECT_FALSE(older == newer || newer < older || older > newer || older < Stamp(4));
}

TEST(StampGenerator, GivesEachStampOnceToManyThreads)
{
    constexpr std::size_t perThread = 5000;
    StampGenerator generator;
    std::array<std::vector<unsigned long>, 4> taken;
    std::vector<std::thread> threads;
    for (auto& mine : taken) {
        threads.emplace_back([&] {
            for (std::size_t i = 0; i < perThread; ++i)
                mine.push_back(generator.generateStamp().value());
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    std::vector<unsigned long> all;
    for (const auto& mine : taken) {
        EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end()));
        all.insert(all.end(), mine.begin(), mine.end());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
    EXPECT_EQ(all.front(), 1u);
    EXPECT_EQ(all.back(), taken.size() * perThread);
}

}  // namespace
