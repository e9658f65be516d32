#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "QBSocket.h"
#include "QBTCPEventServerLoop.h"
#include "platform/QBLog.h"

namespace QBTCPEventServerDetail {

namespace {

bool wouldBlock(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

// ---- Closing ----------------------------------------------------------------------------------

void Loop::close(Connection& connection) {
    closeKeepingPlace(connections.find(connection.descriptor));
    --shared.connections;
}

// The one way a connection ends. Its place in the server's bound is handed to the caller. A busy
// connection is never closed: another thread may be sending on its descriptor.
Loop::Connections::iterator Loop::closeKeepingPlace(Connections::iterator entry) {
    assert(entry != connections.end() && !entry->second->handOver.busy());
    ::close(entry->first);  // also leaves the epoll set
    const auto next = connections.erase(entry);
    // The last one gone, no deadline is left to wake for (its own would wake an idle loop once).
    if (connections.empty()) nextDeadline = Clock::time_point::max();
    return next;
}

template <typename Condition>
void Loop::closeEvery(Condition condition) {
    for (auto entry = connections.begin(); entry != connections.end();) {
        if (condition(*entry->second)) {
            entry = closeKeepingPlace(entry);
            --shared.connections;
        } else {
            ++entry;
        }
    }
}

// ---- The loop -------------------------------------------------------------------------------

Loop::Loop(Protocol& protocol, Shared& shared, QBWorkerPool& workers, int listener)
    : protocol(protocol),
      shared(shared),
      workers(workers),
      listener(listener),
      epoll(::epoll_create1(EPOLL_CLOEXEC)),
      wake(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    registered = epoll >= 0 && wake >= 0 && watch(wake, EPOLLIN, EPOLL_CTL_ADD) &&
                 watch(shared.stopEvent, EPOLLIN, EPOLL_CTL_ADD) &&
                 watch(listener, EPOLLIN | EPOLLEXCLUSIVE, EPOLL_CTL_ADD);
}

// The loop has ended: no connection is busy any more.
Loop::~Loop() {
    closeEvery([](const Connection&) { return true; });
    if (wake >= 0) ::close(wake);
    if (epoll >= 0) ::close(epoll);
}

bool Loop::watch(int descriptor, std::uint32_t events, int operation) {
    epoll_event event{};
    event.events = events;
    event.data.fd = descriptor;
    return ::epoll_ctl(epoll, operation, descriptor, &event) == 0;
}

void Loop::run() {
    std::array<epoll_event, eventsPerWait> events{};
    while (!stopping || busyConnections > 0) {
        int count = 0;
        if (epollFailed) {
            waitForCompletions();
        } else {
            count = ::epoll_wait(epoll, events.data(), eventsPerWait, waitMilliseconds());
            if (count < 0 && errno != EINTR) failed(errno);
        }
        now = Clock::now();
        for (int i = 0; i < count; ++i) dispatch(events[static_cast<std::size_t>(i)]);
        if (stopRequested && !stopping) beginStop();
        if (stopping && busyConnections > 0) settleReplied();
        if (now >= nextDeadline || (needsSweeps() && now - lastSweep >= sweepInterval)) sweep();
    }
}

// While the loop stops, replies that other threads send themselves must be noticed without
// waiting for the deadlines: the loop ends only after the last of them.
bool Loop::needsSweeps() const {
    return listenerPaused || (stopping && busyConnections > 0);
}

int Loop::waitMilliseconds() const {
    auto wakeAt = nextDeadline;
    if (needsSweeps()) wakeAt = std::min(wakeAt, lastSweep + sweepInterval);
    if (wakeAt == Clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(wakeAt - Clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 1 << 30));
}

void Loop::setDeadline(Connection& connection, Clock::time_point deadline) {
    connection.deadline = deadline;
    nextDeadline = std::min(nextDeadline, deadline);
}

// The epoll set cannot be waited on (a fault of this program or the kernel's): the loop cannot
// serve its connections any more, and a server with a dead loop would leave its share of the
// connections hanging. So the whole server stops, and says why.
void Loop::failed(int error) {
    epollFailed = true;
    stopRequested = true;
    QBLog::log(std::string("Event loop failed, server stopped: ") + std::strerror(error));
    shared.requestStop();
}

// Without a usable epoll set, finished jobs are still collected, through the wake-up alone.
void Loop::waitForCompletions() {
    pollfd finished{wake, POLLIN, 0};
    if (::poll(&finished, 1, static_cast<int>(sweepInterval.count())) > 0) runCompletions();
}

void Loop::dispatch(const epoll_event& event) {
    const int descriptor = event.data.fd;
    if (descriptor == listener) {
        acceptConnections();
    } else if (descriptor == wake) {
        runCompletions();
    } else if (descriptor == shared.stopEvent) {
        stopRequested = true;
    } else if (const auto found = connections.find(descriptor); found != connections.end()) {
        auto& connection = *found->second;
        if (!connection.handOver.busy() || settleBusy(connection)) {
            serveEvent(connection, event.events);
        }
    }
}

// ---- Accepting ------------------------------------------------------------------------------

void Loop::acceptConnections() {
    bool admitted = false;
    for (int i = 0; i < acceptsPerWake && !listenerPaused; ++i) {
        const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (descriptor >= 0) {
            admit(descriptor);
            admitted = true;
        } else if (errno == EINTR || errno == ECONNABORTED) {
            continue;
        } else {
            // Out of descriptors: make room, or rest, since the listener stays readable;
            // otherwise nothing is left to accept (another loop may have taken it). The kernel
            // says so before it looks at the queue: after an admission in this round the queue
            // may be empty, and the one to give way could be the newcomer itself. A listener
            // still readable wakes the loop again, and then room is made.
            if (!QBSocket::outOfResources(errno) || admitted) return;
            if (Connection* longest = longestWaiting()) {
                close(*longest);
            } else {
                pauseAccepting();
            }
            return;
        }
    }
}

void Loop::admit(int descriptor) {
    if (!shared.reserveSlot()) {
        // Every place is taken: the connection of this loop that has waited longest for its
        // peer hands its place over; without one, the newcomer is turned away. Connections
        // whose replies went out meanwhile are waiting for their peers too.
        if (busyConnections > 0) settleReplied();
        Connection* longest = longestWaiting();
        if (!longest) {
            ::close(descriptor);
            return;
        }
        closeKeepingPlace(connections.find(longest->descriptor));
    }
    // A reply is written with one send; do not hold its last segment back for an ACK.
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (!watch(descriptor, EPOLLIN, EPOLL_CTL_ADD)) {
        ::close(descriptor);
        --shared.connections;
        return;
    }
    auto& connection = *connections.emplace(descriptor, std::make_unique<Connection>(descriptor, now))
                            .first->second;
    try {
        protocol.clientConnected();
    } catch (...) {
        // A notification that fails does not cost the connection or the loop.
    }
    advance(connection);
}

Loop::Connection* Loop::longestWaiting() {
    Connection* longest = nullptr;
    for (auto& entry : connections) {
        auto& candidate = *entry.second;
        if (!candidate.handOver.busy() && (!longest || candidate.lastActivity < longest->lastActivity)) {
            longest = &candidate;
        }
    }
    return longest;
}

void Loop::pauseAccepting() {
    if (::epoll_ctl(epoll, EPOLL_CTL_DEL, listener, nullptr) == 0) listenerPaused = true;
}

// ---- Serving a connection -------------------------------------------------------------------

void Loop::serveEvent(Connection& connection, std::uint32_t events) {
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

void Loop::receive(Connection& connection) {
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
void Loop::advance(Connection& connection, Clock::time_point stageStart) {
    for (;;) {
        Step step = Close{};
        try {
            step = protocol.nextStep(connection.pending, connection.seen);
        } catch (...) {
            // A request whose handling fails on the loop thread closes its connection, as any
            // refusal does; the loop serves on.
        }
        if (const auto* wait = std::get_if<Wait>(&step)) {
            // Only a wait for any new byte is a scan that the next look may resume.
            connection.seen = wait->needed == 0 ? connection.pending.size() : 0;
            connection.needed = wait->needed;
            if (connection.pending.empty()) connection.rest = wait->timeout;
            if (wait->stage != connection.stage) {
                connection.stage = wait->stage;
                setDeadline(connection, stageStart + wait->timeout);
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

void Loop::consume(Connection& connection, std::size_t count) {
    connection.pending.erase(0, std::min(count, connection.pending.size()));
    connection.seen = 0;
    connection.needed = 0;
    connection.stage = noStage;
}

// Sends bytes, keeping what the peer cannot take yet for later. False when the connection
// failed and was closed.
bool Loop::send(Connection& connection, const std::string& bytes) {
    const ssize_t sent =
        ::send(connection.descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent == static_cast<ssize_t>(bytes.size())) return true;
    if (sent < 0 && !wouldBlock(errno)) {
        close(connection);
        return false;
    }
    connection.output.assign(bytes, sent > 0 ? static_cast<std::size_t>(sent) : 0);
    connection.stage = sendingStage;
    setDeadline(connection, now + QBTCPEventServer::sendStallTimeout);
    if (!watch(connection.descriptor, EPOLLOUT, EPOLL_CTL_MOD)) {
        close(connection);
        return false;
    }
    return true;
}

bool Loop::flush(Connection& connection) {
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

// ---- Time-outs and stopping -----------------------------------------------------------------

void Loop::sweep() {
    lastSweep = now;
    if (busyConnections > 0) {
        settleReplied();
        postponeBusy();
    }
    closeEvery([this](const Connection& connection) {
        return !connection.handOver.busy() && now >= connection.deadline;
    });
    // The exact earliest deadline of those left.
    nextDeadline = Clock::time_point::max();
    for (const auto& entry : connections) nextDeadline = std::min(nextDeadline, entry.second->deadline);
    if (listenerPaused && !stopping && watch(listener, EPOLLIN | EPOLLEXCLUSIVE, EPOLL_CTL_ADD)) {
        listenerPaused = false;
    }
}

// Stops accepting and closes every connection that is not waiting for a job; those are closed
// when their jobs finish, and the loop ends after the last one.
void Loop::beginStop() {
    stopping = true;
    if (!listenerPaused) ::epoll_ctl(epoll, EPOLL_CTL_DEL, listener, nullptr);
    ::epoll_ctl(epoll, EPOLL_CTL_DEL, shared.stopEvent, nullptr);
    closeEvery([](const Connection& connection) { return !connection.handOver.busy(); });
}

}  // namespace QBTCPEventServerDetail
