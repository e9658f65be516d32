#include "QBTCPEventServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Largest single receive. A request's header block is far smaller; a larger read would only
// let a peer park more bytes in the connection's store.
constexpr std::size_t receiveChunk = 16 * 1024;
constexpr int eventsPerWait = 128;
// How often deadlines are checked (and a paused listener resumed): a time-out fires at most
// this much late, and an idle loop wakes four times a second.
constexpr auto sweepInterval = 250ms;
// Connections accepted in one go before the loop serves its other connections.
constexpr int acceptsPerWake = 64;
// A drained connection keeps at most this much storage; a burst's larger store is given back.
constexpr std::size_t keptCapacity = 4 * 1024;

// Stages of the loop's own: none yet (the next Wait always sets a deadline), and sending.
constexpr int noStage = INT_MIN;
constexpr int sendingStage = INT_MIN + 1;

bool wouldBlock(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

bool outOfResources(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

// ---- Shared state ---------------------------------------------------------------------------

struct QBTCPEventServer::Shared {
    Shared() : stopEvent(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~Shared() {
        if (stopEvent >= 0) ::close(stopEvent);
    }
    // Written by shutdown() and never read, so it stays readable: every loop sees it.
    const int stopEvent;
    std::atomic<bool> served{false};
    std::atomic<std::size_t> connections{0};
};

// ---- One event loop -------------------------------------------------------------------------

// One epoll set: its share of the listener's connections, a wake-up for finished jobs and the
// server's stop event. Everything but post() runs on the loop's thread.
class QBTCPEventServer::Loop {
public:
    Loop(QBTCPEventServer& server, QBWorkerPool& workers, int listener, std::size_t maxConnections);
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    bool ready() const { return epoll >= 0 && wake >= 0 && registered; }
    void run();

private:
    struct Connection {
        Connection(int descriptor, Clock::time_point now) : descriptor(descriptor), lastActivity(now) {}
        const int descriptor;
        std::string pending;     // received, not yet consumed
        std::size_t seen = 0;    // pending bytes at the protocol's last wait for any byte
        std::size_t needed = 0;  // pending bytes the protocol waits for; 0: any new byte
        std::string output;      // reply bytes the peer has not taken yet
        int stage = noStage;
        Clock::time_point deadline = Clock::time_point::max();
        Clock::time_point lastActivity;
        bool busy = false;  // a pool thread works on its request; not in the epoll set
    };
    struct Completion {
        int descriptor;
        std::optional<std::string> reply;
    };

    void dispatch(const epoll_event& event);
    void acceptConnections();
    void admit(int descriptor);
    bool evictLongestWaiting();
    void pauseAccepting();
    void serveEvent(Connection& connection, std::uint32_t events);
    void receive(Connection& connection);
    void advance(Connection& connection);
    void consume(Connection& connection, std::size_t count);
    bool send(Connection& connection, const std::string& bytes);
    bool flush(Connection& connection);
    void offload(Connection& connection, std::function<std::optional<std::string>()> work);
    void defer(Connection& connection, Defer& deferred);
    void markBusy(Connection& connection);
    void post(Completion completion);
    void runCompletions();
    void resume(Connection& connection, std::optional<std::string> reply);
    void close(Connection& connection);
    void beginStop();
    void sweep();
    bool watch(int descriptor, std::uint32_t events, int operation);

    QBTCPEventServer& server;
    QBWorkerPool& workers;
    const int listener;
    const std::size_t maxConnections;
    const int epoll;
    const int wake;  // eventfd: a pool thread finished a job of this loop
    bool registered = false;

    std::unordered_map<int, std::unique_ptr<Connection>> connections;
    std::array<char, receiveChunk> scratch{};
    std::size_t busyConnections = 0;
    bool stopRequested = false;
    bool stopping = false;
    bool listenerPaused = false;
    Clock::time_point now = Clock::now();
    Clock::time_point lastSweep = now;

    std::mutex completionLock;  // guards completions; leaf lock
    std::vector<Completion> completions;
};

QBTCPEventServer::Loop::Loop(QBTCPEventServer& server, QBWorkerPool& workers, int listener,
                             std::size_t maxConnections)
    : server(server),
      workers(workers),
      listener(listener),
      maxConnections(maxConnections),
      epoll(::epoll_create1(EPOLL_CLOEXEC)),
      wake(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    registered = epoll >= 0 && wake >= 0 && watch(wake, EPOLLIN, EPOLL_CTL_ADD) &&
                 watch(server.shared->stopEvent, EPOLLIN, EPOLL_CTL_ADD) &&
                 watch(listener, EPOLLIN | EPOLLEXCLUSIVE, EPOLL_CTL_ADD);
}

QBTCPEventServer::Loop::~Loop() {
    for (auto& entry : connections) ::close(entry.first);
    server.shared->connections -= connections.size();
    if (wake >= 0) ::close(wake);
    if (epoll >= 0) ::close(epoll);
}

bool QBTCPEventServer::Loop::watch(int descriptor, std::uint32_t events, int operation) {
    epoll_event event{};
    event.events = events;
    event.data.fd = descriptor;
    return ::epoll_ctl(epoll, operation, descriptor, &event) == 0;
}

void QBTCPEventServer::Loop::run() {
    std::array<epoll_event, eventsPerWait> events{};
    const int waitMilliseconds = static_cast<int>(sweepInterval.count());
    while (!stopping || busyConnections > 0) {
        const int count = ::epoll_wait(epoll, events.data(), eventsPerWait, waitMilliseconds);
        if (count < 0 && errno != EINTR) stopRequested = true;  // the set is unusable
        now = Clock::now();
        for (int i = 0; i < count; ++i) dispatch(events[static_cast<std::size_t>(i)]);
        if (stopRequested && !stopping) beginStop();
        if (now - lastSweep >= sweepInterval) sweep();
    }
}

void QBTCPEventServer::Loop::dispatch(const epoll_event& event) {
    const int descriptor = event.data.fd;
    if (descriptor == listener) {
        acceptConnections();
    } else if (descriptor == wake) {
        runCompletions();
    } else if (descriptor == server.shared->stopEvent) {
        stopRequested = true;
    } else if (const auto found = connections.find(descriptor); found != connections.end()) {
        serveEvent(*found->second, event.events);
    }
}

// ---- Accepting ------------------------------------------------------------------------------

void QBTCPEventServer::Loop::acceptConnections() {
    for (int i = 0; i < acceptsPerWake && !listenerPaused; ++i) {
        const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (descriptor >= 0) {
            admit(descriptor);
        } else if (errno == EINTR || errno == ECONNABORTED) {
            continue;
        } else {
            // Out of descriptors: make room, or rest, since the listener stays readable.
            if (outOfResources(errno) && !evictLongestWaiting()) pauseAccepting();
            return;  // otherwise nothing is left to accept (another loop may have taken it)
        }
    }
}

void QBTCPEventServer::Loop::admit(int descriptor) {
    if (connections.size() >= maxConnections && !evictLongestWaiting()) {
        ::close(descriptor);
        return;
    }
    // A reply is written with one send; do not hold its last segment back for an ACK.
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (!watch(descriptor, EPOLLIN, EPOLL_CTL_ADD)) {
        ::close(descriptor);
        return;
    }
    auto& connection = *connections.emplace(descriptor, std::make_unique<Connection>(descriptor, now))
                            .first->second;
    ++server.shared->connections;
    server.protocol.clientConnected();
    advance(connection);
}

bool QBTCPEventServer::Loop::evictLongestWaiting() {
    Connection* longest = nullptr;
    for (auto& entry : connections) {
        auto& candidate = *entry.second;
        if (!candidate.busy && (!longest || candidate.lastActivity < longest->lastActivity)) {
            longest = &candidate;
        }
    }
    if (!longest) return false;
    close(*longest);
    return true;
}

void QBTCPEventServer::Loop::pauseAccepting() {
    if (::epoll_ctl(epoll, EPOLL_CTL_DEL, listener, nullptr) == 0) listenerPaused = true;
}

// ---- Serving a connection -------------------------------------------------------------------

void QBTCPEventServer::Loop::serveEvent(Connection& connection, std::uint32_t events) {
    if (connection.output.empty()) {
        receive(connection);
        return;
    }
    if (!(events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) || !flush(connection)) return;
    if (!connection.output.empty()) return;
    if (!watch(connection.descriptor, EPOLLIN, EPOLL_CTL_MOD)) {
        close(connection);
        return;
    }
    advance(connection);
}

void QBTCPEventServer::Loop::receive(Connection& connection) {
    std::size_t room = scratch.size();
    if (connection.needed > connection.pending.size()) {
        room = std::min(room, connection.needed - connection.pending.size());
    }
    const ssize_t received = ::recv(connection.descriptor, scratch.data(), room, 0);
    if (received < 0 && wouldBlock(errno)) return;
    if (received <= 0) {
        close(connection);
        return;
    }
    connection.pending.append(scratch.data(), static_cast<std::size_t>(received));
    connection.lastActivity = now;
    if (connection.pending.size() >= connection.needed) advance(connection);
}

// Shows the protocol the pending bytes until it waits, or the connection is busy or closed.
void QBTCPEventServer::Loop::advance(Connection& connection) {
    for (;;) {
        auto step = server.protocol.nextStep(connection.pending, connection.seen);
        if (const auto* wait = std::get_if<Wait>(&step)) {
            // Only a wait for any new byte is a scan that the next look may resume.
            connection.seen = wait->needed == 0 ? connection.pending.size() : 0;
            connection.needed = wait->needed;
            if (wait->stage != connection.stage) {
                connection.stage = wait->stage;
                connection.deadline = now + wait->timeout;
            }
            if (connection.pending.empty() && connection.pending.capacity() > keptCapacity) {
                std::string().swap(connection.pending);
            }
            return;
        }
        if (auto* reply = std::get_if<Reply>(&step); reply && reply->consumed > 0) {
            consume(connection, reply->consumed);
            if (!send(connection, reply->bytes) || !connection.output.empty()) return;
            continue;
        }
        if (auto* offloaded = std::get_if<Offload>(&step); offloaded && offloaded->consumed > 0) {
            consume(connection, offloaded->consumed);
            offload(connection, std::move(offloaded->work));
            return;
        }
        if (auto* deferred = std::get_if<Defer>(&step); deferred && deferred->consumed > 0) {
            consume(connection, deferred->consumed);
            defer(connection, *deferred);
            return;
        }
        close(connection);  // Close, or a step that would consume nothing (and loop for ever)
        return;
    }
}

void QBTCPEventServer::Loop::consume(Connection& connection, std::size_t count) {
    connection.pending.erase(0, std::min(count, connection.pending.size()));
    connection.seen = 0;
    connection.needed = 0;
    connection.stage = noStage;
}

// Sends bytes, keeping what the peer cannot take yet for later. False when the connection
// failed and was closed.
bool QBTCPEventServer::Loop::send(Connection& connection, const std::string& bytes) {
    const ssize_t sent =
        ::send(connection.descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent == static_cast<ssize_t>(bytes.size())) return true;
    if (sent < 0 && !wouldBlock(errno)) {
        close(connection);
        return false;
    }
    connection.output.assign(bytes, sent > 0 ? static_cast<std::size_t>(sent) : 0);
    connection.stage = sendingStage;
    connection.deadline = now + sendStallTimeout;
    if (!watch(connection.descriptor, EPOLLOUT, EPOLL_CTL_MOD)) {
        close(connection);
        return false;
    }
    return true;
}

bool QBTCPEventServer::Loop::flush(Connection& connection) {
    const ssize_t sent = ::send(connection.descriptor, connection.output.data(),
                                connection.output.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && wouldBlock(errno)) return true;
    if (sent < 0) {
        close(connection);
        return false;
    }
    connection.output.erase(0, static_cast<std::size_t>(sent));
    if (connection.output.empty()) {
        std::string().swap(connection.output);
        connection.stage = noStage;
    }
    return true;
}

void QBTCPEventServer::Loop::close(Connection& connection) {
    const int descriptor = connection.descriptor;
    ::close(descriptor);  // also leaves the epoll set
    connections.erase(descriptor);
    --server.shared->connections;
}

// ---- Offloaded requests ---------------------------------------------------------------------

void QBTCPEventServer::Loop::markBusy(Connection& connection) {
    // Not watched while busy: a hang-up would otherwise be reported again and again.
    ::epoll_ctl(epoll, EPOLL_CTL_DEL, connection.descriptor, nullptr);
    connection.busy = true;
    ++busyConnections;
}

void QBTCPEventServer::Loop::defer(Connection& connection, Defer& deferred) {
    markBusy(connection);
    // The loop runs until every busy connection has had its completion, so it outlives every
    // finish that is still to come.
    const auto finished = std::make_shared<std::atomic<bool>>(false);
    const Finish finish = [this, descriptor = connection.descriptor,
                           finished](std::optional<std::string> reply) {
        if (!finished->exchange(true)) post(Completion{descriptor, std::move(reply)});
    };
    bool started = false;
    try {
        started = deferred.start(finish);
    } catch (...) {
        finish(std::nullopt);  // a request that fails to start closes its connection
        return;
    }
    if (started) return;
    connection.busy = false;
    --busyConnections;
    offload(connection, std::move(deferred.otherwise));
}

void QBTCPEventServer::Loop::offload(Connection& connection,
                                     std::function<std::optional<std::string>()> work) {
    markBusy(connection);
    const int descriptor = connection.descriptor;
    const bool queued = workers.submit([this, descriptor, work = std::move(work)] {
        std::optional<std::string> reply;
        try {
            reply = work();
        } catch (...) {
            // A failed request closes its connection, as any refusal does.
        }
        post(Completion{descriptor, std::move(reply)});
    });
    if (!queued) {
        connection.busy = false;
        --busyConnections;
        close(connection);
    }
}

// Runs on a pool thread. The wake-up is written under the lock, so the loop, which takes the
// lock to collect completions, cannot end and close it while a poster still uses it.
void QBTCPEventServer::Loop::post(Completion completion) {
    std::lock_guard guard(completionLock);
    completions.push_back(std::move(completion));
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake, &one, sizeof one);
}

void QBTCPEventServer::Loop::runCompletions() {
    std::vector<Completion> finished;
    {
        std::lock_guard guard(completionLock);
        std::uint64_t count = 0;
        [[maybe_unused]] const auto drained = ::read(wake, &count, sizeof count);
        finished.swap(completions);
    }
    for (auto& completion : finished) {
        const auto found = connections.find(completion.descriptor);
        if (found == connections.end()) continue;
        auto& connection = *found->second;
        connection.busy = false;
        --busyConnections;
        resume(connection, std::move(completion.reply));
    }
}

void QBTCPEventServer::Loop::resume(Connection& connection, std::optional<std::string> reply) {
    if (stopping || !reply || !watch(connection.descriptor, EPOLLIN, EPOLL_CTL_ADD)) {
        close(connection);
        return;
    }
    connection.lastActivity = now;
    if (send(connection, *reply) && connection.output.empty()) advance(connection);
}

// ---- Time-outs and stopping -----------------------------------------------------------------

void QBTCPEventServer::Loop::sweep() {
    lastSweep = now;
    for (auto entry = connections.begin(); entry != connections.end();) {
        const auto& connection = *entry->second;
        if (connection.busy || now < connection.deadline) {
            ++entry;
            continue;
        }
        ::close(entry->first);
        entry = connections.erase(entry);
        --server.shared->connections;
    }
    if (listenerPaused && !stopping && watch(listener, EPOLLIN | EPOLLEXCLUSIVE, EPOLL_CTL_ADD)) {
        listenerPaused = false;
    }
}

// Stops accepting and closes every connection that is not waiting for a job; those are closed
// when their jobs finish, and the loop ends after the last one.
void QBTCPEventServer::Loop::beginStop() {
    stopping = true;
    if (!listenerPaused) ::epoll_ctl(epoll, EPOLL_CTL_DEL, listener, nullptr);
    ::epoll_ctl(epoll, EPOLL_CTL_DEL, server.shared->stopEvent, nullptr);
    for (auto entry = connections.begin(); entry != connections.end();) {
        if (entry->second->busy) {
            ++entry;
            continue;
        }
        ::close(entry->first);
        entry = connections.erase(entry);
        --server.shared->connections;
    }
}

// ---- The server -----------------------------------------------------------------------------

QBTCPEventServer::QBTCPEventServer(Protocol& protocol, const Limits& limits)
    : protocol(protocol), limits(limits), shared(std::make_unique<Shared>()) {}

QBTCPEventServer::~QBTCPEventServer() = default;

bool QBTCPEventServer::serve(int listeningDescriptor) {
    if (shared->stopEvent < 0 || shared->served.exchange(true)) return false;
    const std::size_t processors = std::max(1u, std::thread::hardware_concurrency());
    const std::size_t loopCount =
        limits.loopThreads > 0 ? limits.loopThreads : std::min(processors, maxDefaultLoops);
    const std::size_t perLoop = std::max<std::size_t>(1, (limits.maxConnections + loopCount - 1) / loopCount);

    // Declared before the loops, so that it outlives them: its threads post to the loops.
    QBWorkerPool workers(limits.workers);
    std::vector<std::unique_ptr<Loop>> loops;
    for (std::size_t i = 0; i < loopCount; ++i) {
        loops.push_back(std::make_unique<Loop>(*this, workers, listeningDescriptor, perLoop));
        if (!loops.back()->ready()) return false;
    }
    std::vector<std::thread> threads;
    for (std::size_t i = 1; i < loops.size(); ++i) {
        try {
            threads.emplace_back([loop = loops[i].get()] { loop->run(); });
        } catch (const std::system_error&) {
            break;  // serve with the loops that could be started
        }
    }
    loops.front()->run();
    for (auto& thread : threads) thread.join();
    return true;
}

void QBTCPEventServer::shutdown() {
    if (shared->stopEvent < 0) return;
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(shared->stopEvent, &one, sizeof one);
}

std::size_t QBTCPEventServer::connectionCount() const {
    return shared->connections.load();
}
