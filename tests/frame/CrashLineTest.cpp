#include "frame/CrashLine.h"

#include "support/Child.h"

#include <gtest/gtest.h>

#include <string>

#include <sys/syscall.h>
#include <unistd.h>
#include <cstring>

using ky::impl::CrashLine;
using ky::impl::SignalCodeText;

TEST(CrashLine, NamesTheCodesOfEverySignalBeforeThoseOfOne)
{
    const struct {
        int signal;
        int code;
        const char* text;
    } rows[] = {
        {SIGSEGV, 0, " (SI_USER)"},     {SIGTERM, 128, " (SI_KERNEL)"},
        {SIGTERM, -3, " (SI_MESGQ )"},  {SIGABRT, -6, " (SI_TKILL )"},
        {SIGILL, 8, " (ILL_BADSTK)"},   {SIGFPE, 1, " (FPE_INTDIV)"},
        {SIGSEGV, 1, " (SEGV_MAPERR)"}, {SIGSEGV, 2, " (SEGV_ACCERR)"},
        {SIGBUS, 2, " (BUS_ADRERR)"},   {SIGCHLD, 3, " (CLD_DUMPED)"},
        {SIGPOLL, 6, " (POLL_HUP)"},    {SIGSEGV, 3, nullptr},
        {SIGTERM, 1, nullptr},          {SIGILL, 9, nullptr},
        {SIGTERM, -7, nullptr},
    };
    for (const auto& row : rows)
        EXPECT_STREQ(SignalCodeText(row.signal, row.code), row.text)
            << "signal " << row.signal << " code " << row.code;
}

TEST(CrashLine, TellsSignalCauseSenderProcessAndMemory)
{
    siginfo_t info = {};
    info.si_code = SI_QUEUE;
    info.si_pid = 4711;
    info.si_uid = 4000000000U;
    CrashLine line;
    EXPECT_EQ(line.text(), "");
    line.compose(SIGTERM, info);
    const std::string text(line.text());
    const std::string before =
        "Got signal (SIGTERM 15) Terminated (SI_QUEUE), from PID 4711, PID " +
        std::to_string(::getpid()) + " TID " + std::to_string(::syscall(SYS_gettid)) + ", PPID " +
        std::to_string(::getppid()) + ", used RAM ";
    const std::string after = "B, sent by UID 4000000000";
    ASSERT_EQ(text.compare(0, before.size(), before), 0) << text;
    ASSERT_GT(text.size(), before.size() + after.size());
    const std::string ram = text.substr(before.size(), text.size() - before.size() - after.size());
    EXPECT_EQ(text.substr(before.size() + ram.size()), after);
    EXPECT_NE(ram.find_first_of("kMGT"), std::string::npos) << ram;
    EXPECT_NE(ram[0], '0') << ram;

    info.si_code = 77;
    info.si_pid = -5;
    CrashLine unknown;
    unknown.compose(SIGVTALRM, info);
    EXPECT_EQ(
        std::string(unknown.text())
            .find("Got signal (SIGVTALRM 26) Virtual timer expired (si_code=77), from PID -5, "),
        0u)
        << unknown.text();
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
    EXPECT_EQ(result.out.find("Got signal (SIGBUS 7) Bus error (SI_USER), from PID 0"), 0u);
}
