// The macros major and minor that this header defines must not touch the names of ours.
#include <sys/sysmacros.h>

#include "ky/kyVersion.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using ky::kyVersion;
using kySystem::Version;
using std::string_literals::operator""s;

TEST(kyVersion, OrdersByMajorThenMinorThenRevisionAndByNothingElse)
{
    const unsigned int ascending[][3] = {{0, 0, 0}, {0, 0, 1}, {0, 1, 0},          {2, 9, 9},
                                         {3, 0, 0}, {3, 0, 1}, {4000000000u, 0, 0}};
    const int count = 7;
    for (int i = 0; i < count; ++i) {
        for (int j = 0; j < count; ++j) {
            SCOPED_TRACE(std::to_string(i) + " and " + std::to_string(j));
            const auto* const first = ascending[i];
            const auto* const second = ascending[j];
            const kyVersion a(first[0], first[1], first[2], "stable", 1, 9);
            const kyVersion b(second[0], second[1], second[2], "nightly", 8, 2);
            EXPECT_TRUE((a == b) == (i == j) && (a != b) == (i != j));
            EXPECT_TRUE((a < b) == (i < j) && (a <= b) == (i <= j));
            EXPECT_TRUE((a > b) == (i > j) && (a >= b) == (i >= j));
        }
    }
}

TEST(kyVersion, ReplacesAllOfItsValuesAtOnce)
{
    kyVersion version;
    EXPECT_EQ(version, kyVersion(0, 0, 0, "", 0, 0));
    version.setVersion(6, 7, 8, "second", 9, 10);
    version.setVersion(1, 2, 3, version.getDescription(), 0, 0);
    EXPECT_EQ(version.getDescription(), "second");
    EXPECT_EQ(version, kyVersion(1, 2, 3, "", 0, 0));
}

TEST(LibraryVersion, ComposesItsTextsFromItsNumbersAndIsARelease)
{
    const std::string commit = Version::GetCommitId();
    EXPECT_EQ(commit.size(), 16u);
    EXPECT_EQ(commit.find_first_not_of("0123456789abcdef"), std::string::npos) << commit;

    EXPECT_EQ(std::vector({Version::GetMajor(), Version::GetMinor(), Version::GetRelease(),
                           Version::GetRevision(), Version::GetYear(), Version::GetMonth()}),
              std::vector({3u, 0u, 0u, 1226u, 2025u, 12u}));
    for (const bool ignored : {false, true}) {
        EXPECT_EQ(Version::GetDescStringMajorMinor(ignored), "3.0"s);
        EXPECT_EQ(Version::GetDescStringMajorMinorRelease(ignored), "3.0.0"s);
        EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(ignored, false), "3.0.0.1226"s);
        EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(ignored, true),
                  "3.0.0.1226 #" + commit);
    }
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevisionDate(),
              "3.0.0.1226 #" + commit + " 2025-12");
    EXPECT_FALSE(Version::IsBeta() || Version::IsDebug() || Version::IsDev());
}

}  // namespace
