#pragma once

#include <streambuf>
#include <string>

#include <sys/types.h>

namespace ky::tool {

/// Puts "/dev/null" on each of the descriptors 0 to 2 that the caller has closed, so that no file
/// opened later is taken for a standard stream. 0 and 1 are opened the wrong way round on purpose:
/// reading input or writing output that is not there stays an error (EBADF) and is reported.
void OccupyStandardDescriptors();

/// "ky: " + `message` + the text of `error`, on standard error.
void PrintError(const std::string& message, int error);

/// "ky: " + `text`, on standard error, unless nobody reads there: for who must not be held up.
void PrintUnlessStuck(const std::string& text);

/// After a read or write that failed: whether it did only because the descriptor is non-blocking,
/// in which case it is ready again on return.
bool WaitWhileBusy(int fd, short events);

/// read(2), which goes on after a signal and waits where the descriptor is non-blocking.
ssize_t ReadSome(int fd, char* buffer, std::size_t size);

/// Standard output that remembers its first failure: takes the place of the buffer of `std::cout`
/// for its own lifetime and writes through to descriptor 1.
class CheckedOutput : public std::streambuf {
public:
    CheckedOutput();
    ~CheckedOutput() override;
    CheckedOutput(const CheckedOutput&) = delete;
    CheckedOutput& operator=(const CheckedOutput&) = delete;

    /// The `errno` of the first write that failed, 0 while all is well.
    int error() const { return mError; }

    /// Prints the failure, if any, and tells whether there was one.
    bool reportFailure() const;

protected:
    std::streamsize xsputn(const char* text, std::streamsize size) override;
    int_type overflow(int_type character) override;

private:
    std::streambuf* const mPrevious;
    int mError = 0;
};

}  // namespace ky::tool
