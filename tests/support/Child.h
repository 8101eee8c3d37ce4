#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace ky::test {

/// What became of a child process.
struct ChildResult {
    int exitCode = -1;  ///< -1 when a signal ended it
    int signal = 0;     ///< the signal that ended it, 0 when it exited
    std::string out;    ///< its standard output
    std::string err;    ///< its standard error
};

/// Starts `body` in a forked child. It ends with 0 when body returns, with 1 when an expectation
/// failed in it, or with what body gave to _exit(2).
pid_t Fork(const std::function<void()>& body);

/// Waits for the end of a child. Its exit code, or 128 more than the signal that ended it.
int EndOf(pid_t child);

/// Runs `body` in a forked child with standard output and error caught. Failures are
/// reported in `err`.
ChildResult RunInChild(const std::function<void()>& body);

/// Runs `body` in a child too; what it has printed is told with a failure.
void ExpectChildPasses(const std::function<void()>& body);

/// Runs a program with `input` on its standard input. `prepare` runs in the child before the
/// program starts and may rearrange its descriptors and environment.
ChildResult RunCommand(
    const std::vector<std::string>& arguments, std::string_view input = {},
    const std::function<void()>& prepare = [] {});

/// A fresh folder, removed with all that is in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string path(const std::string& name) const { return mPath + "/" + name; }
    /// Makes a file and gives its path.
    std::string write(const std::string& name, std::string_view content) const;

private:
    std::string mPath;
};

/// All bytes of a file, none when it cannot be read.
std::string Content(const std::string& path);

bool Contains(const std::string& text, const std::string& what);

/// The lines of a text, without their newlines.
std::vector<std::string> Lines(const std::string& text);

}  // namespace ky::test
