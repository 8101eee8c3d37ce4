#include "ky/StampGenerator.h"
#include "ky/UUID.h"
#include "ky/kyRandomUtils.h"

#include "support/Child.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>
#include <csignal>

namespace {

using ky::kyRandomUtils;
using ky::UUID;
using std::string_literals::operator""s;

const std::string sBytes = "\x00\x01\x0F\xF0\x12\x34\x56\x78\x9A\xBC\xDE\xFF\x80\x7F\xA5\x5A"s;
const std::string sCompactText = "00010ff0123456789abcdeff807fa55a";
const std::string sDashedText = "00010ff0-1234-5678-9abc-deff807fa55a";

std::string Read(const std::string& text)
{
    std::string bytes(16, '#');
    const bool isRead = UUID::StringToBinary(text, reinterpret_cast<unsigned char*>(bytes.data()));
    return isRead ? bytes : "refused, " + bytes;
}

TEST(UUID, ReadsWhatItWritesAndNothingElse)
{
    std::string text = sBytes;
    UUID::BinaryToString<UUID::Compact>(text.data(), text);
    EXPECT_EQ(text, sCompactText) << "the bytes lay in the text itself";
    UUID::BinaryToString<UUID::Dashed>(sBytes.data(), text);
    EXPECT_EQ(text, sDashedText);
    EXPECT_EQ(Read(sCompactText), sBytes);
    EXPECT_EQ(Read("00010fF0-1234-5678-9aBC-DEfF807Fa55A"), sBytes);

    std::vector<std::string> rows = {"", sCompactText + "0", sDashedText.substr(1),
                                     std::string(sDashedText).replace(23, 1, "0")};
    // The neighbours of the digits, a zero byte and a byte of other alphabets.
    for (const char wrong : std::string("/:@G`g\0\xC3", 8))
        rows.push_back(sCompactText.substr(1) + wrong);
    for (const std::string& wrong : rows)
        EXPECT_EQ(Read(wrong), "refused, ################") << wrong;
}

std::vector<int> sAsked;

TEST(Random, AsksTheGeneratorInForceInPiecesAndWritesTwoDigitsAByte)
{
    sAsked.clear();
    const auto defaultRand = kyRandomUtils::SetRandGenerator([](unsigned char*, int length) {
        sAsked.push_back(length);
        return sAsked.size() == 3 ? 0 : 7;
    });
    char room = 0;  // which this generator never touches
    EXPECT_EQ(kyRandomUtils::Rand(&room, INT_MAX + 3UL), 7);
    EXPECT_EQ(kyRandomUtils::Rand(&room, INT_MAX + 3UL), 0);
    EXPECT_EQ(sAsked, std::vector({INT_MAX, 3, INT_MAX}));
    kyRandomUtils::SetRandGenerator([](unsigned char* buffer, int length) {
        std::copy_n(sBytes.begin(), length, buffer);
        return 1;
    });
    EXPECT_EQ(kyRandomUtils::CreateRandHexString(0), "00");
    EXPECT_EQ(kyRandomUtils::CreateRandHexString(16), sCompactText);
    kyRandomUtils::SetRandGenerator(nullptr);
    EXPECT_EQ(kyRandomUtils::SetRandGenerator(nullptr), defaultRand);
    EXPECT_NE(kyRandomUtils::CreateRandHexString(16), kyRandomUtils::CreateRandHexString(16));
}

TEST(Random, TakesSecretsFromTheSystemHoweverItIsInterrupted)
{
    ky::test::ExpectChildPasses([] {
        ::signal(SIGALRM, [](int) {});
        ::ualarm(1000, 1000);  // getrandom(2) then gives less than asked
        std::vector<unsigned char> bytes(40 << 20);
        EXPECT_NE(kyRandomUtils::SystemRand(bytes.data(), 40 << 20), 0);
        EXPECT_NE(std::string(bytes.end() - 16, bytes.end()), std::string(16, '\0'));
    });
    EXPECT_EQ(kyRandomUtils::SystemRand(nullptr, 16), 0) << "the system refuses";
}

TEST(StampGenerator, GivesEachStampOnceFromOneOn)
{
    ky::StampGenerator generator;
    unsigned long sums[2] = {};
    const auto take = [&generator](unsigned long& sum) {
        for (int i = 0; i < 10000; ++i)
            sum += generator.generateStamp().value();
    };
    std::thread other(take, std::ref(sums[1]));
    take(sums[0]);
    other.join();
    EXPECT_EQ(sums[0] + sums[1], 20000UL * 20001 / 2);
}

}  // namespace
