#include "ky/StampGenerator.h"
#include "ky/UUID.h"
#include "ky/kyRandomUtils.h"

#include "support/Child.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>
#include <csignal>

namespace {

using ky::kyRandomUtils;
using ky::Stamp;
using ky::StampGenerator;
using ky::UUID;

using Bytes = std::array<unsigned char, 16>;

constexpr Bytes sBytes = {0x00, 0x01, 0x0F, 0xF0, 0x12, 0x34, 0x56, 0x78,
                          0x9A, 0xBC, 0xDE, 0xFF, 0x80, 0x7F, 0xA5, 0x5A};
constexpr char sCompactText[] = "00010ff0123456789abcdeff807fa55a";
constexpr char sDashedText[] = "00010ff0-1234-5678-9abc-deff807fa55a";

TEST(UUID, WritesAndReadsBothLayouts)
{
    for (const std::size_t length : {0u, 500u}) {
        std::string text(length, '#');
        UUID::BinaryToString<UUID::Compact>(sBytes.data(), text);
        EXPECT_EQ(text, sCompactText);
        text.assign(length, '#');
        UUID::BinaryToString<UUID::Dashed>(sBytes.data(), text);
        EXPECT_EQ(text, sDashedText);
    }
    std::string text(sBytes.begin(), sBytes.end());
    UUID::BinaryToString<UUID::Compact>(text.data(), text);
    EXPECT_EQ(text, sCompactText) << "the bytes lay in the text itself";
    UUID::BinaryToString<UUID::Dashed>(Bytes{}.data(), text);
    EXPECT_EQ(text, UUID::msNullText);

    for (const char* const layout :
         {sCompactText, sDashedText, "00010fF0-1234-5678-9aBC-DEfF807Fa55A"}) {
        Bytes bytes{};
        EXPECT_TRUE(UUID::StringToBinary(layout, bytes.data())) << layout;
        EXPECT_EQ(bytes, sBytes) << layout;
    }
}

TEST(UUID, RefusesEveryOtherTextAndLeavesTheBytesAlone)
{
    const std::string compact = sCompactText;
    const std::string dashed = sDashedText;
    std::vector<std::string> rows = {"",
                                     compact.substr(1),
                                     compact + "0",
                                     dashed.substr(1),
                                     dashed + "0",
                                     "00010ff-01234-5678-9abc-deff807fa55a",
                                     "00010ff0-1234-5678-9abc-deff807f-55a"};
    for (const std::size_t dash : {8u, 13u, 18u, 23u})
        rows.push_back(std::string(dashed).replace(dash, 1, "0"));
    // The neighbours of the digits, a zero byte and a byte of other alphabets, at every position.
    for (const char wrong : std::string("/:@G`g\0\xC3", 8)) {
        for (std::size_t i = 0; i < 32; ++i)
            rows.push_back(std::string(compact).replace(i, 1, 1, wrong));
    }
    for (const std::string& text : rows) {
        Bytes bytes = sBytes;
        EXPECT_FALSE(UUID::StringToBinary(text, bytes.data())) << text;
        EXPECT_EQ(bytes, sBytes) << text;
    }
}

std::vector<int> sAsked;  // lengths that CountingRand was called with
std::size_t sFailingCall = 0;

int CountingRand(unsigned char*, int length)
{
    sAsked.push_back(length);
    return sAsked.size() == sFailingCall ? 0 : 7;
}

int PatternRand(unsigned char* buffer, int length)
{
    for (int i = 0; i < length; ++i)
        buffer[i] = sBytes[static_cast<std::size_t>(i) % sBytes.size()];
    return 1;
}

struct Random : ::testing::Test {
    ~Random() override { kyRandomUtils::SetRandGenerator(nullptr); }
};

TEST_F(Random, HandsLargeRequestsOverInPiecesUntilOneFails)
{
    kyRandomUtils::SetRandGenerator(CountingRand);
    // Room that the generator is never going to touch.
    const unsigned long huge = 2UL * INT_MAX + 3;
    void* const room =
        ::mmap(nullptr, huge, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(room, MAP_FAILED);
    const auto draw = [room](unsigned long length, std::size_t failingCall) {
        sAsked.clear();
        sFailingCall = failingCall;
        return kyRandomUtils::Rand(static_cast<char*>(room), length);
    };
    EXPECT_EQ(draw(huge, 0), 7);
    EXPECT_EQ(sAsked, std::vector({INT_MAX, INT_MAX, 3}));
    EXPECT_EQ(draw(huge, 2), 0);
    EXPECT_EQ(sAsked, std::vector({INT_MAX, INT_MAX}));
    EXPECT_EQ(draw(INT_MAX, 0), 7);
    EXPECT_EQ(sAsked, std::vector({INT_MAX}));
    EXPECT_EQ(draw(0, 0), 7);
    EXPECT_EQ(sAsked, std::vector({0}));
    ::munmap(room, huge);
}

TEST_F(Random, WritesTwoDigitsAByteOfTheGeneratorInForce)
{
    const auto defaultRand = kyRandomUtils::SetRandGenerator(PatternRand);
    EXPECT_EQ(kyRandomUtils::CreateRandHexString(0), "00");
    EXPECT_EQ(kyRandomUtils::CreateRandHexString(16), sCompactText);
    EXPECT_EQ(kyRandomUtils::SetRandGenerator(CountingRand), PatternRand);
    EXPECT_EQ(kyRandomUtils::CreateRandHexString(300), std::string(600, '0'))
        << "a generator that fills nothing must not show stray memory";
    kyRandomUtils::SetRandGenerator(nullptr);
    EXPECT_EQ(kyRandomUtils::SetRandGenerator(nullptr), defaultRand);
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
        std::array<std::string, 3> drawn;
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

TEST_F(Random, TakesSecretsFromTheSystemHoweverItIsInterrupted)
{
    const ky::test::ChildResult child = ky::test::RunInChild([] {
        ::signal(SIGALRM, [](int) {});
        ::ualarm(1000, 1000);  // getrandom(2) then gives less than asked
        constexpr int size = 40 << 20;
        std::string bytes(size + 16, '\0');
        auto* const buffer = reinterpret_cast<unsigned char*>(bytes.data());
        EXPECT_NE(kyRandomUtils::SystemRand(buffer, size), 0);
        EXPECT_NE(bytes.substr(size - 16, 16), std::string(16, '\0'));
        EXPECT_EQ(bytes.substr(size), std::string(16, '\0')) << "wrote behind the end";
    });
    EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
    EXPECT_EQ(kyRandomUtils::SystemRand(nullptr, 16), 0) << "the system refuses";
    EXPECT_EQ(kyRandomUtils::SystemRand(nullptr, -1), 0);
    EXPECT_NE(kyRandomUtils::SystemRand(nullptr, 0), 0);
}

TEST(StampGenerator, CountsUpFromOneAndOnItsOwn)
{
    StampGenerator first;
    StampGenerator second;
    const Stamp older = first.generateStamp();
    const Stamp newer = first.generateStamp();
    EXPECT_EQ(older.value(), 1u);
    EXPECT_EQ(newer.value(), 2u);
    EXPECT_EQ(second.generateStamp(), older);
    EXPECT_TRUE(older < newer && older <= newer && newer > older && newer >= older);
    EXPECT_FALSE(older == newer || newer < older || older > newer || older != Stamp(1));
}

TEST(StampGenerator, GivesEachStampOnceToManyThreads)
{
    StampGenerator generator;
    std::vector<unsigned long> taken(20000);
    std::vector<std::thread> threads;
    for (std::size_t first = 0; first < 4; ++first) {
        threads.emplace_back([&taken, &generator, first] {
            for (std::size_t i = first; i < taken.size(); i += 4)
                taken[i] = generator.generateStamp().value();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    std::sort(taken.begin(), taken.end());
    for (std::size_t i = 0; i < taken.size(); ++i)
        ASSERT_EQ(taken[i], i + 1);
}

}  // namespace
