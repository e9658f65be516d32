#include "QBTCPEventServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "QBTCPEventServerLoop.h"
#include "QBThread.h"

namespace QBTCPEventServerDetail {

// ---- Shared state ---------------------------------------------------------------------------

Shared::Shared(std::size_t maxConnections)
    : stopEvent(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), maxConnections(maxConnections) {}

Shared::~Shared() {
    if (stopEvent >= 0) ::close(stopEvent);
}

bool Shared::reserveSlot() {
    std::size_t current = connections.load();
    while (current < maxConnections) {
        if (connections.compare_exchange_weak(current, current + 1)) return true;
    }
    return false;
}

void Shared::requestStop() {
    if (stopEvent < 0) return;
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(stopEvent, &one, sizeof one);
}

// ---- Requests answered elsewhere ------------------------------------------------------------

namespace {

// How long after a request was handed over its connection may need the loop at the earliest: a
// reply sent by another thread at once, then a whole rest without a request. A protocol that
// never said how long a connection may rest has it looked at on every sweep instead.
Clock::duration restOf(std::chrono::milliseconds rest) {
    return rest > Clock::duration::zero() ? Clock::duration(rest) : Clock::duration(sweepInterval);
}

}  // namespace

// The loop is not told when another thread sends a reply itself; it looks at the connection
// again when the rest after such a reply could be over, and then counts the rest from the reply.
void Loop::markBusy(Connection& connection) {
    connection.mayReplyDirectly = connection.pending.empty();
    connection.handOver.begin();
    ++busyConnections;
    setDeadline(connection, now + restOf(connection.rest));
}

// Connections whose requests are still out when the loop looks at them: not before a rest from now.
void Loop::postponeBusy() {
    for (auto& entry : connections) {
        auto& connection = *entry.second;
        if (connection.handOver.busy() && connection.deadline <= now) {
            connection.deadline = now + restOf(connection.rest);
        }
    }
}

HandOver::State Loop::takeBack(Connection& connection) {
    --busyConnections;
    return connection.handOver.takeBack();
}

void Loop::defer(Connection& connection, Defer& deferred) {
    markBusy(connection);
    // The loop runs until every busy connection has had its completion, so it outlives every
    // finish that is still to come.
    const auto finished = std::make_shared<std::atomic<bool>>(false);
    const QBTCPEventServer::Finish finish = [this, &connection,
                                             finished](std::optional<std::string> reply) {
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
    takeBack(connection);
    offload(connection, std::move(deferred.otherwise));
}

void Loop::offload(Connection& connection, std::function<std::optional<std::string>()> work) {
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
        takeBack(connection);
        close(connection);
    }
}

// Runs on the thread that has the reply. A busy connection is neither closed nor read by the
// loop, so its descriptor is this thread's to send on until the hand-over says otherwise. When
// the whole reply goes out at once and the loop has not touched the connection meanwhile, the
// loop is not even woken: the peer's next request (or the next sweep) brings the connection
// back to it. Everything else (no reply, a stop, a reply that does not fit, received bytes that
// wait, an event that came first) goes to the loop as a completion.
void Loop::complete(Connection& connection, std::optional<std::string> reply) {
    const int descriptor = connection.descriptor;
    if (reply && !reply->empty() && connection.mayReplyDirectly && !stopping.load()) {
        const ssize_t sent =
            ::send(descriptor, reply->data(), reply->size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent == static_cast<ssize_t>(reply->size())) {
            if (connection.handOver.tryFinishElsewhere(Clock::now())) return;
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
bool Loop::settleBusy(Connection& connection) {
    switch (connection.handOver.unwatchIfWorking()) {
        case HandOver::State::working:
            ::epoll_ctl(epoll, EPOLL_CTL_DEL, connection.descriptor, nullptr);
            return false;
        case HandOver::State::replied:
            takeBack(connection);
            // Resting since the reply, until the protocol's next wait says otherwise.
            connection.lastActivity = connection.handOver.replyTime();
            setDeadline(connection, connection.lastActivity + restOf(connection.rest));
            return true;
        default:
            return false;
    }
}

// Takes up the connections whose replies went out without a completion: they wait for the
// peer's next request as any other, their rest counted from their replies.
void Loop::settleReplied() {
    std::vector<Connection*> settled;
    for (auto& entry : connections) {
        auto& connection = *entry.second;
        if (connection.handOver.repliedElsewhere() && settleBusy(connection)) {
            settled.push_back(&connection);
        }
    }
    for (auto* connection : settled) {
        if (stopping) {
            close(*connection);
        } else {
            advance(*connection, connection->lastActivity);
        }
    }
}

// Runs on the finishing thread. The wake-up is written under the lock, so the loop, which takes
// the lock to collect completions, cannot end and close it while a poster still uses it.
void Loop::post(Completion completion) {
    QBMutexLock guard(completionLock);
    completions.push_back(std::move(completion));
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake, &one, sizeof one);
}

void Loop::runCompletions() {
    std::vector<Completion> finished;
    {
        QBMutexLock guard(completionLock);
        std::uint64_t count = 0;
        [[maybe_unused]] const auto drained = ::read(wake, &count, sizeof count);
        finished.swap(completions);
    }
    for (auto& completion : finished) {
        const auto found = connections.find(completion.descriptor);
        if (found == connections.end()) continue;
        auto& connection = *found->second;
        const bool unwatched = takeBack(connection) == HandOver::State::unwatched;
        resume(connection, std::move(completion.reply), unwatched);
    }
}

void Loop::resume(Connection& connection, std::optional<std::string> reply, bool unwatched) {
    const bool watched =
        !unwatched || (!stopping && watch(connection.descriptor, EPOLLIN, EPOLL_CTL_ADD));
    if (stopping || !reply || !watched) {
        close(connection);
        return;
    }
    connection.lastActivity = now;
    const bool sent = reply->empty() || send(connection, *reply);
    if (sent && connection.output.empty()) advance(connection);
}

}  // namespace QBTCPEventServerDetail

// ---- The server -----------------------------------------------------------------------------

using QBTCPEventServerDetail::Loop;

QBTCPEventServer::QBTCPEventServer(Protocol& protocol, const Limits& limits)
    : protocol(protocol),
      limits(limits),
      shared(std::make_unique<QBTCPEventServerDetail::Shared>(limits.maxConnections)) {}

QBTCPEventServer::~QBTCPEventServer() = default;

namespace {

// "loop-94-" for a listener on 127.94.0.1; "loop-" when its address is no IPv4 one.
std::string loopRolePrefix(int listeningDescriptor) {
    std::string prefix = std::string(QBTCPEventServerDetail::loopRole) + "-";
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(listeningDescriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
        address.sin_family == AF_INET) {
        prefix += std::to_string((ntohl(address.sin_addr.s_addr) >> 16) & 0xFF) + "-";
    }
    return prefix;
}

}  // namespace

bool QBTCPEventServer::serve(int listeningDescriptor) {
    if (shared->stopEvent < 0 || shared->served.exchange(true)) return false;
    const std::size_t processors = std::max(1u, std::thread::hardware_concurrency());
    const std::size_t loopCount =
        limits.loopThreads > 0 ? limits.loopThreads : std::min(processors, maxDefaultLoops);

    // Declared before the loops, so that it outlives them: its threads post to the loops.
    QBWorkerPool workers(limits.workers);
    std::vector<std::unique_ptr<Loop>> loops;
    for (std::size_t i = 0; i < loopCount; ++i) {
        loops.push_back(std::make_unique<Loop>(protocol, *shared, workers, listeningDescriptor));
        if (!loops.back()->ready()) return false;
    }
    const std::string role = loopRolePrefix(listeningDescriptor);
    std::vector<QBThread> threads;
    for (std::size_t i = 1; i < loops.size(); ++i) {
        auto thread = QBThread::start([loop = loops[i].get()] { loop->run(); }, 0,
                                      (role + std::to_string(i)).c_str());
        if (!thread) break;  // serve with the loops that could be started
        threads.push_back(std::move(*thread));
    }
    QBThread::nameCurrent(role + "0");
    loops.front()->run();
    for (auto& thread : threads) thread.join();
    return true;
}

void QBTCPEventServer::shutdown() {
    shared->requestStop();
}

std::size_t QBTCPEventServer::connectionCount() const {
    return shared->connections.load();
}
