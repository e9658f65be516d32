#pragma once
// QBTCPSocket: an IPv4 TCP socket, used in two roles.
//
//  - Server: serveOnAddress() binds, listens and runs an accept loop. Every accepted connection
//    is wrapped in a new QBTCPSocket and handed to the delegate's clientConnected() on a thread
//    of its own; the connection's whole life is inside that call. shutdownServer(), called from
//    another thread, ends the loop by writing one byte into the loop's wake pipe.
//  - Connection (accepted, or made by connectToHost()): terminator-delimited reads with
//    time-outs, non-waiting reads of a given size, and sends that can insist on writing all.
//
// Every descriptor is non-blocking and close-on-exec; all waiting is done with poll(2), so
// descriptors above FD_SETSIZE work.
//
// Read-ahead: a connection receives in chunks into a private read-ahead store, not one byte per
// system call. What a terminated read returns ends with its terminator, and every byte the peer
// sent after the terminator stays in the read-ahead for the next read, so callers see exactly
// what a byte-at-a-time reader would. A terminated message is at most maxMessageLength bytes.
//
// A server starts a thread per connection, each with a small stack (connectionStackSize), and
// sets no bound of its own on their number: the daemon's front end is QBTCPEventServer, which
// bounds what a hostile peer can cost; this accept loop serves tests and tools. When serving
// ends, connections still open are left to their handlers, which end them.
//
// Threads: a connection object is used by one thread at a time (its handler's). A server's
// serve runs on one thread; shutdownServer() and localPort() may be called from any thread at
// any time.
//
//   auto server = QBTCPSocket::socket();
//   std::thread loop([&] { server->serveOnAddress(address, 0, delegate, false); });
//   ...
//   server->shutdownServer();
//   loop.join();

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "QBBuffer.h"
#include "QBIPAddress.h"
#include "QBMutex.h"
#include "QBSocket.h"

class QBTCPSocket;

// Receives each accepted connection of a serving QBTCPSocket, on a new thread per connection.
class QBTCPSocketServerDelegate {
public:
    virtual ~QBTCPSocketServerDelegate() = default;
    // Serves the connection until it ends; the connection is closed when the call returns and
    // nothing else holds it.
    virtual void clientConnected(std::shared_ptr<QBTCPSocket> connection) = 0;
};

class QBTCPSocket : public QBSocket, public std::enable_shared_from_this<QBTCPSocket> {
public:
    // Longest message a terminated read returns, terminator included (the size of the buffer it
    // returns). A longer message ends the read with nothing.
    static constexpr std::size_t maxMessageLength = static_cast<std::size_t>(QBBuffer::defaultSize);
    // Backlog of the listening socket: the system's maximum. A burst of connections (one
    // program can open them far faster than threads start) then waits in the kernel's queue
    // instead of having its SYNs dropped, which would make a legitimate client that arrives
    // during the burst wait a second for its SYN to be sent again.
    static constexpr int listenBacklog = SOMAXCONN;
    // connectToHost(host, port) waits this many seconds for the connection.
    static constexpr std::int32_t defaultConnectTimeout = 30;
    // A send that must write everything waits at most this long for the peer to make room in
    // the socket buffer; a peer that stops reading cannot hold a sender's thread for ever.
    static constexpr std::chrono::milliseconds sendStallTimeout{10000};

    // Stack of a connection thread. The deepest path (request, decoding, command, channel)
    // needs well under 64 KiB; the rest is room for sanitizer builds. Only touched pages become
    // resident.
    static constexpr std::size_t connectionStackSize = 256 * 1024;
    // Role names of the accept loop's thread and of connection threads.
    static constexpr const char* acceptRole = "tcp-accept";
    static constexpr const char* connectionRole = "tcp-conn";

    static std::shared_ptr<QBTCPSocket> socket();
    static std::shared_ptr<QBTCPSocket> socketWithExistingSocket(
        std::int32_t existingSocket, std::shared_ptr<QBIPAddress> andAddress, std::int32_t andPort);

    QBTCPSocket();  // not open: state 0, no host, port 0
    // Wraps an already connected descriptor: open, no host; the address is not kept.
    QBTCPSocket(std::int32_t existingSocket, std::shared_ptr<QBIPAddress> andAddress,
                std::int32_t andPort);
    ~QBTCPSocket() override;  // closes an open socket

    // The byte-object reads and writes of QBSocket are not provided: they raise.
    using QBSocket::readData;
    using QBSocket::writeData;

    // Connects to the first IPv4 address of host; false on every failure (the descriptor is
    // then released), including an absent or empty host and no connection within timeout
    // seconds (0 or less: only an immediate connection succeeds).
    bool connectToHost(const std::optional<std::string>& host, std::int32_t port);
    bool connectToHost(const std::optional<std::string>& host, std::int32_t port,
                       std::int32_t timeout);

    // Binds (with address reuse, so that a restart is not refused by old connections in
    // TIME_WAIT) and listens on address (any address when null) and the low 16 bits of port.
    // False when the address is not IPv4 or the socket cannot be made, bound or listened on.
    bool listenOnAddress(std::shared_ptr<QBIPAddress> address, std::int64_t andPort);

    // Listens and runs the accept loop on a new thread (this object must be owned by a
    // shared_ptr; otherwise nothing happens).
    void serveOnAddress(std::shared_ptr<QBIPAddress> address, std::int64_t andPort,
                        std::weak_ptr<QBTCPSocketServerDelegate> withDelegate);
    // With newThread false the loop runs on the calling thread, and the call returns when
    // serving ends: after shutdownServer(), or at once when the socket cannot listen.
    void serveOnAddress(std::shared_ptr<QBIPAddress> address, std::int64_t andPort,
                        std::weak_ptr<QBTCPSocketServerDelegate> withDelegate, bool newThread);
    // Asks the accept loop to end; returns at once. Only the first call has an effect; a socket
    // that has been shut down never serves again.
    void shutdownServer();

    // Takes at most count bytes that have already arrived, without waiting, and appends them to
    // buffer. Returns their number (also when the buffer refused them), 0 when none were
    // waiting, -1 on a receive error or when the peer has closed (the socket is then closed).
    std::int64_t readData(std::uint32_t count, QBBuffer& toBuffer);
    // As above, but waits up to wait for the rest until count bytes have been taken. Returns the
    // number taken (less than count when wait ran out), or -1 as above.
    std::int64_t readData(std::uint32_t count, QBBuffer& toBuffer, std::chrono::milliseconds wait);

    // Everything up to and including the first occurrence of the terminator, in a new buffer of
    // maxMessageLength bytes; null on a closed socket, a failed wait, a receive failure, the
    // peer closing, a message longer than maxMessageLength or withTimeout seconds of silence
    // (0 or less: no limit). What was received of a failed message is dropped.
    std::unique_ptr<QBBuffer> readDataTerminatedBy(const void* terminator,
                                                   std::int32_t terminalLength,
                                                   std::int32_t withTimeout);
    std::unique_ptr<QBBuffer> readDataTerminatedByString(std::string_view terminator,
                                                         std::int32_t withTimeout);
    // The same read as UTF-8 text (up to the first zero byte); nullopt when the read fails or
    // the text is not valid UTF-8.
    std::optional<std::string> readStringTerminatedBy(std::string_view terminator,
                                                      std::int32_t withTimeout);
    // One line, newline included; nullopt as for readStringTerminatedBy.
    std::optional<std::string> readLineWithTimeout(std::int32_t timeout);

    // Sends all UTF-8 bytes of text; true when all were sent (an empty text sends nothing).
    bool sendString(std::string_view text);
    // Sends bytes; with waitForAll, until all are sent. Returns the count sent, 0 for null
    // bytes, -1 on a send error, on a closed socket or when the peer made no room for
    // sendStallTimeout.
    std::int64_t sendRawData(const void* data, std::int32_t withLength, bool waitForAll);
    // Sends the buffer's unread bytes, removing each sent byte from it. Returns the count sent,
    // 0 for an empty buffer, -1 on a send error (logged "Socket write error: ...").
    std::int64_t sendBuffer(QBBuffer& buffer, bool waitForAll);
    std::int64_t sendBuffer(QBBuffer& buffer);

    // true: clear O_NONBLOCK; false: set it. False when the descriptor flags cannot be changed.
    bool setBlocking(bool blocking);
    void setNoDelay();

    std::optional<std::string> remoteHost() const { return _host; }
    std::int32_t remotePort() const { return _port; }
    std::int32_t fileDescriptor() const { return _socket; }
    // The local port the socket is bound to while it listens (useful after listening on port
    // 0); 0 otherwise. Any thread.
    std::int32_t localPort() const { return boundPort.load(); }

    bool isOpen() override;
    // Closes the descriptor of an open socket, clears host and port; nothing when not open.
    void close() override;

private:
    enum : std::int32_t { stateNotOpen = 0, stateOpen = 1, stateClosed = 2 };
    enum class Wait { ready, timedOut, failed };

    void internalServeOnData(const std::shared_ptr<QBIPAddress>& address, std::int64_t port,
                             const std::weak_ptr<QBTCPSocketServerDelegate>& delegate);
    int createWakePipe() QB_EXCLUDES(serverLock);
    bool acceptConnection(const std::weak_ptr<QBTCPSocketServerDelegate>& delegate,
                          int wakeReadEnd);

    Wait waitFor(short events, int timeoutMilliseconds) const;
    std::int64_t receiveIntoReadAhead();
    bool reserveReadAheadSpace();
    std::size_t pendingLength() const { return readAheadEnd - readAheadBegin; }
    void dropReadAhead() { readAheadBegin = readAheadEnd = 0; }
    std::optional<std::size_t> receiveMessage(std::string_view terminator,
                                              std::int32_t silenceSeconds);
    std::optional<std::string> takeMessageText(std::size_t length);
    bool waitUntilWritable();
    void releaseDescriptor();

    std::int32_t _socket = 0;
    std::int32_t _port = 0;
    std::optional<std::string> _host;
    std::int32_t socketState = stateNotOpen;
    bool nonBlocking = false;
    std::shared_ptr<QBIPAddress> remoteAddress;  // kept for the data model; nothing uses it

    // Server role.
    std::atomic<bool> shutdown{false};  // set once, never cleared
    std::atomic<std::int32_t> boundPort{0};
    // A leaf lock: shutdownServer() may run on any thread while the loop creates the pipe.
    mutable QBMutex serverLock;
    int wakePipe[2] QB_GUARDED_BY(serverLock) = {-1, -1};

    // Connection role.
    std::unique_ptr<std::uint8_t[]> readAhead;
    std::size_t readAheadCapacity = 0;
    std::size_t readAheadBegin = 0;  // first unread byte
    std::size_t readAheadEnd = 0;    // one past the last received byte
};
