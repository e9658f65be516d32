#pragma once
// Private to QBTCPEventServer: the state its event loops share, the hand-over of a busy
// connection, and one event loop. QBTCPEventServerLoop.cpp runs the loop (accepting, reading,
// sending, time-outs, stopping); QBTCPEventServer.cpp holds the server and the loop's part in
// requests answered elsewhere (offloaded and deferred ones).

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <cassert>
#include <chrono>
#include <climits>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "QBMutex.h"
#include "QBTCPEventServer.h"

namespace QBTCPEventServerDetail {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Largest single receive. A request's header block is far smaller; a larger read would only
// let a peer park more bytes in the connection's store.
constexpr std::size_t receiveChunk = 16 * 1024;
constexpr int eventsPerWait = 128;
// How often a loop looks again while it has something to take up that no event or deadline
// announces: a listener paused for want of descriptors, or, while the loop stops, connections
// whose replies other threads finished. Everything else is kept by the wait itself: a loop
// sleeps until the earliest deadline of its connections, and a loop with none sleeps until an
// event comes.
constexpr auto sweepInterval = 250ms;
// Connections accepted in one go before the loop serves its other connections.
constexpr int acceptsPerWake = 64;
// A drained connection keeps at most this much storage; a burst's larger store is given back.
constexpr std::size_t keptCapacity = 4 * 1024;
// Role names of the loop threads: "loop-<second byte of the IPv4 address>-<loop>" ("loop-94-0"
// serves 127.94.0.1), or "loop-<loop>".
constexpr const char* loopRole = "loop";

// Stages of the loop's own: none yet (the next Wait always sets a deadline), and sending.
constexpr int noStage = INT_MIN;
constexpr int sendingStage = INT_MIN + 1;

// Where a connection stands between its loop and a thread that works out its reply. An idle
// connection is the loop's alone. Once the loop hands a request over, the connection is busy:
// the loop neither reads nor closes it, and the thread that has the reply may send on it. It
// stays in the epoll set meanwhile, so a request costs no epoll_ctl calls; only an event that
// arrives while it is busy takes it out.
//
//   idle -> working        begin:              the loop hands a request over
//   working -> unwatched   unwatchIfWorking:   an event came first; the loop took the connection
//                                              out of the epoll set, so the reply must come back
//                                              to it as a completion
//   working -> replied     tryFinishElsewhere: the finishing thread sent the whole reply itself;
//                                              the loop is not woken for it, and learns when
//                                              the reply went out once it looks again
//   busy -> idle           takeBack:           the loop takes it up again, from a completion or
//                                              on hearing of a reply sent elsewhere
//
// Only the finishing thread leaves working for replied, and it touches the connection no more
// once it has (or once it has posted its completion); every other transition is the loop's.
class HandOver {
public:
    enum class State : std::uint8_t { idle, working, unwatched, replied };

    bool busy() const { return state.load() != State::idle; }
    bool repliedElsewhere() const { return state.load() == State::replied; }

    void begin() {
        assert(state.load() == State::idle);
        state.store(State::working);
    }
    // The state found: working (now unwatched), unwatched or replied.
    State unwatchIfWorking() {
        State found = State::working;
        state.compare_exchange_strong(found, State::unwatched);
        assert(found != State::idle);
        return found;
    }
    // False when the loop unwatched the connection first: it then needs a completion.
    bool tryFinishElsewhere(Clock::time_point sentAt) {
        // Stored before the state that publishes it.
        repliedAt.store(sentAt.time_since_epoch().count(), std::memory_order_relaxed);
        State found = State::working;
        if (state.compare_exchange_strong(found, State::replied)) return true;
        assert(found == State::unwatched);
        return false;
    }
    // The state the connection was busy in.
    State takeBack() {
        const State was = state.exchange(State::idle);
        assert(was != State::idle);
        return was;
    }
    // When the reply went out; meaningful once repliedElsewhere() has been seen.
    Clock::time_point replyTime() const {
        return Clock::time_point(Clock::duration(repliedAt.load(std::memory_order_relaxed)));
    }

private:
    std::atomic<State> state{State::idle};
    std::atomic<Clock::rep> repliedAt{0};
};

// What the loops share: the stop event, and the count of connections for the bound.
struct Shared {
    explicit Shared(std::size_t maxConnections);
    ~Shared();
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    // Takes a place for a new connection; false when all maxConnections are taken. One count
    // for all loops, so the bound holds however the kernel spreads the connections.
    bool reserveSlot();
    // Asks every loop to stop; any thread.
    void requestStop();

    // Written by shutdown() and never read, so it stays readable: every loop sees it.
    const int stopEvent;
    const std::size_t maxConnections;
    std::atomic<bool> served{false};
    std::atomic<std::size_t> connections{0};  // places taken, over all loops
};

// One epoll set: its share of the listener's connections, a wake-up for finished jobs and the
// server's stop event. Everything but complete() and post() runs on the loop's thread.
class Loop {
public:
    using Protocol = QBTCPEventServer::Protocol;
    using Step = QBTCPEventServer::Step;
    using Wait = QBTCPEventServer::Wait;
    using Reply = QBTCPEventServer::Reply;
    using Offload = QBTCPEventServer::Offload;
    using Defer = QBTCPEventServer::Defer;
    using Close = QBTCPEventServer::Close;

    Loop(Protocol& protocol, Shared& shared, QBWorkerPool& workers, int listener);
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
        // Idle: when its stage's time runs out. Busy: when the loop looks at it again, at the
        // earliest moment its reply, if another thread sent it, can have used up its rest.
        Clock::time_point deadline = Clock::time_point::max();
        Clock::time_point lastActivity;
        // The time-out of the protocol's wait with nothing pending: how long the connection may
        // rest between requests (0 until the protocol has said).
        std::chrono::milliseconds rest{0};
        HandOver handOver;
        // While busy: whether the reply may be sent by the finishing thread itself (no
        // received bytes wait behind the request).
        bool mayReplyDirectly = false;
    };
    using Connections = std::unordered_map<int, std::unique_ptr<Connection>>;
    struct Completion {
        int descriptor;
        std::optional<std::string> reply;  // empty: it was sent already
    };

    // The loop (QBTCPEventServerLoop.cpp).
    void dispatch(const epoll_event& event);
    void acceptConnections();
    void admit(int descriptor);
    Connection* longestWaiting();
    void pauseAccepting();
    void serveEvent(Connection& connection, std::uint32_t events);
    void receive(Connection& connection);
    // stageStart: when a stage that the protocol's next wait begins started (a reply sent by
    // another thread starts the rest that follows it).
    void advance(Connection& connection) { advance(connection, now); }
    void advance(Connection& connection, Clock::time_point stageStart);
    void consume(Connection& connection, std::size_t count);
    bool send(Connection& connection, const std::string& bytes);
    bool flush(Connection& connection);
    void close(Connection& connection);
    Connections::iterator closeKeepingPlace(Connections::iterator entry);
    template <typename Condition>
    void closeEvery(Condition condition);
    void failed(int error);
    void waitForCompletions();
    void beginStop();
    void sweep();
    // The deadline of connection becomes deadline; the loop wakes by then.
    void setDeadline(Connection& connection, Clock::time_point deadline);
    // How long the next wait may last: until the earliest deadline, or the next sweep while
    // something waits that no deadline covers; -1 for no bound.
    int waitMilliseconds() const;
    bool needsSweeps() const;
    bool watch(int descriptor, std::uint32_t events, int operation);

    // Requests answered elsewhere (QBTCPEventServer.cpp).
    void offload(Connection& connection, std::function<std::optional<std::string>()> work);
    void defer(Connection& connection, Defer& deferred);
    void markBusy(Connection& connection);
    HandOver::State takeBack(Connection& connection);
    // Busy connections still working at their deadline are looked at again a rest later.
    void postponeBusy();
    void complete(Connection& connection, std::optional<std::string> reply);
    bool settleBusy(Connection& connection);
    void settleReplied();
    void post(Completion completion) QB_EXCLUDES(completionLock);
    void runCompletions() QB_EXCLUDES(completionLock);
    void resume(Connection& connection, std::optional<std::string> reply, bool unwatched);

    Protocol& protocol;
    Shared& shared;
    QBWorkerPool& workers;
    const int listener;
    const int epoll;
    const int wake;  // eventfd: a pool thread finished a job of this loop
    bool registered = false;

    Connections connections;
    std::array<char, receiveChunk> scratch{};
    std::size_t busyConnections = 0;
    bool stopRequested = false;
    std::atomic<bool> stopping{false};  // read by finishing threads too
    bool epollFailed = false;  // the epoll set is unusable: the loop only finishes its jobs
    bool listenerPaused = false;
    Clock::time_point now = Clock::now();
    Clock::time_point lastSweep = now;
    // No deadline of a connection comes before this (it may be earlier than the earliest one: a
    // deadline that moved later leaves it where it was until a sweep).
    Clock::time_point nextDeadline = Clock::time_point::max();

    // A leaf lock, taken by finishing threads (holding none) and by the loop (holding none).
    QBMutex completionLock;
    std::vector<Completion> completions QB_GUARDED_BY(completionLock);
};

}  // namespace QBTCPEventServerDetail
