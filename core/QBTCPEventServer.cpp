#include "QBTCPEventServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
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
#include <cstring>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "platform/QBLog.h"

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
    explicit Shared(std::size_t maxConnections)
        : stopEvent(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), maxConnections(maxConnections) {}
    ~Shared() {
        if (stopEvent >= 0) ::close(stopEvent);
    }
    // Takes a place for a new connection; false when all maxConnections are taken. One count
    // for all loops, so the bound holds however the kernel spreads the connections.
    bool reserveSlot() {
        std::size_t current = connections.load();
        while (current < maxConnections) {
            if (connections.compare_exchange_weak(current, current + 1)) return true;
        }
        return false;
    }
    // Written by shutdown() and never read, so it stays readable: every loop sees it.
    const int stopEvent;
    const std::size_t maxConnections;
    std::atomic<bool> served{false};
    std::atomic<std::size_t> connections{0};  // places taken, over all loops
};

// ---- One event loop -------------------------------------------------------------------------

// One epoll set: its share of the listener's connections, a wake-up for finished jobs and the
// server's stop event. Everything but post() runs on the loop's thread.
class QBTCPEventServer::Loop {
public:
    Loop(QBTCPEventServer& server, QBWorkerPool& workers, int listener);
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
        // Its request is being worked on (by a pool thread, or by whoever finishes a deferred
        // request). The connection stays in the epoll set meanwhile, so a request costs no
        // epoll_ctl calls; only an event that arrives while it is busy takes it out.
        bool busy = false;
        // While busy: whether the reply may be sent by the finishing thread itself (no
        // received bytes wait behind the request), and where that hand-over stands.
        bool mayReplyDirectly = false;
        std::atomic<int> handOver{working};
    };
    // Where a busy connection's hand-over stands. working: the epoll set still watches it;
    // unwatched: an event came first, so the loop took it out of the set and the finishing
    // thread must post its completion; replied: the finishing thread has sent the whole reply,
    // and the loop takes the connection up again when it next hears of it.
    static constexpr int working = 0;
    static constexpr int unwatched = 1;
    static constexpr int replied = 2;
    struct Completion {
        int descriptor;
        std::optional<std::string> reply;  // empty: it was sent already
    };

    void dispatch(const epoll_event& event);
    void acceptConnections();
    void admit(int descriptor);
    Connection* longestWaiting();
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
    void complete(Connection& connection, std::optional<std::string> reply);
    bool settleBusy(Connection& connection);
    void settleReplied();
    void post(Completion completion);
    void runCompletions();
    void resume(Connection& connection, std::optional<std::string> reply);
    void close(Connection& connection);
    void closeKeepingSlot(Connection& connection);
    void failed(int error);
    void waitForCompletions();
    void beginStop();
    void sweep();
    bool watch(int descriptor, std::uint32_t events, int operation);

    QBTCPEventServer& server;
    QBWorkerPool& workers;
    const int listener;
    const int epoll;
    const int wake;  // eventfd: a pool thread finished a job of this loop
    bool registered = false;

    std::unordered_map<int, std::unique_ptr<Connection>> connections;
    std::array<char, receiveChunk> scratch{};
    std::size_t busyConnections = 0;
    bool stopRequested = false;
    std::atomic<bool> stopping{false};  // read by finishing threads too
    bool epollFailed = false;  // the epoll set is unusable: the loop only finishes its jobs
    bool listenerPaused = false;
    Clock::time_point now = Clock::now();
    Clock::time_point lastSweep = now;

    std::mutex completionLock;  // guards completions; leaf lock
    std::vector<Completion> completions;
};

QBTCPEventServer::Loop::Loop(QBTCPEventServer& server, QBWorkerPool& workers, int listener)
    : server(server),
      workers(workers),
      listener(listener),
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
        int count = 0;
        if (epollFailed) {
            waitForCompletions();
        } else {
            count = ::epoll_wait(epoll, events.data(), eventsPerWait, waitMilliseconds);
            if (count < 0 && errno != EINTR) failed(errno);
        }
        now = Clock::now();
        for (int i = 0; i < count; ++i) dispatch(events[static_cast<std::size_t>(i)]);
        if (stopRequested && !stopping) beginStop();
        if (stopping && busyConnections > 0) settleReplied();
        if (now - lastSweep >= sweepInterval) sweep();
    }
}

// The epoll set cannot be waited on (a fault of this program or the kernel's): the loop cannot
// serve its connections any more, and a server with a dead loop would leave its share of the
// connections hanging. So the whole server stops, and says why.
void QBTCPEventServer::Loop::failed(int error) {
    epollFailed = true;
    stopRequested = true;
    QBLog::log(std::string("Event loop failed, server stopped: ") + std::strerror(error));
    server.shutdown();
}

// Without a usable epoll set, finished jobs are still collected, through the wake-up alone.
void QBTCPEventServer::Loop::waitForCompletions() {
    pollfd finished{wake, POLLIN, 0};
    if (::poll(&finished, 1, static_cast<int>(sweepInterval.count())) > 0) runCompletions();
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
        auto& connection = *found->second;
        if (!connection.busy || settleBusy(connection)) serveEvent(connection, event.events);
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
    if (!server.shared->reserveSlot()) {
        // Every place is taken: the connection of this loop that has waited longest for its
        // peer hands its place over; without one, the newcomer is turned away. Connections
        // whose replies went out meanwhile are waiting for their peers too.
        if (busyConnections > 0) settleReplied();
        Connection* longest = longestWaiting();
        if (!longest) {
            ::close(descriptor);
            return;
        }
        closeKeepingSlot(*longest);
    }
    // A reply is written with one send; do not hold its last segment back for an ACK.
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (!watch(descriptor, EPOLLIN, EPOLL_CTL_ADD)) {
        ::close(descriptor);
        --server.shared->connections;
        return;
    }
    auto& connection = *connections.emplace(descriptor, std::make_unique<Connection>(descriptor, now))
                            .first->second;
    try {
        server.protocol.clientConnected();
    } catch (...) {
        // A notification that fails does not cost the connection or the loop.
    }
    advance(connection);
}

QBTCPEventServer::Loop::Connection* QBTCPEventServer::Loop::longestWaiting() {
    Connection* longest = nullptr;
    for (auto& entry : connections) {
        auto& candidate = *entry.second;
        if (!candidate.busy && (!longest || candidate.lastActivity < longest->lastActivity)) {
            longest = &candidate;
        }
    }
    return longest;
}

bool QBTCPEventServer::Loop::evictLongestWaiting() {
    Connection* longest = longestWaiting();
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
        Step step = Close{};
        try {
            step = server.protocol.nextStep(connection.pending, connection.seen);
        } catch (...) {
            // A request whose handling fails on the loop thread closes its connection, as any
            // refusal does; the loop serves on.
        }
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
    closeKeepingSlot(connection);
    --server.shared->connections;
}

// Closes the connection; its place in the server's bound is handed to the caller.
void QBTCPEventServer::Loop::closeKeepingSlot(Connection& connection) {
    const int descriptor = connection.descriptor;
    ::close(descriptor);  // also leaves the epoll set
    connections.erase(descriptor);
}

// ---- Offloaded requests ---------------------------------------------------------------------

void QBTCPEventServer::Loop::markBusy(Connection& connection) {
    connection.busy = true;
    connection.mayReplyDirectly = connection.pending.empty();
    connection.handOver.store(working);
    ++busyConnections;
}

void QBTCPEventServer::Loop::defer(Connection& connection, Defer& deferred) {
    markBusy(connection);
    // The loop runs until every busy connection has had its completion, so it outlives every
    // finish that is still to come.
    const auto finished = std::make_shared<std::atomic<bool>>(false);
    const Finish finish = [this, &connection, finished](std::optional<std::string> reply) {
        if (!finished->exchange(true)) complete(connection, std::move(reply));
    };
    bool started = false;
    try {
        started = deferred.start(finish);
    } catch (...) {
        finish(std::nullopt);  // a request that fails to start closes its connection
        return;
    }
    if (started) return;
    // Nobody else has seen the connection: the work may simply run on the pool instead.
    connection.busy = false;
    --busyConnections;
    offload(connection, std::move(deferred.otherwise));
}

void QBTCPEventServer::Loop::offload(Connection& connection,
                                     std::function<std::optional<std::string>()> work) {
    markBusy(connection);
    const bool queued = workers.submit([this, &connection, work = std::move(work)] {
        std::optional<std::string> reply;
        try {
            reply = work();
        } catch (...) {
            // A failed request closes its connection, as any refusal does.
        }
        complete(connection, std::move(reply));
    });
    if (!queued) {
        connection.busy = false;
        --busyConnections;
        close(connection);
    }
}

// Runs on the thread that has the reply. A busy connection is neither closed nor read by the
// loop, so its descriptor is this thread's to send on until the hand-over says otherwise. When
// the whole reply goes out at once and the loop has not touched the connection meanwhile, the
// loop is not even woken: the peer's next request (or the next sweep) brings the connection
// back to it. Everything else (no reply, a stop, a reply that does not fit, received bytes that
// wait, an event that came first) goes to the loop as a completion.
void QBTCPEventServer::Loop::complete(Connection& connection, std::optional<std::string> reply) {
    const int descriptor = connection.descriptor;
    if (reply && !reply->empty() && connection.mayReplyDirectly && !stopping.load()) {
        const ssize_t sent =
            ::send(descriptor, reply->data(), reply->size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent == static_cast<ssize_t>(reply->size())) {
            int expected = working;
            if (connection.handOver.compare_exchange_strong(expected, replied)) return;
            reply->clear();  // sent; the loop only has to watch the connection again
        } else if (sent > 0) {
            reply->erase(0, static_cast<std::size_t>(sent));  // the loop sends the rest
        }
        // On a failed send the loop's own send fails the same way and closes the connection.
    }
    post(Completion{descriptor, std::move(reply)});
}

// An event for a busy connection. True when its reply has gone out meanwhile: it is now served
// as any other. False while its request is still being worked on: the event is left for later
// and the connection leaves the epoll set (level-triggered, a hang-up or early bytes would be
// reported again and again) until its completion puts it back.
bool QBTCPEventServer::Loop::settleBusy(Connection& connection) {
    int expected = working;
    if (connection.handOver.compare_exchange_strong(expected, unwatched)) {
        ::epoll_ctl(epoll, EPOLL_CTL_DEL, connection.descriptor, nullptr);
        return false;
    }
    if (expected != replied) return false;
    connection.busy = false;
    --busyConnections;
    connection.lastActivity = now;
    return true;
}

// Takes up the connections whose replies went out without a completion: they wait for the
// peer's next request as any other (with that stage's time-out from now on).
void QBTCPEventServer::Loop::settleReplied() {
    std::vector<Connection*> settled;
    for (auto& entry : connections) {
        auto& connection = *entry.second;
        if (connection.busy && connection.handOver.load() == replied && settleBusy(connection)) {
            settled.push_back(&connection);
        }
    }
    for (auto* connection : settled) {
        if (stopping) {
            close(*connection);
        } else {
            advance(*connection);
        }
    }
}

// Runs on the finishing thread. The wake-up is written under the lock, so the loop, which takes
// the lock to collect completions, cannot end and close it while a poster still uses it.
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
    const bool watched = connection.handOver.load() != unwatched ||
                         (!stopping && watch(connection.descriptor, EPOLLIN, EPOLL_CTL_ADD));
    if (stopping || !reply || !watched) {
        close(connection);
        return;
    }
    connection.lastActivity = now;
    const bool sent = reply->empty() || send(connection, *reply);
    if (sent && connection.output.empty()) advance(connection);
}

// ---- Time-outs and stopping -----------------------------------------------------------------

void QBTCPEventServer::Loop::sweep() {
    lastSweep = now;
    if (busyConnections > 0) settleReplied();
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
    : protocol(protocol), limits(limits), shared(std::make_unique<Shared>(limits.maxConnections)) {}

QBTCPEventServer::~QBTCPEventServer() = default;

bool QBTCPEventServer::serve(int listeningDescriptor) {
    if (shared->stopEvent < 0 || shared->served.exchange(true)) return false;
    const std::size_t processors = std::max(1u, std::thread::hardware_concurrency());
    const std::size_t loopCount =
        limits.loopThreads > 0 ? limits.loopThreads : std::min(processors, maxDefaultLoops);

    // Declared before the loops, so that it outlives them: its threads post to the loops.
    QBWorkerPool workers(limits.workers);
    std::vector<std::unique_ptr<Loop>> loops;
    for (std::size_t i = 0; i < loopCount; ++i) {
        loops.push_back(std::make_unique<Loop>(*this, workers, listeningDescriptor));
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
