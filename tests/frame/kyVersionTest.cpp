// The macros major and minor that this header defines must not touch the names of ours.
#include <sys/sysmacros.h>

#include "ky/kyVersion.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using ky::kyVersion;
using kySystem::Version;

TEST(kyVersion, OrdersByMajorThenMinorThenRevision)
{
    const kyVersion ascending[] = {{0, 0, 0, "z", 9, 9},          {0, 0, 1, "y", 8, 8},
                                   {0, 1, 0, "x", 7, 7},          {2, 9, 9, "w", 6, 6},
                                   {3, 0, 0, "v", 5, 5},          {3, 0, 1, "u", 4, 4},
                                   {4000000000u, 0, 0, "t", 3, 3}};
    const int count = 7;
    for (int i = 0; i < count; ++i) {
        for (int j = 0; j < count; ++j) {
            SCOPED_TRACE(std::to_string(i) + " and " + std::to_string(j));
            const kyVersion& a = ascending[i];
            const kyVersion& b = ascending[j];
            EXPECT_EQ(a == b, i == j);
            EXPECT_EQ(a != b, i != j);
            EXPECT_EQ(a < b, i < j);
            EXPECT_EQ(a <= b, i <= j);
            EXPECT_EQ(a > b, i > j);
            EXPECT_EQ(a >= b, i >= j);
        }
    }
}

TEST(kyVersion, ComparesWithoutDescriptionAndExtraValues)
{
    const kyVersion a(3, 0, 1, "stable", 1, 2);
    const kyVersion b(3, 0, 1, "nightly", 8, 9);
    EXPECT_TRUE(a == b && a <= b && a >= b);
    EXPECT_FALSE(a != b || a < b || b < a || a > b);
    EXPECT_TRUE(kyVersion() == kyVersion(0, 0, 0, "", 7, 9));
}

TEST(kyVersion, ReplacesAllOfItsValuesAtOnce)
{
    kyVersion version(1, 2, 3, "first", 4, 5);
    const kyVersion copy = version;
    version.setVersion(6, 7, 8, "second", 9, 10);
    EXPECT_EQ(version.getMajorVersion(), 6u);
    EXPECT_EQ(version.getMinorVersion(), 7u);
    EXPECT_EQ(version.getRevision(), 8u);
    EXPECT_EQ(version.getDescription(), "second");
    EXPECT_EQ(copy.getDescription(), "first");
    version.setVersion(1, 2, 3, version.getDescription(), 0, 0);
    EXPECT_EQ(version.getDescription(), "second");
}

TEST(LibraryVersion, ComposesItsTextsFromItsNumbers)
{
    const std::string commit = Version::GetCommitId();
    EXPECT_EQ(commit.size(), 16u);
    EXPECT_EQ(commit.find_first_not_of("0123456789abcdef"), std::string::npos) << commit;

    const std::string majorMinor =
        std::to_string(Version::GetMajor()) + "." + std::to_string(Version::GetMinor());
    const std::string release = majorMinor + "." + std::to_string(Version::GetRelease());
    const std::string revision = release + "." + std::to_string(Version::GetRevision());
    EXPECT_EQ(revision, "3.0.0.1226");
    EXPECT_EQ(std::to_string(Version::GetYear() * 100 + Version::GetMonth()), "202512");
    for (const bool ignored : {false, true}) {
        EXPECT_EQ(Version::GetDescStringMajorMinor(ignored), majorMinor);
        EXPECT_EQ(Version::GetDescStringMajorMinorRelease(ignored), release);
        EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(ignored, false), revision);
        EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(ignored, true),
                  revision + " #" + commit);
    }
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevisionDate(),
              revision + " #" + commit + " 2025-12");
}

TEST(LibraryVersion, IsAReleaseInEveryKindOfBuild)
{
    EXPECT_FALSE(Version::IsBeta());
    EXPECT_FALSE(Version::IsDebug());
    EXPECT_FALSE(Version::IsDev());
}

}  // namespace
