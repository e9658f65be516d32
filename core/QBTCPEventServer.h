#pragma once
// QBTCPEventServer: serves the connections of a listening TCP socket from a few event-loop
// threads, so that one thread answers many ready connections per wake-up and an idle
// connection costs a little memory instead of a thread.
//
// What the bytes mean is decided by a Protocol. After every receive the loop shows the
// protocol the bytes received and not yet consumed, and the protocol answers with a Step:
//  - Wait:    nothing to do until more bytes arrive (with a time-out; see below);
//  - Reply:   consume a request's bytes and send these reply bytes, then look again;
//  - Offload: consume a request's bytes and run work on a pool thread (it may block); its
//             result is sent as the reply (nothing: the connection is closed), then look again;
//  - Defer:   consume a request's bytes and start work that replies later by itself, from any
//             thread (a request relayed to another process, say), without holding a thread
//             while it waits; work that cannot start so runs as an Offload instead;
//  - Close:   close the connection without a word.
// Requests of one connection are therefore answered in order, one at a time; the connection is
// not read while its reply is being worked out or cannot be sent (back-pressure). The thread
// that has an Offload's or a Defer's reply sends it itself when it fits into the socket at once
// and nothing else waits on the connection, so that the loop is not woken for it.
//
// Time-outs: every Wait names a stage. When the stage differs from the connection's current
// one, its deadline becomes now + the Wait's time-out; while the stage stays the same, the
// deadline stays, however many bytes trickle in. A reply that the peer does not read within
// sendStallTimeout ends the connection too. A connection past its deadline is closed.
//
// Bounds: at most Limits::maxConnections connections, counted once for all loops (the kernel
// may hand most new connections to one loop). A new connection beyond that replaces the
// connection of the loop that accepted it that has waited longest for its peer (one whose reply
// is being worked out is never chosen), and is closed at once when that loop has none. When the
// process runs out of descriptors, accepting pauses briefly.
//
// Faults: an exception from the protocol closes the connection concerned. A loop whose epoll set
// fails logs "Event loop failed, server stopped: <reason>" and stops the whole server.
//
// Threads: serve() runs one loop on the calling thread and the others on threads of its own;
// it returns after shutdown(), when every loop has ended, and only after every offloaded job
// has finished and every deferred request has had its reply (its connection is then closed).
// shutdown() and connectionCount() may be called from any thread at any time. Protocol calls for
// one connection never overlap; those for different connections may run on different loop
// threads at once.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "QBWorkerPool.h"

namespace QBTCPEventServerDetail {
struct Shared;
}

class QBTCPEventServer {
public:
    struct Wait {
        int stage = 0;
        std::chrono::milliseconds timeout{0};
        // Look again only once this many bytes are pending (0: on any new byte). Reads are
        // sized to stop there, so a connection holds no more than it was asked for.
        std::size_t needed = 0;
    };
    struct Reply {
        std::size_t consumed = 0;
        std::string bytes;
    };
    struct Offload {
        std::size_t consumed = 0;
        std::function<std::optional<std::string>()> work;
    };
    // Delivers a deferred request's reply (nothing: the connection is closed). Any thread; only
    // the first call counts.
    using Finish = std::function<void(std::optional<std::string> reply)>;
    struct Defer {
        std::size_t consumed = 0;
        // Runs on the loop thread and must not block. True: the work has started and calls
        // finish once it has the reply (it may already have). False: nothing started; otherwise
        // runs on a pool thread, as an Offload's work would.
        std::function<bool(const Finish& finish)> start;
        std::function<std::optional<std::string>()> otherwise;
    };
    struct Close {};
    using Step = std::variant<Wait, Reply, Offload, Defer, Close>;

    class Protocol {
    public:
        virtual ~Protocol() = default;
        // A connection was accepted (on its loop thread).
        virtual void clientConnected() {}
        // What to do with the pending bytes. alreadySeen of them were pending when the protocol
        // last waited for any new byte (a Wait with needed 0) on the same request, so a scan
        // for a terminator may resume near there; 0 after any other step.
        virtual Step nextStep(std::string_view pending, std::size_t alreadySeen) = 0;
    };

    struct Limits {
        // Event-loop threads; 0: one per processor, at most maxDefaultLoops.
        std::size_t loopThreads = 0;
        // Connections open at once. Each costs a descriptor and a few hundred bytes while idle;
        // a browser opens six per host, so this only bounds a hostile page.
        std::size_t maxConnections = 4096;
        QBWorkerPool::Limits workers{};
    };

    static constexpr std::size_t maxDefaultLoops = 4;
    // A peer that leaves a reply unread this long loses its connection.
    static constexpr std::chrono::milliseconds sendStallTimeout{10000};

    explicit QBTCPEventServer(Protocol& protocol) : QBTCPEventServer(protocol, Limits{}) {}
    QBTCPEventServer(Protocol& protocol, const Limits& limits);
    ~QBTCPEventServer();
    QBTCPEventServer(const QBTCPEventServer&) = delete;
    QBTCPEventServer& operator=(const QBTCPEventServer&) = delete;

    // Serves the connections of listeningDescriptor (a listening, non-blocking TCP socket that
    // stays the caller's) until shutdown(). Once per server; false when the loops cannot be set
    // up or serve was called before.
    bool serve(int listeningDescriptor);
    // Asks serve() to end; returns at once. Also before serve(), which then returns at once.
    void shutdown();
    // Connections open now, over all loops.
    std::size_t connectionCount() const;

private:
    Protocol& protocol;
    const Limits limits;
    std::unique_ptr<QBTCPEventServerDetail::Shared> shared;
};
