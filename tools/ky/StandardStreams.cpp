#include "StandardStreams.h"

#include "ky/SystemError.h"

#include <algorithm>
#include <iostream>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <climits>

namespace ky::tool {

void OccupyStandardDescriptors()
{
    constexpr int modes[] = {O_WRONLY, O_RDONLY, O_RDWR};
    // In ascending order, since open(2) takes the lowest free number.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF)
            static_cast<void>(::open("/dev/null", modes[fd]));
}

void PrintError(const std::string& message, int error)
{
    // In one piece, so that the lines of parallel runs do not mix.
    std::cerr << "ky: " + message + ". " + SystemError(error).toString() + "\n";
}

void PrintUnlessStuck(const std::string& text)
{
    ::pollfd error = {STDERR_FILENO, POLLOUT, 0};
    if (::poll(&error, 1, 0) != 1)
        return;
    // What is called writable takes that much at once (pipe(7)).
    std::string line = "ky: " + text;
    line.resize(std::min<std::size_t>(line.size(), PIPE_BUF - 1));
    line += '\n';
    static_cast<void>(::write(STDERR_FILENO, line.data(), line.size()) > 0);
}

bool WaitWhileBusy(int fd, short events)
{
    if (errno != EAGAIN)
        return false;
    ::pollfd descriptor = {fd, events, 0};
    return ::poll(&descriptor, 1, -1) >= 0 || errno == EINTR;
}

ssize_t ReadSome(int fd, char* buffer, std::size_t size)
{
    ssize_t got = 0;
    do
        got = ::read(fd, buffer, size);
    while (got == -1 && (errno == EINTR || WaitWhileBusy(fd, POLLIN)));
    return got;
}

CheckedOutput::CheckedOutput() : mPrevious(std::cout.rdbuf(this)) {}

CheckedOutput::~CheckedOutput()
{
    std::cout.rdbuf(mPrevious);
}

bool CheckedOutput::reportFailure() const
{
    if (mError != 0)
        PrintError("Cannot write to standard output", mError);
    return mError != 0;
}

std::streamsize CheckedOutput::xsputn(const char* text, std::streamsize size)
{
    std::streamsize written = 0;
    while (written < size) {
        const ssize_t step =
            ::write(STDOUT_FILENO, text + written, static_cast<std::size_t>(size - written));
        if (step == -1 && (errno == EINTR || WaitWhileBusy(STDOUT_FILENO, POLLOUT)))
            continue;
        if (step <= 0) {
            if (mError == 0)
                mError = step == -1 ? errno : ENOSPC;
            break;
        }
        written += step;
    }
    return written;
}

CheckedOutput::int_type CheckedOutput::overflow(int_type character)
{
    if (traits_type::eq_int_type(character, traits_type::eof()))
        return traits_type::not_eof(character);
    const char single = traits_type::to_char_type(character);
    return xsputn(&single, 1) == 1 ? character : traits_type::eof();
}

}  // namespace ky::tool
