#pragma once

#include "ky/kyLog.h"

#include "support/Child.h"

#include <functional>
#include <list>
#include <string>
#include <utility>
#include <vector>

namespace ky::test {

using Batch = std::list<kyLog::LogEntry>;
using Texts = std::vector<std::string>;

/// What stands behind the prefixes, line by line.
inline Texts Messages(const std::string& written)
{
    Texts messages = Lines(written);
    for (std::string& line : messages)
        line.erase(0, line.find(" : ") + 3);
    return messages;
}

/// A custom handler that keeps what it is given and then does what a test adds. To be looked at
/// when the log is flushed or another handler is installed.
struct Recorder {
    explicit Recorder(std::function<void(Batch&)> added = [](Batch&) {}) : then(std::move(added)) {}
    ~Recorder()
    {
        if (kyLog* const log = kyLog::Instance())
            log->installCustomHandler(nullptr, nullptr);
    }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    bool install() { return kyLog::Instance()->installCustomHandler(&Handle, this); }

    Texts messages;
    std::vector<std::size_t> batchSizes;

private:
    static void Handle(Batch& batch, void* self)
    {
        auto& recorder = *static_cast<Recorder*>(self);
        recorder.batchSizes.push_back(batch.size());
        for (const kyLog::LogEntry& entry : batch)
            recorder.messages.push_back(entry.message);
        recorder.then(batch);
    }

    const std::function<void(Batch&)> then;
};

}  // namespace ky::test
