// A server that answers every line of its clients in capitals, and a client of it in another
// process. Each end does its work between two calls that move bytes.

#include "ky/kyNamedPipe.h"
#include "ky/kySystem.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>
#include <cctype>

namespace {

void Serve(ky::kyNamedPipe& pipe)
{
    while (!pipe.isReadChannelClosed()) {
        pipe.processNamedPipeEvents(-1, true);
        std::vector<char>& received = pipe.editReadBuffer();
        std::vector<char>& answer = pipe.editWriteBuffer();
        std::transform(received.begin(), received.end(), std::back_inserter(answer),
                       [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        received.clear();
        pipe.processNamedPipeEvents(0, false);
    }
}

/// The answer to one line, or nothing when the server is gone.
std::string Ask(const std::string& name, const std::string& line)
{
    ky::kyNamedPipe pipe;
    if (!pipe.connectToNamedPipeServerUtf8(name))
        return {};
    pipe.appendToWriteBuffer(line.data(), line.size());
    std::string answer;
    while (answer.size() < line.size() && !pipe.isReadChannelClosed()) {
        pipe.processNamedPipeEvents(-1, true);
        std::vector<char>& received = pipe.editReadBuffer();
        answer.append(received.begin(), received.end());
        received.clear();
    }
    return answer;
}

}  // namespace

int main()
{
    ky::initializeKySystem(ky::InitType::Light, false);
    const std::string name = "ky-example-" + std::to_string(::getpid()) + ".pipe";
    ky::kyNamedPipeServer server;
    if (!server.listenUtf8(name))
        return 1;
    const pid_t child = ::fork();
    if (child == 0) {
        const std::string answer = Ask(name, "is anybody there?\n");
        std::cout << answer << std::flush;
        ::_exit(answer == "IS ANYBODY THERE?\n" ? 0 : 1);
    }
    if (server.waitForNewConnection(10'000, nullptr))
        Serve(*server.editClients().front());
    int status = -1;
    ::waitpid(child, &status, 0);
    ky::terminateKySystem();
    return status == 0 ? 0 : 1;
}
