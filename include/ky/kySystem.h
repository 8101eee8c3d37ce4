#pragma once

#include "ky/kyExport.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace ky {

/// How much of the library to bring up: the light level or the full one.
enum class InitType : int {
    /// The log, unprotected, and the system and string utilities: for one thread.
    Light = 1,
    /// All of it, for any number of threads.
    Full = 2,
};

/// Brings the library up, or counts one more user of a library that is up already. Every call is
/// to be matched by one `terminateKySystem`. A full request after light ones adds what is missing;
/// a light request after a full one only counts. Any other `type` does nothing at all.
///
/// `lookupMainHddDevice` makes the first full request look the main disk device up once
/// (`getMainHDDDevice`), so that later calls answer from its cache.
///
/// Call it while no other thread uses the library. Reports nothing; when memory or threads run out
/// it throws what the standard library throws, and the call does not count.
KY_API void initializeKySystem(InitType type, bool lookupMainHddDevice);

/// Takes one user away; the last one shuts the library down. Call it while no other thread uses
/// the library, and log nothing afterwards.
///
/// A surplus call is not guarded against: it wraps the count of users to its largest value, so
/// that the next `initializeKySystem` is no first use and does no light steps.
KY_API void terminateKySystem();

/// Whether the library is up at the full level. Calls the function below first, so in a forked
/// child every call logs. Any thread.
KY_API bool IsKySystemThreadSafe();

/// Logs the fork warning, one CRITICAL line with the system-log name "kySystem", when this process
/// was forked from the one that initialised the library at the full level. Silent without a log.
/// Any thread.
KY_API void CheckIfProcessForkAfterThreadSafeInit();

namespace impl {

/// Counts the users of a library, for this one and for others of its family. The count is not
/// protected: count while one thread uses the library. Reading is allowed from any thread.
class KY_API LibInitCounter {
public:
    /// `name` is copied, null gives "n/a". `flag` is kept for the owner and has no meaning here.
    LibInitCounter(const char* name, bool flag);
    ~LibInitCounter();
    LibInitCounter(const LibInitCounter&) = delete;
    LibInitCounter& operator=(const LibInitCounter&) = delete;

    /// True exactly when the new count is 1. Wraps.
    bool incrementInitCounter();

    /// True exactly when the new count is 0. Wraps.
    bool decrementInitCounter();

    /// Sets the count to 0.
    void clearInitCounter();

    /// The users now, whether there is one, and what it was named.
    std::uint32_t getInitCounter() const;
    bool isInitialized() const;
    const std::string& getName() const;

    /// A switch for libraries of the family that warn about their own use before initialisation.
    /// No warning of this library depends on it.
    static void SetLibInitWarningsEnabled(bool enabled);

    /// That switch; true from the start.
    static std::atomic<bool> msLibInitWarnings;

private:
    std::atomic<std::uint32_t> mCounter{0};
    std::atomic<bool> mEverIncremented{false};
    [[maybe_unused]] const bool mFlag;
    const std::string mName;
};

}  // namespace impl
}  // namespace ky
