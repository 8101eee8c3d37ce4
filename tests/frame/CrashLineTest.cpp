#include "frame/CrashLine.h"

#include "support/Child.h"

#include <gtest/gtest.h>

#include <regex>

#include <unistd.h>

using ky::impl::CrashLine;
using ky::impl::SignalCodeText;

TEST(CrashLine, NamesTheCodesOfEverySignalBeforeThoseOfOne)
{
    EXPECT_STREQ(SignalCodeText(SIGTERM, -3), " (SI_MESGQ )");
    EXPECT_STREQ(SignalCodeText(SIGSEGV, 2), " (SEGV_ACCERR)");
    EXPECT_STREQ(SignalCodeText(SIGPOLL, 6), " (POLL_HUP)");
    EXPECT_STREQ(SignalCodeText(SIGSEGV, 3), nullptr);
}

TEST(CrashLine, TellsSignalCauseSenderProcessAndMemoryInOneLine)
{
    siginfo_t info = {};
    info.si_code = SI_QUEUE;
    info.si_pid = -5;
    info.si_uid = 4000000000U;
    CrashLine first;
    CrashLine line;
    const auto result = ky::test::RunInChild([&] {
        first.writeToStandardError();
        first.compose(SIGTERM, info);
        first.writeToStandardError();
        info.si_code = 77;
        line.compose(SIGVTALRM, info);
        line.writeToStandardError();
        ::write(STDOUT_FILENO, line.text().data(), line.text().size());
    });
    const std::string known =
        "\nGot signal \\(SIGTERM 15\\) Terminated \\(SI_QUEUE\\), from PID -5, PID \\d+ TID \\d+, "
        "PPID " +
        std::to_string(::getpid()) + ", used RAM [1-9][0-9.]*[kMGT]B, sent by UID 4000000000\n";
    const std::string unknown =
        "Got signal \\(SIGVTALRM 26\\) Virtual timer expired \\(si_code=77\\), ";
    EXPECT_TRUE(std::regex_match(result.err, std::regex(known + unknown + ".*\n"))) << result.err;
    EXPECT_TRUE(result.err.ends_with(result.out + "\n")) << result.out;
}
