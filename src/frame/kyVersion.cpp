#include "ky/kyVersion.h"

#include "Commit.h"

#include <string_view>
#include <tuple>

// The numbers are macros because only the preprocessor can join them into literals.
#define KY_MAJOR 3
#define KY_MINOR 0
#define KY_RELEASE 0
#define KY_REVISION 1226
#define KY_YEAR 2025
// Two tokens, so that a month below 10 keeps its zero in the text.
#define KY_MONTH_TENS 1
#define KY_MONTH_UNITS 2

#define KY_TEXT_OF_TOKEN(token) #token
#define KY_TEXT(macro) KY_TEXT_OF_TOKEN(macro)

#define KY_MAJOR_MINOR KY_TEXT(KY_MAJOR) "." KY_TEXT(KY_MINOR)
#define KY_MAJOR_TO_RELEASE KY_MAJOR_MINOR "." KY_TEXT(KY_RELEASE)
#define KY_MAJOR_TO_REVISION KY_MAJOR_TO_RELEASE "." KY_TEXT(KY_REVISION)
#define KY_MAJOR_TO_COMMIT KY_MAJOR_TO_REVISION " #" KY_COMMIT_ID
#define KY_MAJOR_TO_DATE \
    KY_MAJOR_TO_COMMIT " " KY_TEXT(KY_YEAR) "-" KY_TEXT(KY_MONTH_TENS) KY_TEXT(KY_MONTH_UNITS)

static_assert(std::string_view(KY_COMMIT_ID).size() == 16 &&
                  std::string_view(KY_COMMIT_ID).find_first_not_of("0123456789abcdef") ==
                      std::string_view::npos,
              "the build gave no valid commit identifier");

namespace ky {

kyVersion::kyVersion(unsigned int majorVersion, unsigned int minorVersion, unsigned int revision,
                     const std::string& description, unsigned int extra1, unsigned int extra2)
    : mMajorVersion(majorVersion),
      mMinorVersion(minorVersion),
      mRevision(revision),
      mExtra1(extra1),
      mExtra2(extra2),
      mDescription(description)
{}

kyVersion::~kyVersion() = default;

void kyVersion::setVersion(unsigned int majorVersion, unsigned int minorVersion,
                           unsigned int revision, const std::string& description,
                           unsigned int extra1, unsigned int extra2)
{
    // First what can fail, so that a failure leaves the old version whole.
    mDescription = description;
    mMajorVersion = majorVersion;
    mMinorVersion = minorVersion;
    mRevision = revision;
    mExtra1 = extra1;
    mExtra2 = extra2;
}

unsigned int kyVersion::getMajorVersion() const
{
    return mMajorVersion;
}

unsigned int kyVersion::getMinorVersion() const
{
    return mMinorVersion;
}

unsigned int kyVersion::getRevision() const
{
    return mRevision;
}

const std::string& kyVersion::getDescription() const
{
    return mDescription;
}

bool kyVersion::operator==(const kyVersion& other) const
{
    return mMajorVersion == other.mMajorVersion && mMinorVersion == other.mMinorVersion &&
           mRevision == other.mRevision;
}

bool kyVersion::operator!=(const kyVersion& other) const
{
    return !(*this == other);
}

bool kyVersion::operator<(const kyVersion& other) const
{
    return std::tie(mMajorVersion, mMinorVersion, mRevision) <
           std::tie(other.mMajorVersion, other.mMinorVersion, other.mRevision);
}

bool kyVersion::operator<=(const kyVersion& other) const
{
    return !(other < *this);
}

bool kyVersion::operator>(const kyVersion& other) const
{
    return other < *this;
}

bool kyVersion::operator>=(const kyVersion& other) const
{
    return !(*this < other);
}

}  // namespace ky

namespace kySystem {

unsigned int Version::GetMajor()
{
    return KY_MAJOR;
}

unsigned int Version::GetMinor()
{
    return KY_MINOR;
}

unsigned int Version::GetRelease()
{
    return KY_RELEASE;
}

unsigned int Version::GetRevision()
{
    return KY_REVISION;
}

const char* Version::GetCommitId()
{
    return KY_COMMIT_ID;
}

unsigned int Version::GetYear()
{
    return KY_YEAR;
}

unsigned int Version::GetMonth()
{
    return 10 * KY_MONTH_TENS + KY_MONTH_UNITS;
}

bool Version::IsBeta()
{
    return false;
}

bool Version::IsDebug()
{
    return false;
}

bool Version::IsDev()
{
    return false;
}

const char* Version::GetDescStringMajorMinor(bool)
{
    return KY_MAJOR_MINOR;
}

const char* Version::GetDescStringMajorMinorRelease(bool)
{
    return KY_MAJOR_TO_RELEASE;
}

const char* Version::GetDescStringMajorMinorReleaseRevision(bool, bool withCommitId)
{
    return withCommitId ? KY_MAJOR_TO_COMMIT : KY_MAJOR_TO_REVISION;
}

const char* Version::GetDescStringMajorMinorReleaseRevisionDate()
{
    return KY_MAJOR_TO_DATE;
}

}  // namespace kySystem
