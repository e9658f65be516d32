#include "QBLumentideIPC.h"

#include <fcntl.h>
#include <poll.h>
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
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/QBLog.h"

using nlohmann::json;

void QBLumentideIPCDelegate::clientConnected(QBLumentideIPC&) {}
void QBLumentideIPCDelegate::clientDisconnected(QBLumentideIPC&) {}

// A request whose sender waits for its answer.
struct QBLumentideIPC::WaitingEntry {
    explicit WaitingEntry(int socket) : socket(socket) {}

    const int socket;                 // the connection that carries the request
    std::mutex lock;                  // guards the two flags
    std::condition_variable condition;
    bool replied = false;             // the answer is in messageReplies
    bool abandoned = false;           // the carrying connection ended or the endpoint shut down
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

// Whether the JSON text opens more than limit arrays or objects inside each other. Only exact
// for valid JSON, which is all that matters: invalid text is refused by the parser anyway.
bool nestsDeeperThan(const std::uint8_t* text, std::size_t size, int limit) {
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    for (std::size_t i = 0; i < size; ++i) {
        const std::uint8_t c = text[i];
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > limit) return true;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return false;
}

std::string compactJSON(const json& value) {
    // Invalid UTF-8 in a string is replaced rather than thrown about.
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::ptrdiff_t sendSome(int socket, const std::uint8_t* bytes, std::size_t length) {
    for (;;) {
        const ssize_t sent = ::send(socket, bytes, length, MSG_NOSIGNAL);
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

// The receive calls of one connection's reader, served from a buffer that is refilled with one
// recv of up to its size. A frame that arrives whole then costs one recv instead of three, and a
// recv is the dearest step of a round trip. Each call returns what the buffer holds, up to the
// length asked for, and reads from the socket only when the buffer is empty; so the frame
// reader's rules hold as they do for direct calls (in particular, four length bytes must come
// from one call: a header cut short by the peer's writes still ends the connection).
class ReceiveBuffer {
public:
    explicit ReceiveBuffer(int socket) : socket(socket) {}

    std::ptrdiff_t receive(std::uint8_t* out, std::size_t length) {
        if (start == end) {
            // Waiting in poll rather than in recv: a thread blocked in recv is also woken each
            // time the peer takes bytes that this side wrote (the socket's wait queue is shared
            // by both directions), and every needless wake-up costs a context switch.
            pollfd readable{socket, POLLIN, 0};
            while (::poll(&readable, 1, -1) < 0 && errno == EINTR) {
            }
            const std::ptrdiff_t got = receiveSome(socket, bytes.data(), bytes.size());
            if (got <= 0) return got;
            start = 0;
            end = static_cast<std::size_t>(got);
        }
        const std::size_t n = std::min(length, end - start);
        std::memcpy(out, bytes.data() + start, n);
        start += n;
        return static_cast<std::ptrdiff_t>(n);
    }

private:
    static constexpr std::size_t capacity = 4096;  // a few typical frames
    const int socket;
    std::array<std::uint8_t, capacity> bytes{};
    std::size_t start = 0;
    std::size_t end = 0;
};

}  // namespace

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
    auto tracker = threads;
    tracker->starting();
    try {
        std::thread([tracker, self = shared_from_this(), job = std::move(job)]() mutable {
            job(*self);
            self.reset();  // the endpoint may end here, before the thread reports its own end
            tracker->ended();
        }).detach();
        return true;
    } catch (const std::system_error&) {
        tracker->ended();
        return false;
    }
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
                if (!startTrackedThread([client](QBLumentideIPC& endpoint) {
                        endpoint.processMessages(client);
                    })) {
                    ::close(client);
                }
            } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                pauseAfterFailedAccept();
            }
        }
        if (shutdownRequested.load()) return;
    }
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
        for (const int client : activeSockets) ::shutdown(client, SHUT_RDWR);
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
    return static_cast<std::int32_t>(activeSockets.size());
}

std::vector<int> QBLumentideIPC::clientSockets() const {
    std::lock_guard clients(clientsLock);
    return activeSockets;
}

bool QBLumentideIPC::shutdownIfNoClients() {
    std::lock_guard clients(clientsLock);
    if (!activeSockets.empty()) return false;
    shutdown();
    return true;
}

void QBLumentideIPC::disconnectClient(int socket) {
    // Under the endpoint lock no frame is cut in the middle.
    std::lock_guard endpoint(endpointLock);
    std::lock_guard clients(clientsLock);
    if (std::find(activeSockets.begin(), activeSockets.end(), socket) != activeSockets.end()) {
        ::shutdown(socket, SHUT_RDWR);
    }
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
    {
        std::lock_guard endpoint(endpointLock);
        std::lock_guard socketGuard(socketLock);
        _socket.store(connection);
        socketState_.store(1);
    }
    if (!runOnNewThread) {
        processMessages(connection);
        return true;
    }
    if (startTrackedThread([connection](QBLumentideIPC& endpoint) { endpoint.processMessages(connection); })) {
        return true;
    }
    endConnection(connection);
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
    wakeWaiters([](const WaitingEntry&) { return true; });
}

void QBLumentideIPC::wakeWaiters(const std::function<bool(const WaitingEntry&)>& concerned) {
    std::lock_guard waiting(waitingLock);
    for (auto& [id, entry] : waitingMessages) {
        if (!concerned(*entry)) continue;
        {
            std::lock_guard entryGuard(entry->lock);
            entry->abandoned = true;
        }
        entry->condition.notify_all();
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
        if (activeSockets.empty()) return std::nullopt;
        first = activeSockets.front();
    }
    return sendMessage(command, data, std::nullopt, true, first);
}

std::optional<json> QBLumentideIPC::sendMessage(const std::string& command, const json& data) {
    return sendMessage(command, data, std::nullopt, true, _socket.load());
}

void QBLumentideIPC::sendMessageAndDontWait(const std::string& command, const json& data) {
    sendMessage(command, data, std::nullopt, false, _socket.load());
}

std::optional<json> QBLumentideIPC::sendMessage(const std::string& command,
                                                const std::optional<json>& data,
                                                const std::optional<std::string>& replyId,
                                                bool getReply, int toSocket) {
    static const json emptyContent = json::object();
    const json& content = data && !data->is_null() ? *data : emptyContent;
    if (!content.is_object()) return std::nullopt;
    if (replyId) getReply = false;

    std::shared_ptr<WaitingEntry> entry;
    std::string messageId;
    bool written;
    {
        std::lock_guard endpoint(endpointLock);
        if (!isOpenConnection(toSocket)) return std::nullopt;
        lastMessageId_ = nextMessageId(lastMessageId_);
        messageId = std::to_string(lastMessageId_);
        json envelope = {{"command", command}, {"messageid", messageId}, {"content", content}};
        if (replyId) envelope["replyid"] = *replyId;
        const std::vector<std::uint8_t> frame = frameWithEnvelope(envelope);
        if (getReply && !frame.empty()) {
            // Registered before the first byte leaves, so that no answer can come too early.
            entry = std::make_shared<WaitingEntry>(toSocket);
            std::lock_guard waiting(waitingLock);
            waitingMessages[messageId] = entry;
        }
        written = !frame.empty() && writeFrame(frame, [toSocket](const std::uint8_t* bytes, std::size_t length) {
            return sendSome(toSocket, bytes, length);
        });
    }
    if (!written) {
        if (entry) forgetWaitingEntry(messageId);
        return std::nullopt;
    }
    if (!entry) return std::nullopt;
    return awaitReply(messageId, *entry);
}

bool QBLumentideIPC::isOpenConnection(int socket) const {
    // Called with endpointLock held; the reader of a connection closes its descriptor only under
    // that lock and after taking it out of the places checked here.
    if (socket < 0) return false;
    if (mode_.load() == serverMode) {
        std::lock_guard clients(clientsLock);
        return std::find(activeSockets.begin(), activeSockets.end(), socket) != activeSockets.end();
    }
    return socketState_.load() == 1 && _socket.load() == socket;
}

std::optional<json> QBLumentideIPC::awaitReply(const std::string& messageId, WaitingEntry& entry) {
    bool replied;
    {
        std::unique_lock entryGuard(entry.lock);
        entry.condition.wait(entryGuard, [&] {
            return entry.replied || entry.abandoned || shutdownRequested.load();
        });
        replied = entry.replied && !shutdownRequested.load();
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

void QBLumentideIPC::forgetWaitingEntry(const std::string& messageId) {
    std::lock_guard waiting(waitingLock);
    waitingMessages.erase(messageId);
}

// ---------------------------------------------------------------------------------------------
// Reading

void QBLumentideIPC::processMessages(int socket) {
    const bool served = enterReaderLoop(socket);
    if (served) {
        if (const auto current = delegate()) current->clientConnected(*this);
        setBlocking(socket);
        ReceiveBuffer received(socket);
        const ReceiveCall receive = [&received](std::uint8_t* bytes, std::size_t length) {
            return received.receive(bytes, length);
        };
        while (!shutdownRequested.load()) {
            std::optional<json> envelope = readFrame(receive);
            if (!envelope) break;
            handleEnvelope(*envelope, socket);
        }
    }
    endConnection(socket);
    if (mode_.load() != serverMode) shutdown();
    if (served) {
        if (const auto current = delegate()) current->clientDisconnected(*this);
    }
}

bool QBLumentideIPC::enterReaderLoop(int socket) {
    if (mode_.load() != serverMode) return !shutdownRequested.load();
    // Checked under the same lock as the teardown's sweep: a reader either joins the list
    // before the sweep or sees the flag and serves nothing.
    std::lock_guard clients(clientsLock);
    if (shutdownRequested.load()) return false;
    activeSockets.push_back(socket);
    return true;
}

void QBLumentideIPC::endConnection(int socket) {
    // Releases a writer blocked on a peer that no longer reads, before the endpoint lock is taken.
    ::shutdown(socket, SHUT_RDWR);
    std::lock_guard endpoint(endpointLock);
    if (mode_.load() == serverMode) {
        std::lock_guard clients(clientsLock);
        activeSockets.erase(std::remove(activeSockets.begin(), activeSockets.end(), socket),
                            activeSockets.end());
    } else {
        std::lock_guard socketGuard(socketLock);
        if (_socket.load() == socket) _socket.store(-1);
        socketState_.store(0);
    }
    // Before the close: once the number is free, a new connection may get it.
    wakeWaiters([socket](const WaitingEntry& entry) { return entry.socket == socket; });
    ::close(socket);
}

void QBLumentideIPC::handleEnvelope(json& envelope, int socket) {
    if (!isValidEnvelope(envelope)) return;
    if (envelope["command"].get_ref<const std::string&>() == replyCommand) {
        matchReply(envelope);
        return;
    }
    answerCommand(envelope, socket);
}

void QBLumentideIPC::answerCommand(const json& envelope, int socket) {
    const std::string& command = envelope["command"].get_ref<const std::string&>();
    const std::string& messageId = envelope["messageid"].get_ref<const std::string&>();
    const json& content = envelope["content"];
    const auto handler = delegate();
    if (!handler || !handler->validateCommand(command, content, *this)) {
        sendMessage(replyCommand, json{{"status", "INVALID"}, {"message", envelope}}, messageId, false, socket);
        QBLog::log("Invalid command");
        return;
    }
    std::optional<json> answer = handler->processCommand(command, content, socket, *this);
    if (!answer || !answer->is_object()) answer = json{{"status", "OK"}};
    sendMessage(replyCommand, *answer, messageId, false, socket);
}

void QBLumentideIPC::matchReply(json& envelope) {
    const auto replyId = envelope.find("replyid");
    if (replyId == envelope.end() || !replyId->is_string()) return;
    const std::string& id = replyId->get_ref<const std::string&>();
    std::shared_ptr<WaitingEntry> entry;
    {
        std::lock_guard waiting(waitingLock);
        const auto found = waitingMessages.find(id);
        if (found == waitingMessages.end()) return;
        entry = found->second;
        {
            std::lock_guard replies(repliesLock);
            messageReplies[id] = std::move(envelope["content"]);
        }
        std::lock_guard entryGuard(entry->lock);
        entry->replied = true;
    }
    // Signalled after the waiting-list lock is released: the woken sender takes that lock at
    // once to collect its answer, and would otherwise block on this thread a second time.
    entry->condition.notify_all();
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
    std::size_t written = 0;
    while (written < frame.size()) {
        const std::size_t piece = std::min(frame.size() - written, transferChunkSize);
        const std::ptrdiff_t accepted = send(frame.data() + written, piece);
        if (accepted <= 0) return false;
        written += static_cast<std::size_t>(accepted);
    }
    return true;
}

std::optional<json> QBLumentideIPC::readFrame(const ReceiveCall& receive) {
    std::uint8_t marker;
    if (receive(&marker, 1) != 1) return std::nullopt;
    std::uint8_t lengthBytes[4];
    if (receive(lengthBytes, 4) != 4) return std::nullopt;
    std::uint32_t length = 0;
    for (int i = 3; i >= 0; --i) length = (length << 8) | lengthBytes[i];
    if (length == 0 || length > maximumFrameBodyLength) return std::nullopt;

    std::vector<std::uint8_t> body(length);
    std::size_t received = 0;
    while (received < length) {
        const std::size_t piece = std::min<std::size_t>(length - received, transferChunkSize);
        const std::ptrdiff_t got = receive(body.data() + received, piece);
        if (got <= 0) return std::nullopt;
        received += static_cast<std::size_t>(got);
    }
    if (nestsDeeperThan(body.data(), body.size(), maximumNestingDepth)) return std::nullopt;
    json envelope = json::parse(body.begin(), body.end(), nullptr, false);
    if (envelope.is_discarded() || !envelope.is_object()) return std::nullopt;
    return envelope;
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
