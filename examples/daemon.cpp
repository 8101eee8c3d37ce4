// A daemon that keeps an inventory of a folder, put together from the services of the library. It
// runs in the foreground, as service managers like it, and is asked by the same program:
//
//     example-daemon HOME              runs, with settings, lock and log in the folder HOME
//     example-daemon HOME status       tells what was found; scan, reload and stop do what they say
//     echo status | ky pipe connect ky-daemon
//
// Ctrl-C, a polite kill and "stop" end it cleanly, within moments of whatever it is at. SIGHUP
// makes it read its settings again, as "reload" does.

#include "Inventory.h"

#include "ky/MemoryWatchDog.h"
#include "ky/SystemError.h"
#include "ky/kyCancelConsoleEventCatcher.h"
#include "ky/kyCancelIfParentProcessDied.h"
#include "ky/kyDirUtils.h"
#include "ky/kyIniFile.h"
#include "ky/kyLockFile.h"
#include "ky/kyNamedPipe.h"
#include "ky/kyResource.h"
#include "ky/kySystem.h"
#include "ky/kyThreadPeriodicalUpdater.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <iostream>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <cerrno>
#include <csignal>

using ky::kyDirUtils;

namespace {

struct Settings {
    std::string folder = "/usr/share/doc";
    unsigned int periodSeconds = 60;
    bool isVerbose = false;
    unsigned int logFiles = 5;
    unsigned int logBytes = 1'000'000;
    std::string pipe = "ky-daemon";
    unsigned int memoryMiB = 1024;
    bool endsWithParent = false;
};

std::string SettingsPath(const std::string& home)
{
    return kyDirUtils::JoinPath(home, "daemon.ini");
}

/// False when `setting` is no text, no yes or no, or no number from 1 on, as `value` asks for.
template <typename Value>
bool Take(const ky::kyVariant& setting, Value& value)
{
    if constexpr (std::is_same_v<Value, std::string>) {
        value = setting.toString();
        return !value.empty();
    } else if constexpr (std::is_same_v<Value, bool>) {
        value = setting.toBool();
        return setting.getType() == ky::kyVariant::Bool;
    } else {
        const std::int64_t number = setting.toInteger();
        value = static_cast<Value>(number);
        return setting.getType() == ky::kyVariant::Integer && number >= 1 && number <= INT_MAX;
    }
}

/// False, and no change, when the file is not there or wrong; the log tells why.
bool ReadSettings(const std::string& home, Settings& settings)
{
    ky::kyVariant::kyVariantMapImpl file;
    if (!ky::LoadIniFile(SettingsPath(home), file))
        return false;
    Settings read;
    bool isGood = true;
    const auto take = [&file, &isGood](const char* path, auto& value) {
        const ky::kyVariant* const found = file.findPathImpl(path);
        if (found == nullptr || Take(*found, value))
            return;
        isGood = false;
        ky::kyLogObject(ky::kyLog::Critical) << path << " cannot be \"" << found->toString() << '"';
    };
    take("scan/folder", read.folder);
    take("scan/period", read.periodSeconds);
    take("log/verbose", read.isVerbose);
    take("log/files", read.logFiles);
    take("log/bytes", read.logBytes);
    take("control/pipe", read.pipe);
    take("limits/memory", read.memoryMiB);
    take("limits/parent", read.endsWithParent);
    if (isGood)
        settings = read;
    return isGood;
}

/// A new home gets the settings that travel inside the program: whole, so that a full disk or a
/// kill meanwhile does not leave others behind.
bool PrepareSettings(const std::string& home, std::string& error)
{
    if (kyDirUtils::FileExistsUtf8(SettingsPath(home)))
        return true;
    const std::string beside = SettingsPath(home) + ".new";
    std::string text;
    ky::rc::GetResource("daemon.ini", text);
    ky::kyIoDeviceFileStream file(beside, ky::kyIoDevice::DataWayWrite, true);
    if (file.writeBytes(text.data(), text.size()) == text.size() && file.close())
        return kyDirUtils::RenameFileUtf8(beside, SettingsPath(home), &error);
    error = "cannot write " + beside;
    return false;
}

std::atomic<bool> sShouldReload = false;  // written by the handler

void OnHangUp(int /*signal*/)
{
    sShouldReload = true;
}

void RequestScan(void* inventory)
{
    static_cast<Inventory*>(inventory)->requestScan();
}

/// Owns all that runs. Members go in the reverse order: first who asks for work, then who does it.
class Daemon {
public:
    Daemon(std::string home, const Settings& settings)
        : mHome(std::move(home)),
          mPipe(settings.pipe),
          mSettings(settings),
          mParent(settings.endsWithParent ? std::make_unique<ky::kyCancelIfParentProcessDied>(
                                                ky::kyCancelConsoleEventCatcher::Get())
                                          : nullptr),
          mCancel(nullptr, nullptr, reasonToStop()),
          mWatchDog("daemon", settings.memoryMiB, 3),
          mInventory(mCancel)
    {}
    ~Daemon() { endUpdates(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    int run()
    {
        std::string error;
        if (!apply(error) || !listen(error)) {
            std::cerr << error << '\n';
            return 1;
        }
        ky::kyLogObject(ky::kyLog::Info) << "started in " << mHome;
        while (!mCancel.shouldCancel() && mServer.getSocket() >= 0) {
            waitForEvents();
            if (sShouldReload.exchange(false))
                ky::kyLogObject(ky::kyLog::Info, "control") << "SIGHUP: " << reload();
            while (hasRoom() && mServer.waitForNewConnection(0, nullptr))
                continue;
            mServer.editClients().remove_if([this](const auto& client) { return !serve(*client); });
        }
        mServer.closeNamedPipeServer();
        kyDirUtils::RemoveFileUtf8(pipePath());
        mCancel.cancel();
        ky::kyLogObject(ky::kyLog::Info) << "stopping";
        return 0;
    }

private:
    const ky::kyCancelInterfaceReadOnly* reasonToStop() const
    {
        if (mParent != nullptr)
            return mParent.get();
        return ky::kyCancelConsoleEventCatcher::Get();
    }

    std::string pipePath() const
    {
        return kyDirUtils::JoinPath(kyDirUtils::GetTempFolderUtf8(), mPipe);
    }

    /// Who listens on a name takes it over, so a daemon with another home must not have it.
    bool listen(std::string& error)
    {
        if (!mPipeLock.takeLockUtf8(pipePath() + ".lock", nullptr, ky::kyLockFile::Exclusive,
                                    &error)) {
            error = "pipe " + mPipe + ": " + error;
            return false;
        }
        error = "cannot listen on " + mPipe + ", see the log";
        return mServer.listenUtf8(mPipe);
    }

    std::string reload()
    {
        std::string error = "wrong settings, see the log; going on with the old ones";
        return ReadSettings(mHome, mSettings) && apply(error) ? "done" : error;
    }

    /// What may change while it runs.
    bool apply(std::string& error)
    {
        ky::kyLog* const log = ky::kyLog::Instance();
        log->setLogLevel(mSettings.isVerbose ? ky::kyLogLevel::All : ky::kyLogLevel::Normal);
        if (!log->installFileHandlerExUtf8(mHome, "daemon.log", ky::kyLog::FileAppend,
                                           mSettings.logFiles, mSettings.logBytes,
                                           ky::kyLog::TimeRotationInterval::Daily, &error))
            return false;
        mInventory.setFolder(mSettings.folder);
        endUpdates();
        mUpdater = std::make_unique<ky::kyThreadPeriodicalUpdater>(mSettings.periodSeconds);
        mUpdater->addCallback(&RequestScan, &mInventory);
        return true;
    }

    /// Without the last call that an updater makes when it goes.
    void endUpdates()
    {
        if (mUpdater != nullptr)
            mUpdater->removeCallback(&RequestScan, &mInventory);
        mUpdater.reset();
    }

    /// More clients wait to be accepted, so that descriptors do not run out.
    bool hasRoom() { return mServer.editClients().size() < 16; }

    /// Until a socket has something to do, or a tenth of a second: then it is time to ask whether
    /// to stop. A client that does not take its answers is not read from.
    void waitForEvents()
    {
        std::vector<pollfd> sockets{{hasRoom() ? mServer.getSocket() : -1, POLLIN, 0}};
        for (const auto& client : mServer.editClients()) {
            const short events = client->hasPendingWrite() ? POLLOUT : POLLIN;
            sockets.push_back({client->getSocket(), events, 0});
        }
        ::poll(sockets.data(), sockets.size(), 100);
    }

    /// False when there is nothing left to do for the client.
    bool serve(ky::kyNamedPipe& client)
    {
        client.processNamedPipeEvents(0, false);
        std::vector<char>& received = client.editReadBuffer();
        auto end = received.begin();
        while (!client.hasPendingWrite() &&
               (end = std::find(received.begin(), received.end(), '\n')) != received.end()) {
            const std::string answer = answerTo(std::string(received.begin(), end));
            received.erase(received.begin(), end + 1);
            client.appendToWriteBuffer(answer.data(), answer.size());
            client.processNamedPipeEvents(0, false);
        }
        if (client.isWriteChannelClosed() || client.hasPendingWrite())
            return !client.isWriteChannelClosed();
        // Without a line by then it is no command.
        return !client.isReadChannelClosed() && received.size() < client.msReadBufferLimit;
    }

    std::string answerTo(const std::string& command)
    {
        if (command == "status")
            return mInventory.status();
        ky::kyLogObject(ky::kyLog::Info, "control") << command;
        if (command == "scan") {
            mInventory.requestScan();
            return "scanning\n";
        }
        if (command == "reload")
            return reload() + "\n";
        if (command != "stop")
            return "status, scan, reload or stop\n";
        mCancel.cancel();
        return "stopping\n";
    }

    const std::string mHome;
    const std::string mPipe;
    ky::kyLockFile mPipeLock;
    Settings mSettings;
    const std::unique_ptr<ky::kyCancelIfParentProcessDied> mParent;
    ky::kyCancelInterfaceProxy mCancel;
    const ky::MemoryWatchDog mWatchDog;
    Inventory mInventory;
    std::unique_ptr<ky::kyThreadPeriodicalUpdater> mUpdater;
    ky::kyNamedPipeServer mServer;
};

int Run(const std::string& home)
{
    Settings settings;
    std::string error = "cannot make the folder";
    ky::kyLockFile lock;
    const bool isReady = kyDirUtils::MkpathUtf8(home) &&
                         lock.takeLockUtf8(kyDirUtils::JoinPath(home, "daemon.lock"), nullptr,
                                           ky::kyLockFile::Exclusive, &error) &&
                         PrepareSettings(home, error);
    if (!isReady || !ReadSettings(home, settings)) {
        std::cerr << home << ": " << (isReady ? "wrong settings, see the log" : error) << '\n';
        return 1;
    }
    const int exitCode = Daemon(home, settings).run();
    ky::kyLogObject(ky::kyLog::Info) << "ended";
    lock.releaseLock(true);
    return exitCode;
}

/// The other side: sends one line and shows the answer.
int Ask(const std::string& home, const std::string& command)
{
    Settings settings;
    ky::kyNamedPipe pipe;
    if (!ReadSettings(home, settings) || !pipe.connectToNamedPipeServerUtf8(settings.pipe)) {
        std::cerr << "nobody answers: " << ky::SystemError(errno).toString() << '\n';
        return 1;
    }
    pipe.appendToWriteBuffer((command + "\n").data(), command.size() + 1);
    pipe.processNamedPipeEvents(0, false);
    ::shutdown(pipe.getSocket(), SHUT_WR);
    while (!pipe.isReadChannelClosed()) {
        pipe.processNamedPipeEvents(-1, true);
        std::vector<char>& received = pipe.editReadBuffer();
        std::cout.write(received.data(), static_cast<std::streamsize>(received.size()));
        received.clear();
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3) {
        std::cerr << "usage: example-daemon HOME [COMMAND]\n";
        return 2;
    }
    const bool isAsking = argc == 3;
    ky::initializeKySystem(isAsking ? ky::InitType::Light : ky::InitType::Full, false);
    const std::string home = ToUtf8(argv[1]);
    int exitCode = 0;
    if (isAsking) {
        exitCode = Ask(home, ToUtf8(argv[2]));
    } else {
        ky::kyCancelConsoleEventCatcher::Create();
        std::signal(SIGHUP, &OnHangUp);
        exitCode = Run(home);
        ky::kyCancelConsoleEventCatcher::Delete();
    }
    ky::terminateKySystem();
    return exitCode;
}
