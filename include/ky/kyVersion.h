#pragma once

#include "ky/kyExport.h"

#include <cstdint>
#include <string>

namespace ky {

/// The version of anything, to hold, compare and describe. A plain value: copies are independent,
/// and one object is used by one thread at a time.
class KY_API kyVersion {
public:
    /// Version 0.0.0 without description.
    kyVersion() = default;

    /// `extra1` and `extra2` are kept for the owner and have no meaning here.
    kyVersion(unsigned int majorVersion, unsigned int minorVersion, unsigned int revision,
              const std::string& description, unsigned int extra1, unsigned int extra2);
    virtual ~kyVersion();
    kyVersion(const kyVersion&) = default;
    kyVersion& operator=(const kyVersion&) = default;
    kyVersion(kyVersion&&) = default;
    kyVersion& operator=(kyVersion&&) = default;

    /// Replaces all six values.
    void setVersion(unsigned int majorVersion, unsigned int minorVersion, unsigned int revision,
                    const std::string& description, unsigned int extra1, unsigned int extra2);

    /// As they were given.
    unsigned int getMajorVersion() const;
    unsigned int getMinorVersion() const;
    unsigned int getRevision() const;
    const std::string& getDescription() const;

    /// Versions are ordered by major version, then minor version, then revision. Description and
    /// extra values take no part, neither in the order nor in equality.
    bool operator==(const kyVersion& other) const;
    bool operator!=(const kyVersion& other) const;
    bool operator<(const kyVersion& other) const;
    bool operator<=(const kyVersion& other) const;
    bool operator>(const kyVersion& other) const;
    bool operator>=(const kyVersion& other) const;

private:
    std::uint32_t mMajorVersion = 0;
    std::uint32_t mMinorVersion = 0;
    std::uint32_t mRevision = 0;
    std::uint32_t mExtra1 = 0;
    std::uint32_t mExtra2 = 0;
    std::string mDescription;
};

}  // namespace ky

namespace kySystem {

/// What the loaded library is: every answer was fixed when the library was built, so a host sees
/// the library that it runs with, not the headers that it was compiled with.
///
/// The texts are constants of the library: valid for ever, never to be freed. The first boolean of
/// the description functions has no effect. Any thread, at any time; signal-safe.
class KY_API Version {
public:
    /// The four numbers of the release.
    static unsigned int GetMajor();
    static unsigned int GetMinor();
    static unsigned int GetRelease();
    static unsigned int GetRevision();

    /// 16 lower-case hexadecimal digits; all "0" when built outside a checkout.
    static const char* GetCommitId();

    /// Year and month (1 to 12) of the release, not those of the compilation.
    static unsigned int GetYear();
    static unsigned int GetMonth();

    /// They tell the kind of the release. `IsDebug` is false in a debug build as well.
    static bool IsBeta();
    static bool IsDebug();
    static bool IsDev();

    /// "major.minor"
    static const char* GetDescStringMajorMinor(bool);

    /// "major.minor.release"
    static const char* GetDescStringMajorMinorRelease(bool);

    /// "major.minor.release.revision", followed by " #" and the commit identifier when
    /// `withCommitId` is true.
    static const char* GetDescStringMajorMinorReleaseRevision(bool, bool withCommitId);

    /// "major.minor.release.revision #commit year-month", the month with two digits.
    static const char* GetDescStringMajorMinorReleaseRevisionDate();
};

}  // namespace kySystem
