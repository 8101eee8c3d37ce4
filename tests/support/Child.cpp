#include "support/Child.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>

namespace ky::test {
namespace {

int MemoryFile(std::string_view content)
{
    const int fd = ::memfd_create("ky-test", MFD_CLOEXEC);
    EXPECT_EQ(::pwrite(fd, content.data(), content.size(), 0),
              static_cast<ssize_t>(content.size()));
    return fd;
}

/// By its path, which gives a position of its own.
std::string TakeContent(int fd)
{
    std::string content = Content("/proc/self/fd/" + std::to_string(fd));
    ::close(fd);
    return content;
}

ChildResult RunRedirected(std::string_view input, const std::function<void()>& body)
{
    // Memory files instead of pipes: whatever amount the child writes, nobody has to read it
    // meanwhile. Processes that share one write over each other unless they append.
    const int files[] = {MemoryFile(input), MemoryFile({}), MemoryFile({})};
    for (const int file : {files[1], files[2]})
        ::fcntl(file, F_SETFL, O_APPEND);
    const pid_t child = Fork([&] {
        for (int fd = 0; fd < 3; ++fd)
            ::dup2(files[fd], fd);
        body();
    });
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    ::close(files[0]);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
            WIFSIGNALED(status) ? WTERMSIG(status) : 0, TakeContent(files[1]),
            TakeContent(files[2])};
}

}  // namespace

pid_t Fork(const std::function<void()>& body)
{
    std::cout.flush();
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        body();
        std::cout.flush();
        std::fflush(nullptr);
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    return child;
}

int EndOf(pid_t child)
{
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

ChildResult RunInChild(const std::function<void()>& body)
{
    return RunRedirected({}, body);
}

void ExpectChildPasses(const std::function<void()>& body)
{
    const ChildResult result = RunInChild(body);
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
}

ChildResult RunCommand(const std::vector<std::string>& arguments, std::string_view input,
                       const std::function<void()>& prepare)
{
    return RunRedirected(input, [&] {
        std::vector<char*> argv;
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        prepare();
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    });
}

TemporaryFolder::TemporaryFolder()
{
    char path[] = "/tmp/ky-test-XXXXXX";
    if (::mkdtemp(path) == nullptr)
        std::abort();
    mPath = path;
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

std::string TemporaryFolder::write(const std::string& name, std::string_view content) const
{
    std::string file = path(name);
    std::ofstream(file, std::ios::binary) << content;
    return file;
}

std::string Content(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool Contains(const std::string& text, const std::string& what)
{
    return text.find(what) != std::string::npos;
}

std::vector<std::string> Lines(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

}  // namespace ky::test
