// A custom handler that feeds the system's journal with fields of its own, so that
// `journalctl SYSLOG_IDENTIFIER=host KY_SUB_TYPE=net -p warning` finds what a text search would
// have to guess. Built where pkg-config finds libsystemd.

#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include <list>
#include <string>
#include <vector>

// The place in the source would be that of the handler.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <cerrno>
#include <cstdio>

namespace {

int Priority(int level)
{
    switch (level) {
        case ky::kyLog::Critical:
            return LOG_CRIT;
        case ky::kyLog::Warning:
            return LOG_WARNING;
        case ky::kyLog::Info:
            return LOG_INFO;
        default:
            return LOG_DEBUG;
    }
}

void SendToJournal(std::list<ky::kyLog::LogEntry>& batch, void* identifier)
{
    for (const ky::kyLog::LogEntry& entry : batch) {
        // Lengths go along, so that newlines and zero bytes in a message stay part of it.
        std::vector<std::string> fields = {
            "MESSAGE=" + entry.message,
            "PRIORITY=" + std::to_string(Priority(entry.level)),
            "SYSLOG_IDENTIFIER=" + std::string(static_cast<const char*>(identifier)),
            "KY_TIME_MS=" + std::to_string(entry.timeMs),
        };
        if (!entry.subType.empty())
            fields.push_back("KY_SUB_TYPE=" + entry.subType);
        if (!entry.threadId.empty())
            fields.push_back("TID=" + entry.threadId);
        std::vector<iovec> parts;
        for (std::string& field : fields)
            parts.push_back({field.data(), field.size()});
        // Without a journal, in a container say, this succeeds and does nothing.
        const int result = ::sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
        if (result < 0)
            std::fprintf(stderr, "journal: error %d\n", -result);
    }
}

}  // namespace

int main()
{
    static char identifier[] = "example-journald";
    ky::initializeKySystem(ky::InitType::Full, false);
    ky::kyLog::Instance()->setEchoToConsole(false);
    ky::kyLog::Instance()->installCustomHandler(&SendToJournal, identifier);
    ky::kyLogObject(ky::kyLog::Info) << "started with " << 3 << " work items";
    ky::kyLogObject(ky::kyLog::Warning, "net") << "lost 2.5 % of the packets\non 2 links";
    ky::kyLog::Instance()->installCustomHandler(nullptr, nullptr);
    ky::terminateKySystem();
}
