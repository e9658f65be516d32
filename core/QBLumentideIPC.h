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
// Each connection has one reader thread, which hands the commands that arrive to the delegate,
// one at a time in order of arrival, and writes their replies in that order. A sender that
// waits for an answer may read the connection itself meanwhile (see ReadToken in
// QBLumentideIPCConnection.h), so its answer wakes it directly.
//
// Invariants:
//  - Every client descriptor is closed exactly once, by endConnection (QBLumentideIPCReceive.cpp).
//  - Sends on one connection are serialised by its write lock, held from taking the message id
//    to the last byte written: frames never interleave and ids leave in the order they are
//    made. A write waits for room at most frameWriteTimeout; a peer that takes nothing for that
//    long loses its connection. So a client that does not read holds up only its own senders.
//  - A sender that waits for a reply returns nothing as soon as the endpoint shuts down or the
//    connection that carries its request ends; a reply that arrived first still wins.
//  - The shutdown flag is set once (atomic exchange); the rest of shutdown() runs once.
//  - Answer handlers and delegate operations run with no lock of the endpoint held.
//
// Threads: any thread may call any public operation. Every thread the endpoint starts holds a
// shared_ptr to it, so an endpoint lives until its last thread ends; waitForThreads() lets an
// owner (tests, an orderly exit) wait for that moment. Delegate operations run on reader threads;
// a delegate may itself send a request and wait for its answer. Each mutex names, where it is
// declared, the fields it guards and the locks that come before it; no lock is held while
// waiting for a reply or while blocked in poll() or a read, and only a connection's own
// writeLock while a frame is written to it, a wait bounded by frameWriteTimeout.
//
//   auto ipc = QBLumentideIPC::initWithSocketPath("/run/example.socket", false);
//   ipc->startServerOnThread();
//   if (ipc->clientCount() > 0) {
//       auto answer = ipc->sendMessageToFirstClient("serviceCmd", {{"command", "example"}});
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
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "QBMutex.h"

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
    // Frames on it are read with readFrame()'s rules (length bytes that the peer wrote apart end
    // the connection), through one buffer per connection that keeps bytes which arrived beyond
    // a frame for the next one, whichever thread holds the read token.
    void processMessages(int socket);
    // Reads one frame from the descriptor, without reading past it; nothing when the connection
    // has ended or the frame is unreadable (zero or too long a length, length bytes split
    // across receive calls, bad JSON, not an object, too deep).
    static std::optional<nlohmann::json> getMessage(int socket);
    // Clears O_NONBLOCK; false when either fcntl call fails.
    static bool setBlocking(int socket);

    // --- Frames on plain inputs ---
    // The frame of an envelope; empty when it is not an object or its body would exceed
    // maximumFrameBodyLength.
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
    std::int32_t lastSentMessageId() const;
    void setLastSentMessageId(std::int32_t value);
    std::int32_t mode() const { return _mode.load(); }
    std::int32_t socketState() const { return _socketState.load(); }
    const std::string& socketPath() const { return _path; }
    bool isShutdown() const { return _shutdown.load(); }

private:
    struct Connection;
    struct WaitingEntry;
    class ThreadTracker;
    // How a frame may wait for room in the peer's socket buffer.
    enum class RoomWait {
        bounded,     // up to frameWriteTimeout; then the peer loses its connection
        onlyIfRoom,  // its first bytes are not even tried without room; a frame that has
                     // started is finished within frameWriteTimeout
    };

    // Commands that waiting senders read while the delegate is busy wait for it in a queue of
    // at most about this many (one receive call may add a few more); then reading pauses until
    // the reader thread catches up, which bounds what a peer that floods commands can make an
    // endpoint hold.
    static constexpr std::size_t maximumQueuedCommands = 64;
    // The same bound on the queued commands' frame bodies together: a parsed frame may cost
    // about twice its body (within the value budget), so a connection's queue holds a few MiB at
    // most, however large its commands.
    static constexpr std::size_t maximumQueuedBodyBytes = maximumFrameBodyLength;
    // How long the reader thread of a connection may stay off it after the last waiting
    // sender has left. Under a stream of requests it so stays away instead of being woken and
    // pushed aside again each round trip; a command that the peer sends while nobody reads
    // waits this long at worst.
    static constexpr std::chrono::milliseconds readerResumeDelay{2};

    // What shutdown() leaves to do once its caller lets go of its locks.
    struct Stopped {
        std::shared_ptr<QBLumentideIPC> keepAlive;
        std::vector<AnswerHandler> abandoned;
    };

    // QBLumentideIPC.cpp
    bool startTrackedThread(std::function<void(QBLumentideIPC&)> job, const char* role);
    // Role names of the channel's threads: the server's accept loop, a connection's reader.
    static constexpr const char* acceptRole = "chan-accept";
    static constexpr const char* readerRole = "chan-read";
    Stopped stop() QB_EXCLUDES(waitingLock);
    // Handlers run with none of the endpoint's locks held (the analysis checks the callers).
    void deliverNothing(std::vector<AnswerHandler> handlers) QB_EXCLUDES(clientsLock, waitingLock);
    void notifyClientWaiters() const QB_EXCLUDES(clientWaitLock);

    // QBLumentideIPCServer.cpp
    bool obtainListeningSocket();
    bool createWakePipe() QB_EXCLUDES(wakeLock);
    int wakeReadEnd() QB_EXCLUDES(wakeLock);
    void runAcceptLoop();
    void serveClient(int client);
    bool takeClientSlot(uid_t user) QB_EXCLUDES(clientsLock);
    void releaseClientSlot(uid_t user) QB_EXCLUDES(clientsLock);
    void noteRefusedClient();
    void pauseAfterFailedAccept();
    void tearDownServer() QB_EXCLUDES(clientsLock);
    void releaseListeningSocket();
    void closeWakePipe() QB_EXCLUDES(wakeLock);

    // QBLumentideIPCSend.cpp
    std::optional<nlohmann::json> transmit(const std::string& command, const nlohmann::json& content,
                                           const std::string* replyId, bool getReply, int toSocket);
    std::shared_ptr<Connection> connectionFor(int socket) QB_EXCLUDES(endpointLock);
    std::shared_ptr<Connection> openConnection(int socket) const QB_REQUIRES(endpointLock);
    bool writeMessage(Connection& connection, const std::string& command, const nlohmann::json& content,
                      const std::string* replyId, const std::shared_ptr<WaitingEntry>& entry, RoomWait room,
                      std::string& messageId)
        QB_EXCLUDES(endpointLock, waitingLock);
    static bool writeWithinBound(Connection& connection, const std::uint8_t* bytes, std::size_t size);
    static bool writeIfRoom(Connection& connection, const std::string& bytes);
    std::optional<nlohmann::json> awaitReply(const std::string& messageId, WaitingEntry& entry)
        QB_EXCLUDES(waitingLock, repliesLock);
    bool readAsLeader(Connection& connection);
    AnswerHandler withdraw(const std::string& messageId, WaitingEntry& entry) QB_EXCLUDES(waitingLock);
    std::vector<AnswerHandler> takeHandlers(const Connection* of) QB_EXCLUDES(waitingLock);
    void abandonHandlers(const Connection& of) QB_EXCLUDES(waitingLock);
    void abandonWaiters() QB_EXCLUDES(waitingLock);
    static void deliver(const AnswerHandler& handler, std::optional<nlohmann::json> answer);

    // QBLumentideIPCReceive.cpp
    std::shared_ptr<Connection> connectionForReader(int socket) QB_EXCLUDES(endpointLock);
    bool enterReaderLoop(const std::shared_ptr<Connection>& connection) QB_EXCLUDES(clientsLock);
    void notifyDelegate(void (QBLumentideIPCDelegate::*notification)(QBLumentideIPC&));
    void runReader(Connection& connection);
    bool receiveFrames(Connection& connection, bool waitForInput);
    void handleEnvelope(nlohmann::json& envelope, std::size_t bodySize, Connection& connection);
    void handleCommand(nlohmann::json envelope, int socket);
    void sendReply(const std::string& replyId, const nlohmann::json& content, int socket) QB_EXCLUDES(endpointLock);
    void matchReply(nlohmann::json& envelope, Connection& readingOn) QB_EXCLUDES(waitingLock);
    void endConnection(Connection& connection) QB_EXCLUDES(endpointLock, clientsLock, socketLock);

    const std::string _path;
    const bool useLaunchdSocket;

    std::atomic<int> _socket{-1};
    std::atomic<std::int32_t> _socketState{0};
    std::atomic<std::int32_t> _mode{clientMode};
    std::atomic<bool> _shutdown{false};
    std::atomic<bool> serverLoopStarted{false};

    // Lock order, outermost first: a connection's writeLock, endpointLock, clientsLock,
    // socketLock, waitingLock, repliesLock, a connection's lock. The others are leaves.

    // Also guards the removal of a connection from the places where senders look it up, so a
    // descriptor found under it is still open. Held only briefly, never while writing.
    mutable QBMutex endpointLock;
    std::int32_t lastMessageId QB_GUARDED_BY(endpointLock) = 0;
    std::shared_ptr<Connection> clientConnection QB_GUARDED_BY(endpointLock);  // client mode: the one of _socket

    // Server mode: the connected clients, in the order they connected, and the slots of the
    // clients whose reader threads run (or are starting), in all and by the user id of their
    // peer credentials (users without a client have no entry); see maximumClients and
    // maximumClientsPerUser.
    mutable QBMutex clientsLock QB_ACQUIRED_AFTER(endpointLock);
    std::vector<std::shared_ptr<Connection>> activeSockets QB_GUARDED_BY(clientsLock);
    int servedClients QB_GUARDED_BY(clientsLock) = 0;
    std::map<uid_t, int> servedClientsByUser QB_GUARDED_BY(clientsLock);

    // Client mode: held to shut down _socket while it is open and by the reader when it gives
    // _socket up, so that shutdown() never touches a descriptor that was closed.
    QBMutex socketLock QB_ACQUIRED_AFTER(clientsLock);

    // Requests whose senders wait (or whose handlers do), by message id.
    QBMutex waitingLock QB_ACQUIRED_AFTER(socketLock);
    std::map<std::string, std::shared_ptr<WaitingEntry>> waitingMessages QB_GUARDED_BY(waitingLock);

    // Answers that arrived and are not yet collected, by message id.
    QBMutex repliesLock QB_ACQUIRED_AFTER(waitingLock);
    std::map<std::string, nlohmann::json> messageReplies QB_GUARDED_BY(repliesLock);

    // A leaf, for the waits of waitForClients only: clientArrivals counts connections that
    // joined the client list, and every arrival and the shutdown notify clientsArrived.
    mutable QBMutex clientWaitLock;
    mutable std::condition_variable clientsArrived;
    std::atomic<std::uint64_t> clientArrivals{0};

    // A leaf: the wake byte is only written into the pipe while it is open.
    QBMutex wakeLock;
    int wakePipe[2] QB_GUARDED_BY(wakeLock) = {-1, -1};

    mutable QBMutex delegateLock;  // a leaf
    std::weak_ptr<QBLumentideIPCDelegate> _delegate QB_GUARDED_BY(delegateLock);

    mutable QBMutex selfLock;  // a leaf
    std::shared_ptr<QBLumentideIPC> _selfReference QB_GUARDED_BY(selfLock);

    // Accept loop thread only: when the last refusal was logged.
    std::optional<std::chrono::steady_clock::time_point> lastRefusalLogged;

    std::shared_ptr<ThreadTracker> threads;
};
