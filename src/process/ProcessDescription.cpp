#include "ky/kyProcess.h"

#include "ky/kyDirUtils.h"

#include "process/ProcessRecord.h"
#include "text/LocalPath.h"

#include <utility>

#include <fcntl.h>
#include <unistd.h>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ky {
namespace {

constexpr std::size_t sCommandLineBytes = 4096;
constexpr int sLongestCharacterBytes = 4;
constexpr unsigned long sBytesPerKibibyte = 1024;

/// A word that was cut, perhaps within its last character.
std::string CutToUtf8(std::string word)
{
    std::string wordUtf8 = impl::ToUtf8Path(word);
    for (int i = 1; i < sLongestCharacterBytes && wordUtf8.empty() && !word.empty(); ++i) {
        word.pop_back();
        wordUtf8 = impl::ToUtf8Path(word);
    }
    return wordUtf8;
}

/// None when it cannot be read, as that of another user where proc(5) is mounted with hidepid.
std::vector<std::string> ReadCommandLine(const std::string& path)
{
    const impl::ScopedFile file = impl::OpenStream(path.c_str(), O_RDONLY, "r");
    if (!file)
        return {};
    std::string bytes(sCommandLineBytes, '\0');
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file.get()));
    std::vector<std::string> words;
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = bytes.find('\0', begin)) != std::string::npos; begin = end + 1)
        words.push_back(impl::ToUtf8Path(bytes.substr(begin, end - begin)));
    if (begin < bytes.size())
        words.push_back(CutToUtf8(bytes.substr(begin)));
    return words;
}

std::string TakeFirst(std::vector<std::string>& words)
{
    if (words.empty())
        return {};
    std::string first = std::move(words.front());
    words.erase(words.begin());
    return first;
}

std::string RunningProgram()
{
    char buffer[PATH_MAX];
    const ssize_t size = ::readlink("/proc/self/exe", buffer, sizeof(buffer));
    return size > 0 ? impl::ToUtf8Path({buffer, static_cast<std::size_t>(size)}) : "";
}

/// Whether `line` is the one with that figure, which then is taken.
bool Take(const char* line, const char* name, unsigned long& bytes)
{
    const std::size_t size = std::strlen(name);
    if (std::strncmp(line, name, size) != 0)
        return false;
    bytes = static_cast<unsigned long>(std::strtoll(line + size, nullptr, 10)) * sBytesPerKibibyte;
    return true;
}

}  // namespace

bool kyProcess::GetCurrentProcess(kyProcess& process)
{
    std::vector<std::string> words = ReadCommandLine("/proc/self/cmdline");
    auto record = std::make_unique<Record>();
    record->pid = ::getpid();
    record->workingDirectory = kyDirUtils::GetCurrentWorkingDirUtf8();
    record->program = RunningProgram();
    TakeFirst(words);
    record->arguments = std::move(words);
    record->state = Running;
    record->set(Record::Started, true);
    record->set(Record::CurrentProcess, true);
    process.mRecord = std::move(record);
    return true;
}

bool kyProcess::GetParentProcess(kyProcess& process)
{
    const pid_t parent = ::getppid();
    if (parent == 0)
        return false;
    std::vector<std::string> words =
        ReadCommandLine("/proc/" + std::to_string(parent) + "/cmdline");
    auto record = std::make_unique<Record>();
    record->pid = parent;
    record->program = TakeFirst(words);
    record->arguments = std::move(words);
    record->state = Running;
    record->set(Record::Started, true);
    record->set(Record::ParentProcess, true);
    process.mRecord = std::move(record);
    return true;
}

bool kyProcess::getMemoryStatistics(unsigned long& resident, unsigned long& peak) const
{
    resident = 0;
    peak = 0;
    // Once a process is known to have ended its number may be another's.
    if (!mRecord->isRunning() || mRecord->pid == 0)
        return false;
    const std::string name =
        mRecord->has(Record::CurrentProcess) ? "self" : std::to_string(mRecord->pid);
    const impl::ScopedFile file =
        impl::OpenStream(("/proc/" + name + "/status").c_str(), O_RDONLY, "r");
    if (!file)
        return false;
    char line[128];
    while (std::fgets(line, sizeof(line), file.get()) != nullptr)
        if (!Take(line, "VmRSS:", resident))
            // kept: the peak of the virtual size, not that of the resident one.
            Take(line, "VmPeak:", peak);
    return true;
}

}  // namespace ky
