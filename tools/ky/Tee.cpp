#include "Commands.h"
#include "StandardStreams.h"

#include "ky/kyIoDeviceBroadcast.h"
#include "ky/kySystem.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>
#include <cerrno>
#include <csignal>

namespace ky::tool {
namespace {

struct Options {
    std::vector<std::string> files;
    bool append = false;
};

/// A file that has the bytes, or has failed, when a write returns.
class UnbufferedFile : public kyIoDeviceFileStream {
public:
    using kyIoDeviceFileStream::kyIoDeviceFileStream;

    unsigned long writeBytes(const char* src, unsigned long n) override
    {
        return kyIoDeviceFileStream::writeBytes(src, n) == n && flush() ? n : 0;
    }
};

/// Standard output, which has no name here because the command reports its failure itself, and the
/// files.
class Outputs {
public:
    Outputs() { mOutputs.emplace_back("", std::make_unique<kyIoDeviceStdStreamProxy>(&std::cout)); }

    void open(const std::string& path, bool truncate)
    {
        errno = 0;
        auto file = std::make_unique<UnbufferedFile>(path, kyIoDevice::DataWayWrite, truncate);
        if (file->isOpen())
            mOutputs.emplace_back(path, std::move(file));
        else
            fail("Cannot open " + path, errno != 0 ? errno : ENOENT);
    }

    /// A broadcast stops at the device that fails. That one is dropped, and a further broadcast
    /// gives the bytes to those behind it.
    void write(const char* bytes, unsigned long size)
    {
        auto next = mOutputs.begin();
        while (next != mOutputs.end()) {
            std::vector<kyIoDevice*> devices;
            std::for_each(next, mOutputs.end(),
                          [&](const auto& output) { devices.push_back(output.second.get()); });
            errno = 0;
            if (kyIoDeviceBroadcast(devices).writeBytes(bytes, size) == size)
                return;
            const int error = errno;
            next = std::find_if(next, mOutputs.end(),
                                [](const auto& output) { return output.second->hasDeviceError(); });
            if (!next->first.empty())
                fail("Cannot write to " + next->first, error);
            next = mOutputs.erase(next);
        }
    }

    bool empty() const { return mOutputs.empty(); }

    void fail(const std::string& message, int error)
    {
        mIsGood = false;
        PrintError(message, error);
    }

    /// Whether nothing has failed.
    bool close()
    {
        for (const auto& [name, device] : mOutputs) {
            errno = 0;
            auto* const file = dynamic_cast<UnbufferedFile*>(device.get());
            if (file != nullptr && !file->close())
                fail("Cannot write to " + name, errno);
        }
        return mIsGood;
    }

private:
    std::vector<std::pair<std::string, std::unique_ptr<kyIoDevice>>> mOutputs;
    bool mIsGood = true;
};

int RunTee(const Options& options)
{
    // An output that ends or is full is an error of that output, not the end of the command.
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);
    initializeKySystem(InitType::Light, false);
    bool isGood = false;
    {
        Outputs outputs;
        for (const std::string& path : options.files)
            outputs.open(path, !options.append);
        std::vector<char> bytes(65536);
        ssize_t size = 0;
        while (!outputs.empty() && (size = ReadSome(STDIN_FILENO, bytes.data(), bytes.size())) > 0)
            outputs.write(bytes.data(), static_cast<unsigned long>(size));
        if (size == -1)
            outputs.fail("Cannot read standard input", errno);
        isGood = outputs.close();
    }
    terminateKySystem();
    return isGood ? sSuccess : sFailure;
}

}  // namespace

void AddTee(CLI::App& app, int& exitCode)
{
    auto* const command =
        app.add_subcommand("tee", "Copy standard input to standard output and to files");
    command->footer("An output that fails is reported once and left out; the others go on.");
    const auto options = std::make_shared<Options>();
    command->add_option("FILES", options->files, "Files to write");
    command->add_flag("-a,--append", options->append, "Keep what the files hold");
    command->callback([options, &exitCode] { exitCode = RunTee(*options); });
}

}  // namespace ky::tool
