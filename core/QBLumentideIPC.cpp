#include "QBLumentideIPC.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <set>
#include <span>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/QBLog.h"

using nlohmann::json;

void QBLumentideIPCDelegate::clientConnected(QBLumentideIPC&) {}
void QBLumentideIPCDelegate::clientDisconnected(QBLumentideIPC&) {}

// The frame of the message being sent on a connection, written into one buffer that every send
// on it reuses, by one serializer that lives as long as the connection: building an envelope
// object and dumping it into a fresh string costs several times as much. Guarded by the
// connection's writeLock.
struct QBLumentideIPC::OutgoingFrame {
    std::string bytes;
    nlohmann::detail::serializer<json> writer{nlohmann::detail::output_adapter<char>(bytes), ' ',
                                              json::error_handler_t::replace};

    // False when the body would exceed maximumFrameBodyLength. The keys come in the order in
    // which the library writes an envelope object, so frameWithEnvelope gives the same bytes.
    bool encode(const std::string& command, const std::string& messageId, const json& content,
                const std::string* replyId) {
        bytes.assign(5, '\0');
        bytes += R"({"command":)";
        appendString(command);
        bytes += R"(,"content":)";
        writer.dump(content, false, false, 0);
        bytes += R"(,"messageid":)";
        appendString(messageId);
        if (replyId) {
            bytes += R"(,"replyid":)";
            appendString(*replyId);
        }
        bytes += '}';
        const std::size_t length = bytes.size() - 5;
        if (length > maximumFrameBodyLength) return false;
        for (std::size_t i = 0; i < 4; ++i) bytes[1 + i] = static_cast<char>((length >> (8 * i)) & 0xFF);
        return true;
    }

    // A long frame made the buffer grow; an idle connection does not keep that much.
    void release() {
        if (bytes.capacity() > retainedSize) std::string().swap(bytes);
    }
    static constexpr std::size_t retainedSize = 64 * 1024;

    // Names and ids are mostly printable ASCII that needs no escaping, and are then copied as
    // they are; anything else goes through the serializer.
    void appendString(const std::string& text) {
        const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
            const auto u = static_cast<unsigned char>(c);
            return u >= 0x20 && u < 0x7F && u != '"' && u != '\\';
        });
        if (!plain) {
            writer.dump(json(text), false, false, 0);
            return;
        }
        bytes += '"';
        bytes += text;
        bytes += '"';
    }
};

// Counts the endpoint's running threads. Shared by the endpoint and its threads, so that a
// thread can report its end after it has let go of the endpoint.
class QBLumentideIPC::ThreadTracker {
public:
    void starting() {
        std::lock_guard guard(lock);
        ++running;
    }
    void ended() {
        std::lock_guard guard(lock);
        if (--running == 0) allEnded.notify_all();
    }
    bool waitUntilNone(std::chrono::milliseconds timeout) {
        std::unique_lock guard(lock);
        return allEnded.wait_for(guard, timeout, [&] { return running == 0; });
    }

private:
    std::mutex lock;  // guards running; leaf lock
    std::condition_variable allEnded;
    int running = 0;
};

namespace {

const std::string replyCommand = "reply";

void ignoreSIGPIPE() {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    sigemptyset(&action.sa_mask);
    sigaction(SIGPIPE, &action, nullptr);
}

// The address of a filesystem socket at path; false for a path that the address cannot hold
// whole (empty, too long, or with an embedded NUL that would cut it short).
bool makeAddress(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() > QBLumentideIPC::maximumSocketPathLength) return false;
    if (path.find('\0') != std::string::npos) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

std::string compactJSON(const json& value) {
    // Invalid UTF-8 in a string is replaced rather than thrown about.
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

// What the socket takes now, without waiting: -1 with EAGAIN when it has no room.
std::ptrdiff_t sendNow(int socket, const std::uint8_t* bytes, std::size_t length) {
    for (;;) {
        const ssize_t sent = ::send(socket, bytes, length, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno == EINTR) continue;
        return sent;
    }
}

std::ptrdiff_t receiveSome(int socket, std::uint8_t* bytes, std::size_t length) {
    for (;;) {
        const ssize_t received = ::recv(socket, bytes, length, 0);
        if (received < 0 && errno == EINTR) continue;
        return received;
    }
}

// What has arrived, without waiting: -1 with EAGAIN when nothing has.
std::ptrdiff_t receiveNow(int socket, std::uint8_t* bytes, std::size_t length) {
    for (;;) {
        const ssize_t received = ::recv(socket, bytes, length, MSG_DONTWAIT);
        if (received < 0 && errno == EINTR) continue;
        return received;
    }
}

// The same, waiting until input (or the end of the connection) arrives; also on a socket that
// was left non-blocking.
std::ptrdiff_t receiveWaiting(int socket, std::uint8_t* bytes, std::size_t length) {
    for (;;) {
        const ssize_t received = ::recv(socket, bytes, length, 0);
        if (received >= 0) return received;
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
        pollfd input{socket, POLLIN, 0};
        if (::poll(&input, 1, -1) < 0 && errno != EINTR) return -1;
    }
}

// A parse that builds nothing: it checks that a body is valid JSON within the nesting and value
// limits before a tree is built from it, so that what a tree costs is bounded by the frame's
// size and maximumValuesPerFrame. Stops at the first value over a limit.
class BodyCheck {
public:
    bool null() { return counted(); }
    bool boolean(bool) { return counted(); }
    bool number_integer(json::number_integer_t) { return counted(); }
    bool number_unsigned(json::number_unsigned_t) { return counted(); }
    bool number_float(json::number_float_t, const json::string_t&) { return counted(); }
    bool string(json::string_t&) { return counted(); }
    bool binary(json::binary_t&) { return counted(); }
    bool key(json::string_t&) { return counted(); }
    bool start_object(std::size_t) { return opened(); }
    bool start_array(std::size_t) { return opened(); }
    bool end_object() { return closed(); }
    bool end_array() { return closed(); }
    bool parse_error(std::size_t, const std::string&, const json::exception&) { return false; }

private:
    bool counted() { return ++values <= QBLumentideIPC::maximumValuesPerFrame; }
    bool opened() { return ++depth <= QBLumentideIPC::maximumNestingDepth && counted(); }
    bool closed() {
        --depth;
        return true;
    }

    std::size_t values = 0;
    int depth = 0;
};

// The envelope in a frame's body; nothing for bad JSON, a top level that is not an object, too
// deep a nesting or too many values.
std::optional<json> decodeEnvelope(std::string_view body) {
    // Every value starts at a byte of its own, and valid JSON spends two bytes per level of
    // nesting, so a body this short is within both limits: most messages skip the check.
    constexpr std::size_t shortBody = std::min(QBLumentideIPC::maximumValuesPerFrame,
                                               2 * static_cast<std::size_t>(QBLumentideIPC::maximumNestingDepth));
    if (body.size() > shortBody) {
        try {
            BodyCheck check;
            if (!json::sax_parse(body.begin(), body.end(), &check)) return std::nullopt;
        } catch (const std::exception&) {
            return std::nullopt;  // the library reports errors to the handler; this is only a guard
        }
    }
    json envelope = json::parse(body.begin(), body.end(), nullptr, false);
    if (envelope.is_discarded() || !envelope.is_object()) return std::nullopt;
    return envelope;
}

// Writes bytes in pieces of at most transferChunkSize; false at the first failing call.
template <typename Send>
bool writeInPieces(const std::uint8_t* bytes, std::size_t size, const Send& send) {
    std::size_t written = 0;
    while (written < size) {
        const std::size_t piece = std::min(size - written, QBLumentideIPC::transferChunkSize);
        const std::ptrdiff_t accepted = send(bytes + written, piece);
        if (accepted <= 0) return false;
        written += static_cast<std::size_t>(accepted);
    }
    return true;
}


// Wakes a thread that waits in poll() on the other end. Writing a counter never blocks (it only
// fails when the counter would overflow, and then the thread is already awake).
void kick(int eventDescriptor) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t ignored = ::write(eventDescriptor, &one, sizeof one);
}

void drainKicks(int eventDescriptor) {
    std::uint64_t count;
    [[maybe_unused]] const ssize_t ignored = ::read(eventDescriptor, &count, sizeof count);
}

// The frames of one connection, put together from what successive receive calls return, with
// the rules of readFrame: the marker may be any byte, the four length bytes must arrive
// together, the body may come in pieces. Bytes that arrive beyond a frame stay for the next one.
// A body is handed out as a view into the buffer, so it is parsed where it was received.
class InboundFrames {
public:
    enum class Step {
        frame,      // body holds the next frame's body
        needInput,  // nothing more without another receive call
        needTopUp,  // one to three length bytes arrived: take what else has come, then decide
        broken,     // zero or too long a length, or length bytes that never came together
    };

    // Where the next receive call writes: up to receiveSize bytes, or the rest of the body in
    // progress when that is more, so that every body ends up in one piece.
    std::span<std::uint8_t> space() {
        if (start == end) {
            start = end = 0;
            // A long body made the buffer grow; do not keep a megabyte per idle connection.
            if (bytes.size() > retainedSize) std::vector<std::uint8_t>(receiveSize).swap(bytes);
        }
        std::size_t wanted = receiveSize;
        if (stage == Stage::body && bodyLength > available()) wanted = std::max(wanted, bodyLength - available());
        if (bytes.size() - end < wanted) {
            std::memmove(bytes.data(), bytes.data() + start, available());
            end -= start;
            start = 0;
            if (bytes.size() - end < wanted) bytes.resize(end + wanted);
        }
        return {bytes.data() + end, wanted};
    }
    void received(std::size_t count) { end += count; }

    // toppedUp: a top-up receive was made since needTopUp was returned.
    Step next(std::string_view& body, bool toppedUp) {
        if (stage == Stage::marker) {
            if (available() == 0) return Step::needInput;
            ++start;  // its value carries no meaning
            stage = Stage::length;
        }
        if (stage == Stage::length) {
            const std::size_t have = available();
            if (have == 0) return Step::needInput;
            if (have < 4) return toppedUp ? Step::broken : Step::needTopUp;
            std::uint32_t length = 0;
            for (int i = 3; i >= 0; --i) length = (length << 8) | bytes[start + static_cast<std::size_t>(i)];
            start += 4;
            if (length == 0 || length > QBLumentideIPC::maximumFrameBodyLength) return Step::broken;
            bodyLength = length;
            stage = Stage::body;
        }
        if (available() < bodyLength) return Step::needInput;
        body = {reinterpret_cast<const char*>(bytes.data() + start), bodyLength};
        start += bodyLength;
        stage = Stage::marker;
        return Step::frame;
    }

private:
    enum class Stage { marker, length, body };
    // One receive call takes what a few typical frames need; fewer calls mean fewer switches
    // into the kernel, the dearest step of a round trip.
    static constexpr std::size_t receiveSize = 4096;
    static constexpr std::size_t retainedSize = 64 * 1024;

    std::size_t available() const { return end - start; }

    std::vector<std::uint8_t> bytes = std::vector<std::uint8_t>(receiveSize);
    std::size_t start = 0;  // first byte not yet taken
    std::size_t end = 0;    // one past the last byte received
    Stage stage = Stage::marker;
    std::size_t bodyLength = 0;
};

}  // namespace

// One open connection. Its frames are read by whoever holds its read token: the connection's
// reader thread, or a sender that waits for an answer to a request sent on it (the leader). A
// sender that reads for itself is woken by its own answer, where a reader thread would have to
// be woken and then wake the sender. Commands that a leader reads go to the reader thread, which
// hands them to the delegate in the order they arrived.
struct QBLumentideIPC::Connection {
    explicit Connection(int socket) : socket(socket), leaderKick(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~Connection() {
        if (leaderKick >= 0) ::close(leaderKick);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    bool isUsable() const { return leaderKick >= 0; }

    const int socket;      // closed by the reader thread, never here
    const int leaderKick;  // wakes a leader out of poll() when its wait ended by other means

    // Guards the fields below and the state of every waiting entry of a request sent on this
    // connection; comes after waitingLock and repliesLock in the lock order.
    std::mutex lock;
    std::condition_variable readerWake;  // the reader thread waits here while senders lead
    bool tokenHeld = false;              // someone reads the socket; only that thread touches input
    bool readerNeedsCall = false;        // the parked reader thread waits to be woken when no sender waits
    bool readerWatching = false;         // the reader thread waits for input (or is about to); nobody leads
    bool ended = false;                  // the connection is over; nobody takes the token again
    std::vector<WaitingEntry*> waiters;  // senders of requests on this connection, until they return
    std::deque<nlohmann::json> commands; // commands read, not yet handed to the delegate, oldest first
    std::thread::id readerThread;        // the thread that runs the reader loop

    // Guarded by the token.
    InboundFrames input;
    std::uint64_t answersRead = 0;  // answers matched to waiting senders

    // Held for a whole send on this connection: from taking the message id to the last byte
    // written, so that frames never interleave and ids leave in the order they are made. Also
    // held to close the descriptor. Comes before endpointLock in the lock order.
    std::mutex writeLock;
    bool closed = false;    // guarded by writeLock: the descriptor is closed, nothing is written
    OutgoingFrame outgoing; // guarded by writeLock
    std::atomic<bool> waitingForRoom{false};  // the writeLock holder waits for the peer to read
};

// A request whose sender waits for its answer. Its flags are guarded by its connection's lock,
// and its condition waits on that lock.
struct QBLumentideIPC::WaitingEntry {
    explicit WaitingEntry(std::shared_ptr<Connection> connection) : connection(std::move(connection)) {}

    const std::shared_ptr<Connection> connection;  // the connection that carries the request
    std::condition_variable condition;
    bool replied = false;    // the answer is in messageReplies
    bool abandoned = false;  // the endpoint shut down
    bool leading = false;    // the sender holds the read token of its connection
    // Set for a request whose sender does not wait: it gets the answer (or nothing) instead. Such
    // an entry is never among its connection's waiters, so the reader thread reads its answer;
    // whoever takes the entry out of waitingMessages calls the handler, so it runs once.
    AnswerHandler answered;
};

// ---------------------------------------------------------------------------------------------
// Creation

std::shared_ptr<QBLumentideIPC> QBLumentideIPC::init() {
    return initWithSocketPath(defaultSocketPath, true);
}

std::shared_ptr<QBLumentideIPC> QBLumentideIPC::initWithSocketPath(const std::string& path,
                                                                   bool useLaunchdSocket) {
    ignoreSIGPIPE();
    auto endpoint = std::make_shared<QBLumentideIPC>(ConstructionKey{}, path, useLaunchdSocket);
    endpoint->setSelfReference(endpoint);
    return endpoint;
}

QBLumentideIPC::QBLumentideIPC(ConstructionKey, std::string path, bool useLaunchdSocket)
    : _path(std::move(path)),
      useLaunchdSocket(useLaunchdSocket),
      threads(std::make_shared<ThreadTracker>()) {}

QBLumentideIPC::~QBLumentideIPC() {
    // Every thread holds the endpoint, so none runs any more. What can remain is a listening
    // socket made by listen() without a server loop; one from the service manager stays open.
    closeWakePipe();
    const int remaining = _socket.load();
    if (remaining >= 0 && !(useLaunchdSocket && serverLoopStarted.load())) ::close(remaining);
}

bool QBLumentideIPC::startTrackedThread(std::function<void(QBLumentideIPC&)> job) {
    struct Start {
        std::shared_ptr<ThreadTracker> tracker;
        std::shared_ptr<QBLumentideIPC> self;
        std::function<void(QBLumentideIPC&)> job;
    };
    auto start = std::make_unique<Start>(Start{threads, shared_from_this(), std::move(job)});
    start->tracker->starting();
    const auto run = [](void* argument) -> void* {
        std::unique_ptr<Start> own(static_cast<Start*>(argument));
        try {
            own->job(*own->self);
        } catch (...) {
            // The thread ends with what it was doing; the endpoint and the process go on.
        }
        const auto tracker = own->tracker;
        own.reset();  // the endpoint may end here, before the thread reports its own end
        tracker->ended();
        return nullptr;
    };
    pthread_attr_t attributes;
    bool started = ::pthread_attr_init(&attributes) == 0;
    if (started) {
        ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        ::pthread_attr_setstacksize(&attributes, threadStackSize);
        pthread_t thread;
        started = ::pthread_create(&thread, &attributes, run, start.get()) == 0;
        ::pthread_attr_destroy(&attributes);
    }
    if (!started) {
        start->tracker->ended();
        return false;
    }
    start.release();  // the thread owns it now
    return true;
}

bool QBLumentideIPC::waitForThreads(std::chrono::milliseconds timeout) const {
    return threads->waitUntilNone(timeout);
}

// ---------------------------------------------------------------------------------------------
// Server

void QBLumentideIPC::startServerOnThread() {
    startTrackedThread([](QBLumentideIPC& endpoint) { endpoint.startServerAndBlock(); });
}

void QBLumentideIPC::startServerAndBlock() {
    if (socketState_.load() == 1 || serverLoopStarted.exchange(true)) return;
    // The loop clears selfReference however it ends, which may drop the last reference while
    // this function still runs; this copy lasts until it returns.
    auto keepAlive = selfReference();
    mode_.store(serverMode);
    if (!obtainListeningSocket()) {
        setSelfReference(nullptr);
        return;
    }
    setBlocking(_socket.load());
    if (!createWakePipe()) {
        QBLog::notice("Failed to create control pipe");
        releaseListeningSocket();
        setSelfReference(nullptr);
        return;
    }
    QBLog::notice("LumentideHelper started");
    runAcceptLoop();
    tearDownServer();
}

bool QBLumentideIPC::obtainListeningSocket() {
    if (useLaunchdSocket) {
        _socket.store(getSocketFromLaunchd());
        if (_socket.load() < 0) {
            QBLog::notice("Failed to get socket from launchd");
            return false;
        }
        return true;
    }
    if (!listen()) {
        QBLog::log("Failed to listen on Unix socket");
        return false;
    }
    return true;
}

bool QBLumentideIPC::listen() {
    sockaddr_un address;
    if (!makeAddress(_path, address)) return false;
    const int listening = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listening < 0) return false;
    ::unlink(_path.c_str());
    if (::bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(listening);
        return false;
    }
    ::chmod(_path.c_str(), socketFileMode);
    if (::listen(listening, listenBacklog) != 0) {
        ::close(listening);
        ::unlink(_path.c_str());
        return false;
    }
    _socket.store(listening);
    return true;
}

// Socket activation stands in for the launchd check-in. Its outcomes map onto the check-in's
// log texts like this:
//
//   outcome of sd_listen_fds_with_names                  check-in text logged
//   -------------------------------------------------    ---------------------------------------
//   (building the request cannot fail)                   "Could not create checkin request": never
//   (there is no request to send)                        "Error checking in": never
//   error (malformed LISTEN_* variables), errno set      "Checkin failed"
//   no descriptors passed                                "Could not get socket dictionary from
//                                                         checkin response"
//   (descriptors always come as named descriptors)       the two "Type mismatch" texts for the
//                                                         dictionary and the array: never
//   descriptors under two or more names                  "Some sockets in dictionary will be
//                                                         ignored" (goes on)
//   no descriptor named "MasterSocket"                   "Could not get file descriptor array"
//   two or more named "MasterSocket" (first one used)    "Some sockets in array will be ignored"
//                                                         (goes on)
//   the first "MasterSocket" is not a listening          "Could not get file descriptor array
//   Unix stream socket                                    entry: Type mismatch"
//
// Passed descriptors are at least 3, so the check-in's negative-descriptor assertion has no
// counterpart. The descriptors that are not used are left open: they belong to the service
// manager's configuration, and socket activation marks them close-on-exec.
int QBLumentideIPC::getSocketFromLaunchd() {
    char** names = nullptr;
    const int count = sd_listen_fds_with_names(1, &names);
    std::vector<std::string> nameList;
    if (names != nullptr) {
        for (int i = 0; i < std::max(count, 0); ++i) {
            nameList.emplace_back(names[i] != nullptr ? names[i] : "");
            std::free(names[i]);
        }
        std::free(names);
    }
    if (count < 0) {
        errno = -count;
        QBLog::log("Checkin failed");
        return -1;
    }
    if (count == 0) {
        QBLog::log("Could not get socket dictionary from checkin response");
        return -1;
    }
    nameList.resize(static_cast<std::size_t>(count), "unknown");
    if (std::set<std::string>(nameList.begin(), nameList.end()).size() >= 2) {
        QBLog::log("Some sockets in dictionary will be ignored");
    }
    std::vector<int> masterSockets;
    for (int i = 0; i < count; ++i) {
        if (nameList[static_cast<std::size_t>(i)] == "MasterSocket") {
            masterSockets.push_back(SD_LISTEN_FDS_START + i);
        }
    }
    if (masterSockets.empty()) {
        QBLog::log("Could not get file descriptor array");
        return -1;
    }
    if (masterSockets.size() >= 2) QBLog::log("Some sockets in array will be ignored");
    const int descriptor = masterSockets.front();
    if (sd_is_socket_unix(descriptor, SOCK_STREAM, 1, nullptr, 0) <= 0) {
        QBLog::log("Could not get file descriptor array entry: Type mismatch");
        return -1;
    }
    return descriptor;
}

bool QBLumentideIPC::createWakePipe() {
    std::lock_guard guard(wakeLock);
    return ::pipe2(wakePipe, O_CLOEXEC) == 0;
}

void QBLumentideIPC::closeWakePipe() {
    std::lock_guard guard(wakeLock);
    for (int& end : wakePipe) {
        if (end >= 0) ::close(end);
        end = -1;
    }
}

void QBLumentideIPC::runAcceptLoop() {
    if (shutdownRequested.load()) return;
    int wakeReadEnd;
    {
        std::lock_guard guard(wakeLock);
        wakeReadEnd = wakePipe[0];
    }
    // poll rather than select: descriptor numbers above FD_SETSIZE stay safe.
    pollfd watched[2] = {{_socket.load(), POLLIN, 0}, {wakeReadEnd, POLLIN, 0}};
    for (;;) {
        const int ready = ::poll(watched, 2, -1);
        if (ready > 0 && (watched[0].revents & (POLLIN | POLLERR | POLLHUP)) != 0) {
            const int client = ::accept4(_socket.load(), nullptr, nullptr, SOCK_CLOEXEC);
            if (client >= 0) {
                if (shutdownRequested.load()) {
                    ::close(client);  // accepted after shutdown was asked for: not served
                    return;
                }
                serveClient(client);
            } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                pauseAfterFailedAccept();
            }
        }
        if (shutdownRequested.load()) return;
    }
}

void QBLumentideIPC::serveClient(int client) {
    // The kernel keeps the credentials of the process that connected; a connection without
    // them cannot be counted against its user and is refused.
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || length != sizeof peer ||
        !takeClientSlot(peer.uid)) {
        ::close(client);
        noteRefusedClient();
        return;
    }
    if (!startTrackedThread([client, user = peer.uid](QBLumentideIPC& endpoint) {
            // The slot is held until the reader thread ends, so that threads and descriptors
            // stay bounded even while connections are being torn down.
            struct Release {
                QBLumentideIPC& endpoint;
                uid_t user;
                ~Release() { endpoint.releaseClientSlot(user); }
            } release{endpoint, user};
            endpoint.processMessages(client);
        })) {
        releaseClientSlot(peer.uid);
        ::close(client);
    }
}

bool QBLumentideIPC::takeClientSlot(uid_t user) {
    std::lock_guard clients(clientsLock);
    const auto held = servedClientsByUser.find(user);
    const int ofUser = held == servedClientsByUser.end() ? 0 : held->second;
    if (servedClients >= maximumClients || ofUser >= maximumClientsPerUser) return false;
    ++servedClients;
    servedClientsByUser[user] = ofUser + 1;
    return true;
}

void QBLumentideIPC::releaseClientSlot(uid_t user) {
    std::lock_guard clients(clientsLock);
    --servedClients;
    const auto held = servedClientsByUser.find(user);
    if (held != servedClientsByUser.end() && --held->second == 0) servedClientsByUser.erase(held);
}

void QBLumentideIPC::noteRefusedClient() {
    // Runs on the accept loop's thread only. A flood of connections logs one line per interval.
    const auto now = std::chrono::steady_clock::now();
    if (lastRefusalLogged && now - *lastRefusalLogged < refusalLogInterval) return;
    lastRefusalLogged = now;
    QBLog::log("Too many clients; connection refused");
}

void QBLumentideIPC::pauseAfterFailedAccept() {
    int wakeReadEnd;
    {
        std::lock_guard guard(wakeLock);
        wakeReadEnd = wakePipe[0];
    }
    pollfd wake{wakeReadEnd, POLLIN, 0};
    ::poll(&wake, 1, static_cast<int>(acceptRetryDelay.count()));
}

void QBLumentideIPC::tearDownServer() {
    {
        // Wake every reader; each one closes its own descriptor and leaves the list.
        std::lock_guard clients(clientsLock);
        for (const auto& client : activeConnections) ::shutdown(client->socket, SHUT_RDWR);
    }
    releaseListeningSocket();
    closeWakePipe();
    setSelfReference(nullptr);
    QBLog::notice("LumentideHelper finished");
}

void QBLumentideIPC::releaseListeningSocket() {
    // A socket from the service manager stays with it, and so does its file.
    if (useLaunchdSocket) return;
    const int listening = _socket.exchange(-1);
    if (listening >= 0) ::close(listening);
    ::unlink(_path.c_str());
}

std::int32_t QBLumentideIPC::clientCount() const {
    std::lock_guard clients(clientsLock);
    return static_cast<std::int32_t>(activeConnections.size());
}

bool QBLumentideIPC::waitForClients(std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        // Read before the count: an arrival after the count was taken changes it, so the wait
        // below cannot miss it.
        const auto seen = clientArrivals.load();
        if (clientCount() > 0) return true;
        if (shutdownRequested.load()) return false;
        std::unique_lock guard(clientWaitLock);
        const bool woken = clientsArrived.wait_until(guard, deadline, [&] {
            return clientArrivals.load() != seen || shutdownRequested.load();
        });
        if (!woken) {
            guard.unlock();
            return clientCount() > 0;
        }
    }
}

void QBLumentideIPC::notifyClientWaiters() const {
    { std::lock_guard guard(clientWaitLock); }
    clientsArrived.notify_all();
}

std::vector<int> QBLumentideIPC::clientSockets() const {
    std::lock_guard clients(clientsLock);
    std::vector<int> sockets;
    sockets.reserve(activeConnections.size());
    for (const auto& client : activeConnections) sockets.push_back(client->socket);
    return sockets;
}

bool QBLumentideIPC::shutdownIfNoClients() {
    std::lock_guard clients(clientsLock);
    if (!activeConnections.empty()) return false;
    shutdown();
    return true;
}

void QBLumentideIPC::disconnectClient(int socket) {
    // Under the endpoint lock the descriptor is still open: a connection leaves the client list
    // under it before its descriptor is closed.
    std::lock_guard endpoint(endpointLock);
    if (openConnection(socket)) ::shutdown(socket, SHUT_RDWR);
}

// ---------------------------------------------------------------------------------------------
// Client

bool QBLumentideIPC::connect() { return connectOnNewThread(true); }

bool QBLumentideIPC::connectOnNewThread(bool runOnNewThread) {
    if (shutdownRequested.load() || serverLoopStarted.load() || socketState_.load() == 1) return false;
    sockaddr_un address;
    if (!makeAddress(_path, address)) {
        QBLog::log("Failed to connect to Unix socket");
        return false;
    }
    const int connection = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connection < 0) return false;
    setBlocking(connection);
    if (::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        QBLog::log("Failed to connect to Unix socket");
        ::close(connection);
        return false;
    }
    auto state = std::make_shared<Connection>(connection);
    if (!state->isUsable()) {
        ::close(connection);
        return false;
    }
    {
        std::lock_guard endpoint(endpointLock);
        std::lock_guard socketGuard(socketLock);
        _socket.store(connection);
        socketState_.store(1);
        clientConnection = state;
    }
    if (!runOnNewThread) {
        processMessages(connection);
        return true;
    }
    if (startTrackedThread([connection](QBLumentideIPC& endpoint) { endpoint.processMessages(connection); })) {
        return true;
    }
    endConnection(*state);
    return false;
}

// ---------------------------------------------------------------------------------------------
// Shutdown

void QBLumentideIPC::shutdown() {
    if (shutdownRequested.exchange(true)) return;
    std::shared_ptr<QBLumentideIPC> keepAlive;  // let go of the endpoint only on the way out
    if (mode_.load() == serverMode) {
        std::lock_guard guard(wakeLock);
        if (wakePipe[1] >= 0) {
            const std::uint8_t wakeByte = 0;
            [[maybe_unused]] const ssize_t ignored = ::write(wakePipe[1], &wakeByte, 1);
        }
    } else {
        {
            std::lock_guard socketGuard(socketLock);
            // Only a connected client's descriptor; its reader closes it.
            const int connection = _socket.load();
            if (socketState_.load() == 1 && connection >= 0) ::shutdown(connection, SHUT_RDWR);
            socketState_.store(0);
        }
        keepAlive = selfReference();
        setSelfReference(nullptr);
    }
    notifyClientWaiters();
    abandonWaiters();
}

void QBLumentideIPC::abandonHandlers(const std::function<bool(const WaitingEntry&)>& matches) {
    std::vector<AnswerHandler> handlers;
    {
        std::lock_guard waiting(waitingLock);
        for (auto entry = waitingMessages.begin(); entry != waitingMessages.end();) {
            if (entry->second->answered && matches(*entry->second)) {
                handlers.push_back(std::move(entry->second->answered));
                entry = waitingMessages.erase(entry);
            } else {
                ++entry;
            }
        }
    }
    for (const auto& handler : handlers) deliver(handler, std::nullopt);
}

void QBLumentideIPC::abandonWaiters() {
    abandonHandlers([](const WaitingEntry&) { return true; });
    std::lock_guard waiting(waitingLock);
    for (const auto& [id, entry] : waitingMessages) {
        Connection& connection = *entry->connection;
        bool leading;
        {
            std::lock_guard guard(connection.lock);
            entry->abandoned = true;
            leading = entry->leading;
        }
        if (leading) kick(connection.leaderKick);
        entry->condition.notify_one();
    }
}

// ---------------------------------------------------------------------------------------------
// Sending

std::optional<json> QBLumentideIPC::sendMessageToFirstClient(const std::string& command,
                                                             const json& data) {
    if (mode_.load() != serverMode) return std::nullopt;
    int first;
    {
        std::lock_guard clients(clientsLock);
        if (activeConnections.empty()) return std::nullopt;
        first = activeConnections.front()->socket;
    }
    return transmit(command, data, nullptr, true, first);
}

void QBLumentideIPC::sendMessageToFirstClient(const std::string& command, const json& data,
                                              AnswerHandler answered) {
    int first = -1;
    if (mode_.load() == serverMode && data.is_object()) {
        std::lock_guard clients(clientsLock);
        if (!activeConnections.empty()) first = activeConnections.front()->socket;
    }
    std::shared_ptr<Connection> connection;
    if (first >= 0) {
        std::lock_guard endpoint(endpointLock);
        connection = openConnection(first);
    }
    std::string messageId;
    bool registered = false;
    bool written = false;
    // A send that waits for room holds the write lock for up to frameWriteTimeout; a client
    // that makes senders wait is not reading now, so this request is not even tried.
    if (connection && !connection->waitingForRoom.load()) {
        std::lock_guard writing(connection->writeLock);
        if (!connection->closed) {
            {
                std::lock_guard endpoint(endpointLock);
                lastMessageId_ = nextMessageId(lastMessageId_);
                messageId = std::to_string(lastMessageId_);
            }
            registered = connection->outgoing.encode(command, messageId, data, nullptr);
        }
        if (registered) {
            // Registered before the first byte leaves, so that no answer can come too early.
            auto entry = std::make_shared<WaitingEntry>(connection);
            entry->answered = std::move(answered);
            {
                std::lock_guard waiting(waitingLock);
                waitingMessages[messageId] = entry;
            }
            written = writeIfRoom(*connection, connection->outgoing.bytes);
        }
        connection->outgoing.release();
    }
    // The handler is called with no lock held.
    if (!registered) {
        deliver(answered, std::nullopt);
    } else if (!written) {
        abandonHandler(messageId);
    }
}

void QBLumentideIPC::deliver(const AnswerHandler& handler, std::optional<json> answer) {
    try {
        handler(std::move(answer));
    } catch (...) {
        // A handler that fails loses its answer; the thread that delivers it (a connection's
        // reader, or one tearing a connection down) goes on.
    }
}

void QBLumentideIPC::abandonHandler(const std::string& messageId) {
    AnswerHandler handler;
    {
        std::lock_guard waiting(waitingLock);
        const auto found = waitingMessages.find(messageId);
        if (found == waitingMessages.end() || !found->second->answered) return;
        handler = std::move(found->second->answered);
        waitingMessages.erase(found);
    }
    deliver(handler, std::nullopt);
}

std::optional<json> QBLumentideIPC::sendMessage(const std::string& command, const json& data) {
    return transmit(command, data, nullptr, true, _socket.load());
}

void QBLumentideIPC::sendMessageAndDontWait(const std::string& command, const json& data) {
    transmit(command, data, nullptr, false, _socket.load());
}

std::optional<json> QBLumentideIPC::sendMessage(const std::string& command,
                                                const std::optional<json>& data,
                                                const std::optional<std::string>& replyId,
                                                bool getReply, int toSocket) {
    static const json emptyContent = json::object();
    const json& content = data && !data->is_null() ? *data : emptyContent;
    return transmit(command, content, replyId ? &*replyId : nullptr, getReply, toSocket);
}

std::optional<json> QBLumentideIPC::transmit(const std::string& command, const json& content,
                                             const std::string* replyId, bool getReply, int toSocket) {
    if (!content.is_object()) return std::nullopt;
    if (replyId) getReply = false;

    std::shared_ptr<Connection> connection;
    {
        std::lock_guard endpoint(endpointLock);
        connection = openConnection(toSocket);
    }
    if (!connection) return std::nullopt;

    std::shared_ptr<WaitingEntry> entry;
    std::string messageId;
    bool written;
    {
        // Only this connection's senders wait here: a peer that does not read holds up no one
        // else, and no longer than frameWriteTimeout.
        std::lock_guard writing(connection->writeLock);
        if (connection->closed) return std::nullopt;
        {
            std::lock_guard endpoint(endpointLock);
            lastMessageId_ = nextMessageId(lastMessageId_);
            messageId = std::to_string(lastMessageId_);
        }
        const bool framed = connection->outgoing.encode(command, messageId, content, replyId);
        if (getReply && framed) {
            // Registered before the first byte leaves, so that no answer can come too early.
            entry = std::make_shared<WaitingEntry>(connection);
            std::lock_guard waiting(waitingLock);
            waitingMessages[messageId] = entry;
        }
        written = framed && writeWithinBound(*connection, connection->outgoing.bytes);
        connection->outgoing.release();
    }
    if (!written) {
        if (entry) forgetWaitingEntry(messageId);
        return std::nullopt;
    }
    if (!entry) return std::nullopt;
    // Only once the request is out: a sender whose write blocks must not keep the reader
    // thread off a connection that the peer may be waiting for us to read.
    enlistWaiter(*entry);
    return awaitReply(messageId, *entry);
}

std::shared_ptr<QBLumentideIPC::Connection> QBLumentideIPC::openConnection(int socket) const {
    // Called with endpointLock held; a connection leaves the places checked here under that
    // lock, before its descriptor is closed (under its writeLock).
    if (socket < 0) return nullptr;
    if (mode_.load() == serverMode) {
        std::lock_guard clients(clientsLock);
        for (const auto& client : activeConnections) {
            if (client->socket == socket) return client;
        }
        return nullptr;
    }
    if (socketState_.load() != 1 || _socket.load() != socket) return nullptr;
    return clientConnection && clientConnection->socket == socket ? clientConnection : nullptr;
}

bool QBLumentideIPC::writeWithinBound(Connection& connection, const std::string& bytes) {
    const int socket = connection.socket;
    const auto deadline = std::chrono::steady_clock::now() + frameWriteTimeout;
    const bool written = writeInPieces(
        reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(),
        [&](const std::uint8_t* piece, std::size_t length) -> std::ptrdiff_t {
            for (;;) {
                const std::ptrdiff_t sent = sendNow(socket, piece, length);
                if (sent >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return sent;
                const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now());
                pollfd room{socket, POLLOUT, 0};
                connection.waitingForRoom.store(true);
                const bool timedOut = left.count() <= 0 || ::poll(&room, 1, static_cast<int>(left.count()) + 1) == 0;
                connection.waitingForRoom.store(false);
                if (timedOut) {
                    errno = ETIMEDOUT;
                    return -1;
                }
            }
        });
    // A peer that takes nothing for so long is not reading: end its connection (its reader
    // tears it down, and every sender waiting on it gets nothing).
    if (!written && errno == ETIMEDOUT) ::shutdown(socket, SHUT_RDWR);
    return written;
}

bool QBLumentideIPC::writeIfRoom(Connection& connection, const std::string& bytes) {
    // A frame that has started must be finished, so only its first bytes may be refused.
    const std::ptrdiff_t sent =
        sendNow(connection.socket, reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    if (sent <= 0) return false;
    const auto rest = static_cast<std::size_t>(sent);
    return rest == bytes.size() || writeWithinBound(connection, bytes.substr(rest));
}

void QBLumentideIPC::enlistWaiter(WaitingEntry& entry) {
    Connection& connection = *entry.connection;
    std::lock_guard guard(connection.lock);
    connection.waiters.push_back(&entry);
}

std::optional<json> QBLumentideIPC::awaitReply(const std::string& messageId, WaitingEntry& entry) {
    Connection& connection = *entry.connection;
    bool replied;
    {
        std::unique_lock guard(connection.lock);
        for (;;) {
            if (entry.replied || entry.abandoned || connection.ended || shutdownRequested.load()) break;
            if (mayLead(connection)) {
                lead(entry, guard);
            } else {
                entry.condition.wait(guard);
            }
        }
        replied = entry.replied && !shutdownRequested.load();
        std::erase(connection.waiters, &entry);
        handOff(connection);
    }
    // Out of the waiting list first: a late duplicate can then no longer be stored.
    std::lock_guard waiting(waitingLock);
    waitingMessages.erase(messageId);
    std::lock_guard replies(repliesLock);
    const auto stored = messageReplies.find(messageId);
    if (stored == messageReplies.end()) return std::nullopt;
    json content = std::move(stored->second);
    messageReplies.erase(stored);
    if (!replied) return std::nullopt;
    return content;
}

bool QBLumentideIPC::mayLead(const Connection& connection) const {
    // Not while the reader thread watches the socket: it will read what comes (and then step
    // aside). A full command queue pauses reading until the reader thread catches up, as a busy
    // reader thread did; its own requests (a delegate that asks something) may always read on.
    return !connection.tokenHeld && !connection.readerWatching &&
           (connection.commands.size() < maximumQueuedCommands || connection.readerThread == std::this_thread::get_id());
}

void QBLumentideIPC::lead(WaitingEntry& entry, std::unique_lock<std::mutex>& guard) {
    Connection& connection = *entry.connection;
    connection.tokenHeld = true;
    entry.leading = true;
    guard.unlock();
    // Each descriptor watched costs a wait-queue entry made and removed per call. A client
    // endpoint has one connection, so no answer can come on another, and its shutdown shuts
    // the socket down: the socket alone wakes its leaders in every case.
    pollfd watched[2] = {{connection.socket, POLLIN, 0}, {connection.leaderKick, POLLIN, 0}};
    const int ready = ::poll(watched, mode_.load() == serverMode ? 2 : 1, -1);
    if (ready > 0 && watched[1].revents != 0) drainKicks(connection.leaderKick);
    const bool open = ready <= 0 || watched[0].revents == 0 || receiveFrames(connection, false);
    guard.lock();
    connection.tokenHeld = false;
    entry.leading = false;
    if (!open) markEnded(connection);
}

void QBLumentideIPC::handOff(Connection& connection) {
    // Called with the connection's lock held whenever the token may have become free.
    if (connection.ended) {
        for (WaitingEntry* waiter : connection.waiters) waiter->condition.notify_one();
        connection.readerWake.notify_one();
        return;
    }
    if (connection.tokenHeld) return;
    for (WaitingEntry* waiter : connection.waiters) {
        if (!waiter->replied && !waiter->abandoned) {
            waiter->condition.notify_one();  // the next leader
            return;
        }
    }
    if (connection.waiters.empty() && connection.readerNeedsCall) connection.readerWake.notify_one();
}

void QBLumentideIPC::markEnded(Connection& connection) {
    connection.ended = true;
    handOff(connection);
}

void QBLumentideIPC::forgetWaitingEntry(const std::string& messageId) {
    std::lock_guard waiting(waitingLock);
    waitingMessages.erase(messageId);
}

// ---------------------------------------------------------------------------------------------
// Reading

void QBLumentideIPC::processMessages(int socket) {
    const std::shared_ptr<Connection> connection = connectionForReader(socket);
    const bool served = enterReaderLoop(connection);
    if (served) {
        notifyDelegate(&QBLumentideIPCDelegate::clientConnected);
        setBlocking(socket);
        runReader(*connection);
    }
    endConnection(*connection);
    if (mode_.load() != serverMode) shutdown();
    if (served) notifyDelegate(&QBLumentideIPCDelegate::clientDisconnected);
}

void QBLumentideIPC::notifyDelegate(void (QBLumentideIPCDelegate::*notification)(QBLumentideIPC&)) {
    const auto current = delegate();
    if (!current) return;
    try {
        (current.get()->*notification)(*this);
    } catch (...) {
        // A delegate that throws loses its notification, not the connection.
    }
}

std::shared_ptr<QBLumentideIPC::Connection> QBLumentideIPC::connectionForReader(int socket) {
    if (mode_.load() != serverMode) {
        std::lock_guard endpoint(endpointLock);
        if (clientConnection && clientConnection->socket == socket) return clientConnection;
    }
    return std::make_shared<Connection>(socket);
}

bool QBLumentideIPC::enterReaderLoop(const std::shared_ptr<Connection>& connection) {
    if (!connection->isUsable()) return false;
    {
        std::lock_guard guard(connection->lock);
        connection->readerThread = std::this_thread::get_id();
    }
    if (mode_.load() != serverMode) return !shutdownRequested.load();
    // Checked under the same lock as the teardown's sweep: a reader either joins the list
    // before the sweep or sees the flag and serves nothing.
    {
        std::lock_guard clients(clientsLock);
        if (shutdownRequested.load()) return false;
        activeConnections.push_back(connection);
        ++clientArrivals;
    }
    notifyClientWaiters();
    return true;
}

void QBLumentideIPC::runReader(Connection& connection) {
    std::unique_lock guard(connection.lock);
    bool stepAside = false;  // this thread has just read an answer: let the next senders lead
    bool longWait = false;   // the last short wait ran out while senders still waited
    while (!connection.ended && !shutdownRequested.load()) {
        if (!connection.commands.empty()) {
            json envelope = std::move(connection.commands.front());
            connection.commands.pop_front();
            guard.unlock();
            handleCommand(std::move(envelope), connection.socket);
            guard.lock();
            handOff(connection);  // a leader may have paused for the full queue
            continue;
        }
        if (stepAside || connection.tokenHeld || !connection.waiters.empty()) {
            // Senders read for themselves meanwhile. Under a stream of requests, being called
            // back whenever the last of them leaves would cost a wake-up per round trip; so the
            // thread first looks again by itself after readerResumeDelay, and only when senders
            // still wait then does it ask to be called back.
            if (longWait) {
                connection.readerNeedsCall = true;
                connection.readerWake.wait(guard);
                connection.readerNeedsCall = false;
                longWait = false;
            } else {
                longWait = connection.readerWake.wait_for(guard, readerResumeDelay) == std::cv_status::timeout;
            }
            stepAside = false;
            continue;
        }
        longWait = false;
        // No sender leads while this thread watches (see mayLead), so that a command or answer
        // that arrives always finds this thread awake: only the socket needs watching, and the
        // thread waits in the receive itself (a shutdown(2) of the socket ends that wait).
        connection.readerWatching = true;
        connection.tokenHeld = true;
        const std::uint64_t answeredBefore = connection.answersRead;
        guard.unlock();
        const bool open = receiveFrames(connection, true);
        guard.lock();
        connection.readerWatching = false;
        connection.tokenHeld = false;
        if (!open) connection.ended = true;
        // Senders that waited while this thread watched read for themselves from now on.
        stepAside = connection.answersRead != answeredBefore || !connection.waiters.empty();
        handOff(connection);
    }
}

bool QBLumentideIPC::receiveFrames(Connection& connection, bool waitForInput) {
    // Called with the token held and no lock. The socket stays blocking for the peer's sake;
    // a receive here waits only when asked to, otherwise poll() has just found input (or the end).
    const std::span<std::uint8_t> space = connection.input.space();
    const std::ptrdiff_t got = waitForInput ? receiveWaiting(connection.socket, space.data(), space.size())
                                            : receiveNow(connection.socket, space.data(), space.size());
    if (got == 0) return false;
    if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
    connection.input.received(static_cast<std::size_t>(got));
    for (;;) {
        std::string_view body;
        InboundFrames::Step step = connection.input.next(body, false);
        if (step == InboundFrames::Step::needTopUp) {
            const std::span<std::uint8_t> more = connection.input.space();
            const std::ptrdiff_t extra = receiveNow(connection.socket, more.data(), more.size());
            if (extra > 0) connection.input.received(static_cast<std::size_t>(extra));
            step = connection.input.next(body, true);
        }
        if (step == InboundFrames::Step::needInput) return true;
        if (step == InboundFrames::Step::broken) return false;
        std::optional<json> envelope = decodeEnvelope(body);
        if (!envelope) return false;
        handleEnvelope(*envelope, connection);
    }
}

void QBLumentideIPC::endConnection(Connection& connection) {
    // Wakes a leader blocked in poll() and a writer blocked on a peer that no longer reads.
    ::shutdown(connection.socket, SHUT_RDWR);
    {
        std::unique_lock guard(connection.lock);
        markEnded(connection);  // every waiting sender of this connection gives up
        connection.readerWake.wait(guard, [&] { return !connection.tokenHeld; });
    }
    {
        std::lock_guard endpoint(endpointLock);
        if (mode_.load() == serverMode) {
            std::lock_guard clients(clientsLock);
            std::erase_if(activeConnections, [&](const auto& client) { return client.get() == &connection; });
        } else {
            std::lock_guard socketGuard(socketLock);
            if (_socket.load() == connection.socket) _socket.store(-1);
            socketState_.store(0);
            if (clientConnection.get() == &connection) clientConnection.reset();
        }
    }
    {
        // A sender that found the connection before it left the lists may still be writing: it
        // fails at once on the shut-down socket, and the close waits for it to let go.
        std::lock_guard writing(connection.writeLock);
        connection.closed = true;
        // Once the number is free, a new connection may get it; nothing here uses it any more.
        ::close(connection.socket);
    }
    // Closed, the connection takes no request any more.
    abandonHandlers([&](const WaitingEntry& entry) { return entry.connection.get() == &connection; });
}

void QBLumentideIPC::handleEnvelope(json& envelope, Connection& connection) {
    if (!isValidEnvelope(envelope)) return;
    if (envelope["command"].get_ref<const std::string&>() == replyCommand) {
        matchReply(envelope, connection);
        return;
    }
    std::lock_guard guard(connection.lock);
    connection.commands.push_back(std::move(envelope));
    connection.readerWake.notify_one();
}

void QBLumentideIPC::handleCommand(json envelope, int socket) {
    const std::string& command = envelope["command"].get_ref<const std::string&>();
    // Copied: a refused envelope is moved into its answer.
    const std::string messageId = envelope["messageid"].get_ref<const std::string&>();
    const json& content = envelope["content"];
    const auto handler = delegate();
    std::optional<json> answer;
    bool accepted = false;
    try {
        accepted = handler && handler->validateCommand(command, content, *this);
        if (accepted) answer = handler->processCommand(command, content, socket, *this);
    } catch (...) {
        accepted = false;  // a delegate that throws refuses the command; the reader goes on
    }
    if (!accepted) {
        // The echo takes the envelope itself: a large one is not held twice.
        json refusal = json::object();
        refusal["status"] = "INVALID";
        refusal["message"] = std::move(envelope);
        transmit(replyCommand, refusal, &messageId, false, socket);
        QBLog::log("Invalid command");
        return;
    }
    if (!answer || !answer->is_object()) answer = json{{"status", "OK"}};
    transmit(replyCommand, *answer, &messageId, false, socket);
}

void QBLumentideIPC::matchReply(json& envelope, Connection& readingOn) {
    const auto replyId = envelope.find("replyid");
    if (replyId == envelope.end() || !replyId->is_string()) return;
    const std::string& id = replyId->get_ref<const std::string&>();
    std::shared_ptr<WaitingEntry> entry;
    bool leadingElsewhere = false;
    AnswerHandler handler;
    {
        std::lock_guard waiting(waitingLock);
        const auto found = waitingMessages.find(id);
        if (found == waitingMessages.end()) return;
        entry = found->second;
        if (entry->answered) {
            // Nobody waits for it: the handler runs below, and this thread reads on (an answer
            // of this kind is no reason for the reader thread to step aside).
            handler = std::move(entry->answered);
            waitingMessages.erase(found);
        } else {
            ++readingOn.answersRead;
            {
                std::lock_guard replies(repliesLock);
                messageReplies[id] = std::move(envelope["content"]);
            }
            std::lock_guard guard(entry->connection->lock);
            entry->replied = true;
            // A sender that leads on this connection is the thread that runs here; one that
            // leads on another waits in poll() there.
            leadingElsewhere = entry->leading && entry->connection.get() != &readingOn;
        }
    }
    if (handler) {
        deliver(handler, std::move(envelope["content"]));
        return;
    }
    // Signalled after the locks are released: the woken sender takes them at once to collect
    // its answer, and would otherwise block on this thread a second time.
    if (leadingElsewhere) kick(entry->connection->leaderKick);
    entry->condition.notify_one();
}

std::optional<json> QBLumentideIPC::getMessage(int socket) {
    return readFrame([socket](std::uint8_t* bytes, std::size_t length) {
        return receiveSome(socket, bytes, length);
    });
}

bool QBLumentideIPC::setBlocking(int socket) {
    const int flags = ::fcntl(socket, F_GETFL);
    if (flags < 0) return false;
    return ::fcntl(socket, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

// ---------------------------------------------------------------------------------------------
// Frames

std::vector<std::uint8_t> QBLumentideIPC::frameWithEnvelope(const json& envelope) {
    const std::string body = compactJSON(envelope);
    if (body.size() > maximumFrameBodyLength) return {};
    const auto length = static_cast<std::uint32_t>(body.size());
    std::vector<std::uint8_t> frame(5 + body.size());
    frame[0] = 0x00;
    for (int i = 0; i < 4; ++i) frame[1 + i] = static_cast<std::uint8_t>(length >> (8 * i));
    std::memcpy(frame.data() + 5, body.data(), body.size());
    return frame;
}

bool QBLumentideIPC::writeFrame(const std::vector<std::uint8_t>& frame, const SendCall& send) {
    return writeInPieces(frame.data(), frame.size(), send);
}

std::optional<json> QBLumentideIPC::readFrame(const ReceiveCall& receive) {
    std::uint8_t marker;
    if (receive(&marker, 1) != 1) return std::nullopt;
    std::uint8_t lengthBytes[4];
    if (receive(lengthBytes, 4) != 4) return std::nullopt;
    std::uint32_t length = 0;
    for (int i = 3; i >= 0; --i) length = (length << 8) | lengthBytes[i];
    if (length == 0 || length > maximumFrameBodyLength) return std::nullopt;

    // The body grows as it arrives, so five bytes that announce a megabyte cost no megabyte.
    std::vector<std::uint8_t> body;
    std::size_t received = 0;
    while (received < length) {
        const std::size_t piece = std::min<std::size_t>(length - received, transferChunkSize);
        body.resize(received + piece);
        const std::ptrdiff_t got = receive(body.data() + received, piece);
        if (got <= 0) return std::nullopt;
        received += static_cast<std::size_t>(got);
    }
    return decodeEnvelope({reinterpret_cast<const char*>(body.data()), body.size()});
}

bool QBLumentideIPC::isValidEnvelope(const json& envelope) {
    const auto command = envelope.find("command");
    if (command == envelope.end() || !command->is_string()) return false;
    const auto messageId = envelope.find("messageid");
    if (messageId == envelope.end() || !messageId->is_string()) return false;
    const auto content = envelope.find("content");
    return content != envelope.end() && content->is_object();
}

std::int32_t QBLumentideIPC::nextMessageId(std::int32_t last) {
    return last == INT32_MAX ? 0 : last + 1;
}

// ---------------------------------------------------------------------------------------------
// Properties

std::shared_ptr<QBLumentideIPCDelegate> QBLumentideIPC::delegate() const {
    std::lock_guard guard(delegateLock);
    return _delegate.lock();
}

void QBLumentideIPC::setDelegate(const std::shared_ptr<QBLumentideIPCDelegate>& delegate) {
    std::lock_guard guard(delegateLock);
    _delegate = delegate;
}

std::shared_ptr<QBLumentideIPC> QBLumentideIPC::selfReference() const {
    std::lock_guard guard(selfLock);
    return _selfReference;
}

void QBLumentideIPC::setSelfReference(std::shared_ptr<QBLumentideIPC> reference) {
    std::shared_ptr<QBLumentideIPC> previous;  // released after the lock
    std::lock_guard guard(selfLock);
    previous = std::exchange(_selfReference, std::move(reference));
}

std::int32_t QBLumentideIPC::lastMessageId() const {
    std::lock_guard endpoint(endpointLock);
    return lastMessageId_;
}

void QBLumentideIPC::setLastMessageId(std::int32_t value) {
    std::lock_guard endpoint(endpointLock);
    lastMessageId_ = value;
}
