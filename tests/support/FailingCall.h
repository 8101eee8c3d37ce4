#pragma once

#include <gtest/gtest.h>

#include <iterator>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <cstddef>

namespace ky::test {

/// From now on that system call (SYS_...) fails for the calling thread, those that it starts and
/// its children (seccomp(2)).
inline void LetCallFail(long call, int error)
{
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog program = {std::size(filter), filter};
    ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

}  // namespace ky::test
