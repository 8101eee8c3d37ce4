#include "frame/CrashLine.h"

#include "ky/kyStringUtils.h"
#include "ky/kySystemUtils.h"

#include "frame/WatchedSignals.h"

#include <algorithm>
#include <charconv>
#include <string>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cstring>

namespace ky::impl {
namespace {

constinit std::array<std::array<char, 64>, sWatchedSignals.size()> sSignalTexts = {};

struct CodeText {
    int signal;
    int code;
    const char* text;
};

constexpr int sAnySignal = 0;

// The codes of any signal come first. The blanks at the end of two of them belong to the texts.
constexpr CodeText sCodeTexts[] = {
    {sAnySignal, SI_USER, " (SI_USER)"},          {sAnySignal, SI_KERNEL, " (SI_KERNEL)"},
    {sAnySignal, SI_QUEUE, " (SI_QUEUE)"},        {sAnySignal, SI_TIMER, " (SI_TIMER)"},
    {sAnySignal, SI_MESGQ, " (SI_MESGQ )"},       {sAnySignal, SI_ASYNCIO, " (SI_ASYNCIO)"},
    {sAnySignal, SI_SIGIO, " (SI_SIGIO)"},        {sAnySignal, SI_TKILL, " (SI_TKILL )"},
    {SIGILL, ILL_ILLOPC, " (ILL_ILLOPC)"},        {SIGILL, ILL_ILLOPN, " (ILL_ILLOPN)"},
    {SIGILL, ILL_ILLADR, " (ILL_ILLADR)"},        {SIGILL, ILL_ILLTRP, " (ILL_ILLTRP)"},
    {SIGILL, ILL_PRVOPC, " (ILL_PRVOPC)"},        {SIGILL, ILL_PRVREG, " (ILL_PRVREG)"},
    {SIGILL, ILL_COPROC, " (ILL_COPROC)"},        {SIGILL, ILL_BADSTK, " (ILL_BADSTK)"},
    {SIGFPE, FPE_INTDIV, " (FPE_INTDIV)"},        {SIGFPE, FPE_INTOVF, " (FPE_INTOVF)"},
    {SIGFPE, FPE_FLTDIV, " (FPE_FLTDIV)"},        {SIGFPE, FPE_FLTOVF, " (FPE_FLTOVF)"},
    {SIGFPE, FPE_FLTUND, " (FPE_FLTUND)"},        {SIGFPE, FPE_FLTRES, " (FPE_FLTRES)"},
    {SIGFPE, FPE_FLTINV, " (FPE_FLTINV)"},        {SIGFPE, FPE_FLTSUB, " (FPE_FLTSUB)"},
    {SIGSEGV, SEGV_MAPERR, " (SEGV_MAPERR)"},     {SIGSEGV, SEGV_ACCERR, " (SEGV_ACCERR)"},
    {SIGBUS, BUS_ADRALN, " (BUS_ADRALN)"},        {SIGBUS, BUS_ADRERR, " (BUS_ADRERR)"},
    {SIGBUS, BUS_OBJERR, " (BUS_OBJERR)"},        {SIGCHLD, CLD_EXITED, " (CLD_EXITED)"},
    {SIGCHLD, CLD_KILLED, " (CLD_KILLED)"},       {SIGCHLD, CLD_DUMPED, " (CLD_DUMPED)"},
    {SIGCHLD, CLD_TRAPPED, " (CLD_TRAPPED)"},     {SIGCHLD, CLD_STOPPED, " (CLD_STOPPED)"},
    {SIGCHLD, CLD_CONTINUED, " (CLD_CONTINUED)"}, {SIGPOLL, POLL_IN, " (POLL_IN)"},
    {SIGPOLL, POLL_OUT, " (POLL_OUT)"},           {SIGPOLL, POLL_MSG, " (POLL_MSG)"},
    {SIGPOLL, POLL_ERR, " (POLL_ERR)"},           {SIGPOLL, POLL_PRI, " (POLL_PRI)"},
    {SIGPOLL, POLL_HUP, " (POLL_HUP)"},
};

const char* SignalName(int signal) noexcept
{
    const std::size_t index = WatchedSignalIndex(signal);
    return index < sWatchedSignals.size() ? sWatchedSignals[index].name : "unwatched";
}

const char* SignalText(int signal) noexcept
{
    const std::size_t index = WatchedSignalIndex(signal);
    if (index < sSignalTexts.size() && sSignalTexts[index][0] != '\0')
        return sSignalTexts[index].data();
    // strsignal(3) without translation and without memory.
    const char* const text = ::sigdescr_np(signal);
    return text != nullptr ? text : "Unknown signal";
}

/// What `kySystemUtils::GetUsedRamQuantityInBytes` tells, without the memory for a stream. 0 when
/// it is unknown.
unsigned long UsedRamInBytes() noexcept
{
    constexpr unsigned long pageBytes = 4096;
    std::array<char, 128> text = {};
    const int fd = ::open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return 0;
    const ssize_t size = ::read(fd, text.data(), text.size());
    ::close(fd);
    const char* const end = text.data() + std::max<ssize_t>(size, 0);
    // "total resident ...", in pages (proc(5)).
    const char* const resident = std::find(static_cast<const char*>(text.data()), end, ' ');
    unsigned long pages = 0;
    if (resident != end)
        std::from_chars(resident + 1, end, pages);
    return pages * pageBytes;
}

}  // namespace

void RememberSignalTexts()
{
    for (std::size_t i = 0; i < sSignalTexts.size(); ++i)
        // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread, and constant texts for these.
        if (const char* const text = ::strsignal(sWatchedSignals[i].number))
            ::strncpy(sSignalTexts[i].data(), text, sSignalTexts[i].size() - 1);
}

const char* SignalCodeText(int signal, int code) noexcept
{
    for (const CodeText& entry : sCodeTexts)
        if (entry.code == code && (entry.signal == sAnySignal || entry.signal == signal))
            return entry.text;
    return nullptr;
}

void CrashLine::compose(int signal, const siginfo_t& info) noexcept
{
    append("Got signal (");
    append(SignalName(signal));
    append(" ");
    appendNumber(signal);
    append(") ");
    append(SignalText(signal));
    if (const char* const codeText = SignalCodeText(signal, info.si_code)) {
        append(codeText);
    } else {
        append(" (si_code=");
        appendNumber(info.si_code);
        append(")");
    }
    // kept: a fault has no sender, its process and user are halves of the fault's address.
    append(", from PID ");
    appendNumber(info.si_pid);
    append(", PID ");
    appendNumber(static_cast<long>(kySystemUtils::GetCurrentProcessID()));
    append(" TID ");
    // `CurrentThreadIdText` without thread storage, which might have to be allocated.
    appendNumber(::syscall(SYS_gettid));
    append(", PPID ");
    appendNumber(kySystemUtils::GetParentProcessID());
    append(", used RAM ");
    appendUsedRam();
    append("B, sent by UID ");
    appendNumber(static_cast<long>(info.si_uid));
}

std::string_view CrashLine::text() const noexcept
{
    // Acquire here and release in append: who sees the size sees the bytes.
    return {mText.data(), mSize.load(std::memory_order_acquire)};
}

void CrashLine::writeToStandardError() const noexcept
{
    [[maybe_unused]] const ssize_t ignored =
        ::write(STDERR_FILENO, mText.data(), text().size() + 1);
}

void CrashLine::append(std::string_view text) noexcept
{
    const std::size_t size = mSize.load(std::memory_order_relaxed);
    const std::size_t fitting = std::min(text.size(), mText.size() - 1 - size);
    std::memcpy(mText.data() + size, text.data(), fitting);
    mText[size + fitting] = '\n';
    mSize.store(size + fitting, std::memory_order_release);
}

void CrashLine::appendNumber(long number) noexcept
{
    std::array<char, 24> text;
    append({text.data(), std::to_chars(text.data(), text.data() + text.size(), number).ptr});
}

void CrashLine::appendUsedRam() noexcept
{
    constexpr int digits = 3;
    constexpr int decimals = 1;
    // Seven characters at most, which a string holds without memory of its own.
    append(kyStringUtils::humanizeNumberGeneric(UsedRamInBytes(), digits, decimals, true, true,
                                                false));
}

}  // namespace ky::impl
