#pragma once
// QBLumentideIPC: one end of the GUI message channel, framed JSON messages over a Unix-domain
// stream socket. The same class is the server end (a listening socket, an accept loop on a thread
// of its own, one reader thread per connected client) and the client end (one connection with
// one reader thread).
//
// Frames: one marker byte (0x00, ignored when read), the body length as an unsigned 32-bit
// little-endian integer, then the body: the compact UTF-8 JSON of one envelope with "command",
// "messageid", "content" and, in replies, "replyid". Every message sent by an endpoint, replies
// included, takes the next id of its counter (1, 2, ..., 2147483647, 0, 1, ...).
//
// Reading: each connection has a read token; only its holder receives from the socket. A
// sender that waits for an answer takes the token when it is free and reads the connection
// itself (it leads): so the answer wakes only the thread that waits for it. On the way a
// leader completes other senders' answers (they may also arrive on another connection of the
// endpoint) and queues commands for the connection's reader thread. The reader thread hands
// every command to the delegate, one at a time in order of arrival, and writes the replies in
// that order. It watches the socket itself only while no sender waits on the connection, and
// no sender leads while it watches; once it has read an answer for a waiting sender it steps
// aside, so that the next senders lead, and it takes the socket up again at most
// readerResumeDelay after the last of them has left.
//
// Invariants:
//  - Every client descriptor is closed exactly once, by the reader thread of its connection,
//    while it holds the connection's write lock, after it has taken the descriptor out of the
//    client list (server) or out of _socket (client) under the endpoint lock, and after it has
//    marked the connection ended and seen its read token free, so no leader polls or reads it
//    and no sender writes to it any more. Everyone else only wakes its users, with
//    shutdown(2), and only while the descriptor is known to be open.
//  - Sends on one connection are serialised by its write lock, held from taking the message id
//    to the last byte written: frames never interleave and ids leave in the order they are
//    made. A write waits for room at most frameWriteTimeout; a peer that takes nothing for that
//    long loses its connection. So a client that does not read holds up only its own senders.
//  - A sender that waits for a reply returns nothing as soon as the endpoint shuts down or the
//    connection that carries its request ends; a reply that arrived first still wins over the
//    end of its connection. Each of these events reaches a leader in poll() through its socket
//    (shutdown(2)) or its connection's eventfd, and a sender that does not lead through its
//    condition.
//  - The shutdown flag is set once (atomic exchange); the rest of shutdown() runs once.
//
// Threads: any thread may call any public operation. Every thread the endpoint starts holds a
// shared_ptr to it, so an endpoint lives until its last thread ends; waitForThreads() lets an
// owner (tests, an orderly exit) wait for that moment. Delegate operations run on reader threads;
// a delegate may itself send a request and wait for its answer.
//
// Lock order (outermost first): a connection's writeLock, endpointLock, clientsLock, socketLock,
// waitingLock, repliesLock, then a connection's lock, which also guards the state of the
// waiting entries of requests sent on it (each entry's condition waits on it). wakeLock,
// clientWaitLock, delegateLock, selfLock and the thread tracker's lock are leaves. No thread
// holds two write locks, and none takes a write lock while it holds endpointLock. No lock is
// held while waiting for a reply or while blocked in poll() or a read; only a connection's own
// writeLock is held while a frame is written to it, and that wait is bounded.
//
//   auto ipc = QBLumentideIPC::initWithSocketPath("/run/example.socket", false);
//   ipc->startServerOnThread();
//   if (ipc->clientCount() > 0) {
//       auto answer = ipc->sendMessageToFirstClient("serviceCmd", {{"command", "state"}});
//   }
//   ipc->shutdown();

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

class QBLumentideIPC;

// The receiver of the commands that arrive on an endpoint. Every operation runs on the reader
// thread of the connection concerned; the endpoint passes itself as the sender. An exception
// that escapes validateCommand or processCommand refuses the command (answered "INVALID"); one
// from a notification is dropped. Either way the reader thread goes on.
class QBLumentideIPCDelegate {
public:
    virtual ~QBLumentideIPCDelegate() = default;

    // Once when a reader thread starts, before its first read.
    virtual void clientConnected(QBLumentideIPC& sender);
    // For every received command other than "reply"; true accepts it.
    virtual bool validateCommand(const std::string& command, const nlohmann::json& data,
                                 QBLumentideIPC& sender) = 0;
    // For every accepted command; the object returned becomes the reply's content, nothing (or
    // a value that is not an object) the content {"status":"OK"}.
    virtual std::optional<nlohmann::json> processCommand(const std::string& command,
                                                         const nlohmann::json& data, int client,
                                                         QBLumentideIPC& sender) = 0;
    // Once when a reader thread ends, after its connection has been torn down.
    virtual void clientDisconnected(QBLumentideIPC& sender);
};

class QBLumentideIPC : public std::enable_shared_from_this<QBLumentideIPC> {
    struct ConstructionKey {
        explicit ConstructionKey() = default;
    };

public:
    static constexpr std::int32_t serverMode = 0;
    static constexpr std::int32_t clientMode = 1;

    static constexpr const char* defaultSocketPath = "/var/run/com.quarrybay.LumentideHelper.socket";
    // The channel carries commands and short answers of at most a few kilobytes. A megabyte
    // leaves wide room and bounds what a peer can make a reader allocate; a longer frame ends
    // its connection, and a longer message is not sent.
    static constexpr std::uint32_t maximumFrameBodyLength = 1u << 20;
    // Messages nest a few levels. Encoding and comparing JSON recurse once per level, so a
    // deeper body (which an answer would echo) is treated as unreadable instead of exhausting a
    // reader thread's stack.
    static constexpr int maximumNestingDepth = 128;
    // Values in one frame's body, object keys included. Parsed, a value costs up to about 85
    // bytes beyond its text (an empty object "{}": its node, its own empty map and the
    // allocator's overhead), so without a budget the megabyte "[{},{},...]" becomes a tree of
    // some 30 MB, held twice over while it is echoed back as refused. The messages of this
    // channel have a few dozen values (a long string counts as one), so 8192 refuses none of
    // them and caps a tree at about 700 KB besides the characters of its strings. A body with
    // more values is unreadable, like one nested too deep: its connection ends.
    static constexpr std::size_t maximumValuesPerFrame = 8192;
    // Linux keeps a filesystem socket path NUL-terminated inside sun_path.
    static constexpr std::size_t maximumSocketPathLength = sizeof(sockaddr_un::sun_path) - 1;
    // Frames leave and arrive in pieces of at most this many bytes per send or receive call.
    static constexpr std::size_t transferChunkSize = 1024;
    // The GUI application is the only client and connects once; a short queue is enough.
    static constexpr int listenBacklog = 5;
    // Owner and group may use the socket fully, others may connect.
    static constexpr mode_t socketFileMode = 0776;
    // After accept fails for lack of descriptors or memory, the listening socket stays
    // readable; the loop pauses this long (or until shutdown) instead of spinning.
    static constexpr std::chrono::milliseconds acceptRetryDelay{100};
    // A frame must leave within this long. Frames are small and the socket buffers hold
    // hundreds of kilobytes, so only a peer that has stopped reading makes a send wait; its
    // connection is then ended, and the senders queued behind it get nothing.
    static constexpr std::chrono::milliseconds frameWriteTimeout{10000};
    // Clients served at once. The GUI application is the one real client (a restart overlaps
    // its old connection briefly); the rest is room for tools. Each client costs a thread, a
    // descriptor and up to a frame (maximumFrameBodyLength) of input, so this bounds what a
    // local user who opens connections by the thousand can make the daemon hold. A connection
    // beyond it is accepted and closed at once.
    static constexpr int maximumClients = 64;
    // Slots of maximumClients that the connections of one user id may hold at once. Every local
    // user may connect, so without a share one of them could hold every slot and leave the
    // console user's GUI application none. A quarter leaves room for a few users' tools; a
    // connection beyond it is refused like one beyond maximumClients. A slot only admits a
    // connection: it says nothing about which client the service's requests go to.
    static constexpr int maximumClientsPerUser = maximumClients / 4;
    // "Too many clients; connection refused" is logged at most once per this interval.
    static constexpr std::chrono::seconds refusalLogInterval{10};
    // Stack of every thread an endpoint starts: the accept loop and the readers, which parse
    // frames (iteratively) and run the delegate. Only touched pages become resident.
    static constexpr std::size_t threadStackSize = 512 * 1024;

    // Frame I/O on plain inputs: a call that moves up to length bytes and returns the count, or
    // 0 or less when the peer has closed or failed.
    using SendCall = std::function<std::ptrdiff_t(const std::uint8_t* bytes, std::size_t length)>;
    using ReceiveCall = std::function<std::ptrdiff_t(std::uint8_t* bytes, std::size_t length)>;

    // The endpoint on defaultSocketPath, taking its listening socket from socket activation.
    static std::shared_ptr<QBLumentideIPC> init();
    // A client-mode endpoint on path; nothing is opened yet. Ignores SIGPIPE for the process.
    static std::shared_ptr<QBLumentideIPC> initWithSocketPath(const std::string& path,
                                                              bool useLaunchdSocket);

    QBLumentideIPC(ConstructionKey, std::string path, bool useLaunchdSocket);
    ~QBLumentideIPC();
    QBLumentideIPC(const QBLumentideIPC&) = delete;
    QBLumentideIPC& operator=(const QBLumentideIPC&) = delete;

    // --- Server ---
    // Becomes a server and runs the accept loop on the calling thread until shutdown(). Returns
    // at once (after logging) when no listening socket or wake pipe can be had, and does nothing
    // on an endpoint that already ran a server loop or is connected as a client.
    void startServerAndBlock();
    // Runs startServerAndBlock() on a new detached thread and returns at once.
    void startServerOnThread();
    // The descriptor named "MasterSocket" among those passed by socket activation, or -1.
    int getSocketFromLaunchd();
    // Creates, binds (replacing any file at the path, mode 0776) and listens; false on failure,
    // including a path that is empty or longer than maximumSocketPathLength.
    bool listen();
    // Number of connected clients (0 in client mode or when the server never started).
    std::int32_t clientCount() const;
    // Blocks until a client is connected (true, at once when one is), the endpoint shuts down
    // or timeout passes (false).
    bool waitForClients(std::chrono::milliseconds timeout) const;
    // Descriptors of the connected clients, earliest first.
    std::vector<int> clientSockets() const;
    // Calls shutdown() and returns true when no client is connected; false otherwise.
    bool shutdownIfNoClients();
    // Ends the connection of that connected client; its reader tears it down. Does nothing for a
    // descriptor that is not a connected client of this endpoint.
    void disconnectClient(int socket);

    // --- Client ---
    // connectOnNewThread(true).
    bool connect();
    // Connects to the path and runs the reader on a new thread (true) or on the calling thread
    // until the connection ends (false). False when the connect fails, the path is refused, or
    // the endpoint is already connected, shut down or a server.
    bool connectOnNewThread(bool runOnNewThread);

    // --- Both ---
    // Stops the endpoint: a server ends its loop and closes its clients, a client closes its
    // connection; every waiting sender returns nothing. Later calls do nothing.
    void shutdown();
    // Blocks until every thread this endpoint started has ended; false when timeout passes first.
    bool waitForThreads(std::chrono::milliseconds timeout) const;

    // The send primitive. With a reply id it sends that reply and never waits; with getReply it
    // waits for the answer and returns its "content"; otherwise returns nothing once written.
    // Nothing also when toSocket is not an open connection of this endpoint, data is neither
    // nothing nor an object, the write fails, or the wait ends without an answer.
    std::optional<nlohmann::json> sendMessage(const std::string& command,
                                              const std::optional<nlohmann::json>& data,
                                              const std::optional<std::string>& replyId,
                                              bool getReply, int toSocket);
    // Server: request to the earliest connected client, waiting for its answer; nothing at once
    // in client mode or without clients.
    std::optional<nlohmann::json> sendMessageToFirstClient(const std::string& command,
                                                           const nlohmann::json& data);
    // Receives the answer to a request sent without waiting: its "content", or nothing.
    using AnswerHandler = std::function<void(std::optional<nlohmann::json> answer)>;
    // Server: the same request, without waiting for the answer: answered is called exactly once,
    // with the answer's content when it arrives (on the thread that reads it), or with nothing
    // when the request cannot be sent now (no client, the client's socket is full: then on the
    // calling thread, before this returns), its connection ends or the endpoint shuts down.
    // Never waits for a client that does not read: it is not tried while a send to that client
    // waits for room, and a frame it has started is finished within frameWriteTimeout. An
    // exception from answered is dropped.
    void sendMessageToFirstClient(const std::string& command, const nlohmann::json& data,
                                  AnswerHandler answered);
    // Client: request on the connection, waiting for its answer; nothing when not connected.
    std::optional<nlohmann::json> sendMessage(const std::string& command, const nlohmann::json& data);
    // Client: one-way message on the connection.
    void sendMessageAndDontWait(const std::string& command, const nlohmann::json& data);

    // The reader loop of one connection; takes over the descriptor and closes it at the end.
    // Frames on it are read with getMessage()'s rules (length bytes that the peer wrote apart
    // end the connection), through one buffer per connection that keeps bytes which arrived
    // beyond a frame for the next one, whichever thread holds the read token.
    void processMessages(int socket);
    // Reads one frame from the descriptor, without reading past it; nothing when the connection
    // has ended or the frame is unreadable (zero or too long a length, length bytes split
    // across receive calls, bad JSON, not an object, too deep).
    static std::optional<nlohmann::json> getMessage(int socket);
    // Clears O_NONBLOCK; false when either fcntl call fails.
    static bool setBlocking(int socket);

    // --- Frames on plain inputs ---
    // The frame of an envelope; empty when its body would exceed maximumFrameBodyLength.
    static std::vector<std::uint8_t> frameWithEnvelope(const nlohmann::json& envelope);
    // Writes the frame in pieces of at most transferChunkSize; false at the first failing call.
    static bool writeFrame(const std::vector<std::uint8_t>& frame, const SendCall& send);
    // Reads one frame: 1 marker byte, 4 length bytes in one call, then the body in pieces.
    static std::optional<nlohmann::json> readFrame(const ReceiveCall& receive);
    // "command" a string, "messageid" a string, "content" an object.
    static bool isValidEnvelope(const nlohmann::json& envelope);
    // The id that follows last: last + 1, and 0 after 2147483647.
    static std::int32_t nextMessageId(std::int32_t last);

    // --- Properties ---
    std::shared_ptr<QBLumentideIPCDelegate> delegate() const;
    void setDelegate(const std::shared_ptr<QBLumentideIPCDelegate>& delegate);
    std::shared_ptr<QBLumentideIPC> selfReference() const;
    void setSelfReference(std::shared_ptr<QBLumentideIPC> reference);
    // The id of the last message framed; setting it decides the next id (tests use this).
    std::int32_t lastMessageId() const;
    void setLastMessageId(std::int32_t value);
    std::int32_t mode() const { return mode_.load(); }
    std::int32_t socketState() const { return socketState_.load(); }
    const std::string& socketPath() const { return _path; }
    bool isShutdown() const { return shutdownRequested.load(); }

private:
    struct Connection;
    struct WaitingEntry;
    struct OutgoingFrame;
    class ThreadTracker;

    // Commands that waiting senders read while the delegate is busy wait for it in a queue of
    // at most about this many (one receive call may add a few more); then reading pauses until
    // the reader thread catches up, which bounds what a peer that floods commands can make an
    // endpoint hold.
    static constexpr std::size_t maximumQueuedCommands = 64;
    // How long the reader thread of a connection may stay off it after the last waiting
    // sender has left. Under a stream of requests it so stays away instead of being woken and
    // pushed aside again each round trip; a command that the peer sends while nobody reads
    // waits this long at worst.
    static constexpr std::chrono::milliseconds readerResumeDelay{2};

    bool startTrackedThread(std::function<void(QBLumentideIPC&)> job);
    bool obtainListeningSocket();
    bool createWakePipe();
    void runAcceptLoop();
    void serveClient(int client);
    bool takeClientSlot(uid_t user);
    void releaseClientSlot(uid_t user);
    void noteRefusedClient();
    void pauseAfterFailedAccept();
    void tearDownServer();
    void releaseListeningSocket();
    void closeWakePipe();

    std::optional<nlohmann::json> transmit(const std::string& command, const nlohmann::json& content,
                                           const std::string* replyId, bool getReply, int toSocket);
    std::shared_ptr<Connection> openConnection(int socket) const;
    static bool writeWithinBound(Connection& connection, const std::string& bytes);
    static bool writeIfRoom(Connection& connection, const std::string& bytes);
    void enlistWaiter(WaitingEntry& entry);
    std::optional<nlohmann::json> awaitReply(const std::string& messageId, WaitingEntry& entry);
    bool mayLead(const Connection& connection) const;
    void lead(WaitingEntry& entry, std::unique_lock<std::mutex>& guard);
    static void handOff(Connection& connection);
    static void markEnded(Connection& connection);
    void forgetWaitingEntry(const std::string& messageId);
    void abandonWaiters();
    void notifyClientWaiters() const;
    // Takes out of waitingMessages the entries with an answer handler that match, and calls each
    // handler with nothing, after the lock is released.
    void abandonHandlers(const std::function<bool(const WaitingEntry&)>& matches);
    void abandonHandler(const std::string& messageId);
    static void deliver(const AnswerHandler& handler, std::optional<nlohmann::json> answer);

    std::shared_ptr<Connection> connectionForReader(int socket);
    bool enterReaderLoop(const std::shared_ptr<Connection>& connection);
    void notifyDelegate(void (QBLumentideIPCDelegate::*notification)(QBLumentideIPC&));
    void runReader(Connection& connection);
    bool receiveFrames(Connection& connection, bool waitForInput);
    void handleEnvelope(nlohmann::json& envelope, Connection& connection);
    void handleCommand(nlohmann::json envelope, int socket);
    void matchReply(nlohmann::json& envelope, Connection& readingOn);
    void endConnection(Connection& connection);

    const std::string _path;
    const bool useLaunchdSocket;

    std::atomic<int> _socket{-1};
    std::atomic<std::int32_t> socketState_{0};
    std::atomic<std::int32_t> mode_{clientMode};
    std::atomic<bool> shutdownRequested{false};
    std::atomic<bool> serverLoopStarted{false};

    // Guards lastMessageId_ and clientConnection, and the removal of a connection from the
    // places where senders look it up. Held only briefly, never while writing.
    mutable std::mutex endpointLock;
    std::int32_t lastMessageId_ = 0;
    std::shared_ptr<Connection> clientConnection;  // client mode: the connection of _socket

    // Accept loop thread only: when the last refusal was logged.
    std::optional<std::chrono::steady_clock::time_point> lastRefusalLogged;

    // Guards activeConnections (server mode: the connected clients, in the order they connected)
    // and the slot counts: clients whose reader threads run (or are starting), in all and by the
    // user id of their peer credentials (users without a client have no entry); see
    // maximumClients and maximumClientsPerUser.
    mutable std::mutex clientsLock;
    std::vector<std::shared_ptr<Connection>> activeConnections;
    int servedClients = 0;
    std::map<uid_t, int> servedClientsByUser;

    // Client mode: held to shut down _socket while it is open and by the reader when it gives
    // _socket up, so that shutdown() never touches a descriptor that was closed.
    std::mutex socketLock;

    // Guards waitingMessages: requests whose senders wait, by message id.
    std::mutex waitingLock;
    std::map<std::string, std::shared_ptr<WaitingEntry>> waitingMessages;

    // Guards messageReplies: answers that arrived and are not yet collected, by message id.
    std::mutex repliesLock;
    std::map<std::string, nlohmann::json> messageReplies;

    // Guards nothing but the waits of waitForClients: clientArrivals counts connections that
    // joined the client list, and every arrival and the shutdown notify clientsArrived. A leaf
    // lock: no other lock is taken while it is held.
    mutable std::mutex clientWaitLock;
    mutable std::condition_variable clientsArrived;
    std::atomic<std::uint64_t> clientArrivals{0};

    // Guards wakePipe, so that the wake byte is only written into the pipe while it is open.
    std::mutex wakeLock;
    int wakePipe[2] = {-1, -1};

    mutable std::mutex delegateLock;  // guards _delegate
    std::weak_ptr<QBLumentideIPCDelegate> _delegate;

    mutable std::mutex selfLock;  // guards _selfReference
    std::shared_ptr<QBLumentideIPC> _selfReference;

    std::shared_ptr<ThreadTracker> threads;
};
