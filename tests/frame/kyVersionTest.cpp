// The macros major and minor that this header defines must not touch the names of ours.
#include <sys/sysmacros.h>

#include "ky/kyVersion.h"

#include <gtest/gtest.h>

#include <string>

using ky::kyVersion;
using kySystem::Version;
using std::string_literals::operator""s;

TEST(kyVersion, OrdersByMajorThenMinorThenRevisionAndByNothingElse)
{
    const kyVersion ascending[] = {{0, 0, 1, "c", 3, 3},
                                   {0, 1, 0, "b", 2, 2},
                                   {3, 0, 0, "", 0, 0},
                                   {4000000000, 0, 0, "a", 1, 1}};
    kyVersion same;
    EXPECT_EQ(same, kyVersion(0, 0, 0, "", 7, 9));
    for (const kyVersion& a : ascending) {
        same.setVersion(a.getMajorVersion(), a.getMinorVersion(), a.getRevision(), "same", 5, 5);
        for (const kyVersion& b : ascending) {
            EXPECT_TRUE((same == b) == (&a == &b) && (same != b) == (&a != &b));
            EXPECT_TRUE((same < b) == (&a < &b) && (same <= b) == (&a <= &b));
            EXPECT_TRUE((same > b) == (&a > &b) && (same >= b) == (&a >= &b));
        }
    }
}

TEST(LibraryVersion, ComposesItsTextsFromItsNumbers)
{
    const std::string commit = Version::GetCommitId();
    EXPECT_EQ(commit.find_first_not_of("0123456789abcdef"), std::string::npos) << commit;
    EXPECT_EQ(commit.size(), 16u);

    EXPECT_EQ(Version::GetDescStringMajorMinor(true), "3.0"s);
    EXPECT_EQ(Version::GetDescStringMajorMinorRelease(true), "3.0.0"s);
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(true, false), "3.0.0.1226"s);
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(false, true),
              "3.0.0.1226 #" + commit);
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevisionDate(),
              "3.0.0.1226 #" + commit + " 2025-12");
}
