#pragma once

#include "support/Child.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace ky::test {

/// A daemon's datagram socket at a path of the system, such as "/dev/log", in a mount namespace
/// that only this process sees. Ends the process where that is not allowed.
struct DaemonSocket {
    static constexpr int sNotAllowed = 77;

    explicit DaemonSocket(const std::string& path)
    {
        const std::string root = path.substr(0, path.find('/', 1));
        sockaddr_un address = {AF_UNIX, {}};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", root.c_str(), "tmpfs", 0, nullptr) != 0)
            ::_exit(sNotAllowed);
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        if (::bind(mSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            ::_exit(sNotAllowed);
    }

    /// The next message, empty when there is none yet.
    std::string receive() const
    {
        std::string datagram(70000, '\0');
        const ssize_t size = ::recv(mSocket, datagram.data(), datagram.size(), 0);
        datagram.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return datagram;
    }

    /// Until the end of the process.
    const int mSocket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
};

/// Runs `body` in a child that has the socket. Skips the test where that is not allowed.
inline void ExpectPassesWithDaemon(const std::string& path,
                                   const std::function<void(DaemonSocket&)>& body)
{
    const ChildResult result = RunInChild([&] {
        DaemonSocket socket(path);
        body(socket);
    });
    if (result.exitCode == DaemonSocket::sNotAllowed)
        GTEST_SKIP() << "a mount namespace is not allowed here";
    EXPECT_EQ(result.exitCode, 0) << result.err << result.out;
}

}  // namespace ky::test
