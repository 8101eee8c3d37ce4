#pragma once

#include "ky/kyExport.h"

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace ky {

class kyNamedPipeServer;

/// One end of a local channel of bytes in both directions (unix(7), a stream socket). There are no
/// messages: what one end appends, the other receives in order, in pieces of any size.
///
/// No call blocks that is not told to wait, no thread runs and nothing is received or sent but in
/// `processNamedPipeEvents`, which the host calls in a loop. A pipe of the name N, in UTF-8, is a
/// file N in the temporary folder (`kyDirUtils::GetTempFolderUtf8`), which both ends must see
/// alike.
///
/// An object is used by one thread at a time. No member throws but for want of memory, and a peer
/// that is gone kills nobody (no SIGPIPE). Programs that the host starts do not get the descriptor;
/// a forked child shares it, and the peer sees the end only when both have closed. Not copyable.
class KY_API kyNamedPipe {
public:
    /// Bytes up to which the read buffer is filled: beyond it the peer has to wait.
    static constexpr std::size_t msReadBufferLimit = 10240;

    kyNamedPipe();
    /// As `closeNamedPipe`.
    virtual ~kyNamedPipe();
    kyNamedPipe(const kyNamedPipe&) = delete;
    kyNamedPipe& operator=(const kyNamedPipe&) = delete;

    /// Connects to who listens on that name; true when connected already, to whomever. False with
    /// `errno` when nobody listens (ECONNREFUSED, ENOENT), so many wait there that there is no room
    /// (EAGAIN), the name has no local one (ENOENT), or as socket(2) and connect(2) fail (EMFILE,
    /// EACCES). A path of more than 106 bytes is also logged, at CRITICAL (ENAMETOOLONG). Nothing
    /// is waited for. Success clears the three flags below; the buffers stay as they are, with what
    /// an earlier peer has not taken.
    bool connectToNamedPipeServerUtf8(const std::string& name);

    /// Receives once, when there is room in the read buffer, and then sends once what is pending,
    /// as far as the system takes it. With `waitWhenIdle` and both buffers empty it waits up to
    /// `timeoutMs` for bytes, or for the end, of the peer; negative and the largest int mean
    /// without limit, and signals do not end the wait. Otherwise it returns at once: to wait until
    /// pending bytes can be sent, use poll(2) on `getSocket`.
    ///
    /// The end of the peer's stream is seen only when there is room in the read buffer, and after
    /// all bytes before it. A wait that fails closes the pipe.
    void processNamedPipeEvents(int timeoutMs, bool waitWhenIdle);

    /// Until it is closed at this end, whatever the peer does.
    bool isConnected() const { return getSocket() >= 0; }
    /// Nothing more will come: the peer has ended its stream, or receiving has failed, as it does
    /// when the peer closes before it has taken all bytes.
    bool isReadChannelClosed() const;
    /// Nothing more will be sent: sending has failed. What is pending stays.
    bool isWriteChannelClosed() const;
    bool hasWriteFailed() const;
    /// What was appended and is not yet sent, in bytes.
    bool hasPendingWrite() const { return getPendingWriteSize() > 0; }
    std::size_t getPendingWriteSize() const;

    /// -1 when not connected. Stays the pipe's own: for poll(2), for shutdown(2) that ends the own
    /// stream, for who the peer is (SO_PEERCRED, socket(7)).
    int getSocket() const;
    /// Takes a connected stream socket over, which may be a blocking one, and clears the three
    /// flags. It becomes close-on-exec. The socket that the pipe had is closed, unless it is the
    /// same. A number below 3 is exchanged for a higher one. -1 closes.
    void setSocket(int socket);
    /// Leaves buffers and flags as they are. What is pending is not sent.
    void closeNamedPipe();

    /// What the pipe was last connected to, or that of the server it was accepted by.
    const std::string& getNameUtf8() const { return mName; }

    /// What was received. The host erases what it has used.
    std::vector<char>& editReadBuffer() { return mReadBuffer; }
    /// All that waits to be sent, for the host to append to. The reference stays good, but after a
    /// send that leaves more than 64 KiB only a new call gathers the rest in it, at the cost of
    /// moving it: where that much may be pending, `appendToWriteBuffer` is cheaper.
    std::vector<char>& editWriteBuffer();
    /// Appends `size` bytes, without any limit: compare `getPendingWriteSize` where the peer may
    /// be slow. The bytes must not be those of the write buffer itself.
    void appendToWriteBuffer(const void* bytes, std::size_t size);

private:
    friend class kyNamedPipeServer;
    struct State;

    void receive(int timeoutMs);
    void send();
    void takeSent(std::size_t size);

    const std::unique_ptr<State> mState;
    std::string mName;
    std::vector<char> mReadBuffer;
    std::vector<char> mWriteBuffer;
};

/// Listens on a name and makes a `kyNamedPipe` of each client that connects.
///
/// Whoever listens on a name takes it over from whoever did before, without question; the clients
/// that the earlier one has accepted stay with it. The mode of the file follows the umask, and who
/// may write to it may connect.
///
/// Threads and forked children as for `kyNamedPipe`. Not copyable.
class KY_API kyNamedPipeServer {
public:
    kyNamedPipeServer();
    /// As `closeNamedPipeServer`, and closes the clients that are left.
    virtual ~kyNamedPipeServer();
    kyNamedPipeServer(const kyNamedPipeServer&) = delete;
    kyNamedPipeServer& operator=(const kyNamedPipeServer&) = delete;

    /// Removes what is at the path, which may be any file but a folder, and listens there. False
    /// with `errno` and a line in the log, at CRITICAL, when it listens already, `name` is empty or
    /// has no local name, the path has more than 106 bytes, or a call to the system fails; it may
    /// then be called again.
    bool listenUtf8(const std::string& name);

    /// Accepts one client, for which it waits up to `timeoutMs`; negative and the largest int mean
    /// without limit, and signals do not end the wait. `timedOut`, which may be null, is set to the
    /// opposite of the result. While descriptors or memory are lacking it tries again every 10 ms;
    /// the clients wait meanwhile.
    bool waitForNewConnection(int timeoutMs, bool* timedOut);

    /// Waits likewise for the first client, then accepts those that wait, up to 4096 a call. True
    /// when the server listens afterwards. A wait that fails closes the server, as does a
    /// shutdown(2) of its socket.
    bool processPipeServerEvents(int timeoutMs);

    /// Clients that wait to be accepted are turned away, those accepted stay. The file is left
    /// where it is, since it may be a successor's; connecting to it fails at once.
    void closeNamedPipeServer();

    /// For poll(2); -1 while it does not listen.
    int getSocket() const;

    /// The accepted clients, oldest first. Those that are closed stay until the host removes them.
    std::list<std::unique_ptr<kyNamedPipe>>& editClients() { return mClients; }

private:
    struct State;
    enum class Outcome;

    bool waitForClient(int timeoutMs);
    Outcome acceptClient();

    const std::unique_ptr<State> mState;
    std::list<std::unique_ptr<kyNamedPipe>> mClients;
};

}  // namespace ky
