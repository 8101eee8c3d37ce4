#include "frame/CrashLine.h"

#include "support/Child.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include <sys/syscall.h>
#include <unistd.h>

using ky::impl::CrashLine;
using ky::impl::SignalCodeText;

TEST(CrashLine, NamesTheCodesOfEverySignalBeforeThoseOfOne)
{
    EXPECT_STREQ(SignalCodeText(SIGSEGV, 0), " (SI_USER)");
    EXPECT_STREQ(SignalCodeText(SIGTERM, -3), " (SI_MESGQ )");
    EXPECT_STREQ(SignalCodeText(SIGSEGV, 2), " (SEGV_ACCERR)");
    EXPECT_STREQ(SignalCodeText(SIGPOLL, 6), " (POLL_HUP)");
    EXPECT_STREQ(SignalCodeText(SIGSEGV, 3), nullptr);
}

TEST(CrashLine, TellsSignalCauseSenderProcessAndMemory)
{
    const auto compose = [](int signal, int code) {
        siginfo_t info = {};
        info.si_code = code;
        info.si_pid = -5;
        info.si_uid = 4000000000U;
        CrashLine line;
        line.compose(signal, info);
        return std::string(line.text());
    };
    const auto text = [](long number) { return std::to_string(number); };
    const std::string start = "Got signal (SIGTERM 15) Terminated (SI_QUEUE), from PID -5, PID " +
                              text(::getpid()) + " TID " + text(::syscall(SYS_gettid)) + ", PPID " +
                              text(::getppid()) + ", used RAM ";
    const std::string known = compose(SIGTERM, SI_QUEUE);
    ASSERT_EQ(known.find(start), 0u) << known;
    const std::regex rest("[1-9][0-9.]*[kMGT]B, sent by UID 4000000000");
    EXPECT_TRUE(std::regex_match(known.substr(start.size()), rest)) << known;
    const std::string unknown = compose(SIGVTALRM, 77);
    EXPECT_EQ(unknown.find("Got signal (SIGVTALRM 26) Virtual timer expired (si_code=77), "), 0u);
}

TEST(CrashLine, LeavesInOneLineWithItsNewline)
{
    const auto result = ky::test::RunInChild([] {
        CrashLine line;
        line.writeToStandardError();
        line.compose(SIGBUS, siginfo_t{});
        line.writeToStandardError();
        ::write(STDOUT_FILENO, line.text().data(), line.text().size());
    });
    EXPECT_EQ(result.err, "\n" + result.out + "\n");
}
