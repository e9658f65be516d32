// QBLumentideIPC: creation, the threads it starts, the client connect, shutdown and the
// properties. The frames are in QBLumentideIPCFrames.cpp, the server end in
// QBLumentideIPCServer.cpp, sending and waiting in QBLumentideIPCSend.cpp, the reader thread in
// QBLumentideIPCReceive.cpp.

#include "QBLumentideIPC.h"

#include <fcntl.h>

#include <csignal>
#include <utility>

#include "QBLumentideIPCConnection.h"
#include "QBThread.h"
#include "platform/QBLog.h"

using nlohmann::json;

void QBLumentideIPCDelegate::clientConnected(QBLumentideIPC&) {}
void QBLumentideIPCDelegate::clientDisconnected(QBLumentideIPC&) {}

// Counts the endpoint's running threads. Shared by the endpoint and its threads, so that a
// thread can report its end after it has let go of the endpoint.
class QBLumentideIPC::ThreadTracker {
public:
    void starting() QB_EXCLUDES(lock) {
        QBMutexLock guard(lock);
        ++running;
    }
    void ended() QB_EXCLUDES(lock) {
        QBMutexLock guard(lock);
        if (--running == 0) allEnded.notify_all();
    }
    bool waitUntilNone(std::chrono::milliseconds timeout) QB_EXCLUDES(lock) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        QBMutexLock guard(lock);
        while (running != 0) {
            if (allEnded.wait_until(guard.native(), deadline) == std::cv_status::timeout) return running == 0;
        }
        return true;
    }

private:
    QBMutex lock;  // a leaf
    std::condition_variable allEnded;
    int running QB_GUARDED_BY(lock) = 0;
};

namespace {

void ignoreSIGPIPE() {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    sigemptyset(&action.sa_mask);
    sigaction(SIGPIPE, &action, nullptr);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Creation and threads

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

bool QBLumentideIPC::startTrackedThread(std::function<void(QBLumentideIPC&)> job,
                                        const char* role) {
    threads->starting();
    auto tracker = threads;
    // The thread holds the endpoint while its job runs, and lets go of it before it reports its
    // own end: the endpoint may end there.
    const bool started = QBThread::startDetached(
        [tracker, self = shared_from_this(), job = std::move(job)]() mutable {
            try {
                job(*self);
            } catch (...) {
                // The thread ends with what it was doing; the endpoint and the process go on.
            }
            job = nullptr;
            self.reset();
            tracker->ended();
        },
        threadStackSize, role);
    if (!started) tracker->ended();
    return started;
}

bool QBLumentideIPC::waitForThreads(std::chrono::milliseconds timeout) const {
    return threads->waitUntilNone(timeout);
}

bool QBLumentideIPC::setBlocking(int socket) {
    const int flags = ::fcntl(socket, F_GETFL);
    if (flags < 0) return false;
    return ::fcntl(socket, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

// ---------------------------------------------------------------------------------------------
// Client

bool QBLumentideIPC::connect() { return connectOnNewThread(true); }

bool QBLumentideIPC::connectOnNewThread(bool runOnNewThread) {
    if (_shutdown.load() || serverLoopStarted.load() || _socketState.load() == 1) return false;
    sockaddr_un address;
    if (!QBLumentideIPCSockets::makeAddress(_path, address)) {
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
        QBMutexLock endpoint(endpointLock);
        QBMutexLock socketGuard(socketLock);
        _socket.store(connection);
        _socketState.store(1);
        clientConnection = state;
    }
    if (!runOnNewThread) {
        processMessages(connection);
        return true;
    }
    if (startTrackedThread([connection](QBLumentideIPC& endpoint) { endpoint.processMessages(connection); },
                           readerRole)) {
        return true;
    }
    endConnection(*state);
    return false;
}

// ---------------------------------------------------------------------------------------------
// Shutdown

void QBLumentideIPC::shutdown() {
    Stopped stopped = stop();
    deliverNothing(std::move(stopped.abandoned));
}  // the endpoint may end here, with stopped.keepAlive

bool QBLumentideIPC::shutdownIfNoClients() {
    Stopped stopped;
    {
        QBMutexLock clients(clientsLock);
        if (!activeSockets.empty()) return false;
        stopped = stop();
    }
    // Answer handlers run with no lock held: one may ask for clientCount(), say.
    deliverNothing(std::move(stopped.abandoned));
    return true;
}

QBLumentideIPC::Stopped QBLumentideIPC::stop() {
    Stopped stopped;
    if (_shutdown.exchange(true)) return stopped;
    if (_mode.load() == serverMode) {
        QBMutexLock guard(wakeLock);
        if (wakePipe[1] >= 0) {
            const std::uint8_t wakeByte = 0;
            [[maybe_unused]] const ssize_t ignored = ::write(wakePipe[1], &wakeByte, 1);
        }
    } else {
        {
            QBMutexLock socketGuard(socketLock);
            // Only a connected client's descriptor; its reader closes it.
            const int connection = _socket.load();
            if (_socketState.load() == 1 && connection >= 0) ::shutdown(connection, SHUT_RDWR);
            _socketState.store(0);
        }
        // Let go of the endpoint only on the caller's way out.
        stopped.keepAlive = selfReference();
        setSelfReference(nullptr);
    }
    notifyClientWaiters();
    stopped.abandoned = takeHandlers(nullptr);
    abandonWaiters();
    return stopped;
}

void QBLumentideIPC::deliverNothing(std::vector<AnswerHandler> handlers) {
    for (const auto& handler : handlers) deliver(handler, std::nullopt);
}

void QBLumentideIPC::notifyClientWaiters() const {
    { QBMutexLock guard(clientWaitLock); }
    clientsArrived.notify_all();
}

// ---------------------------------------------------------------------------------------------
// Properties

std::shared_ptr<QBLumentideIPCDelegate> QBLumentideIPC::delegate() const {
    QBMutexLock guard(delegateLock);
    return _delegate.lock();
}

void QBLumentideIPC::setDelegate(const std::shared_ptr<QBLumentideIPCDelegate>& delegate) {
    QBMutexLock guard(delegateLock);
    _delegate = delegate;
}

std::shared_ptr<QBLumentideIPC> QBLumentideIPC::selfReference() const {
    QBMutexLock guard(selfLock);
    return _selfReference;
}

void QBLumentideIPC::setSelfReference(std::shared_ptr<QBLumentideIPC> reference) {
    std::shared_ptr<QBLumentideIPC> previous;  // released after the lock
    QBMutexLock guard(selfLock);
    previous = std::exchange(_selfReference, std::move(reference));
}

std::int32_t QBLumentideIPC::lastSentMessageId() const {
    QBMutexLock endpoint(endpointLock);
    return lastMessageId;
}

void QBLumentideIPC::setLastSentMessageId(std::int32_t value) {
    QBMutexLock endpoint(endpointLock);
    lastMessageId = value;
}
