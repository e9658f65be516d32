#pragma once
// Private to QBLumentideIPC: one open connection, the entry of a request whose sender waits for
// its answer, and the socket calls that the send and receive paths share.

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "QBLumentideIPC.h"
#include "QBLumentideIPCFrames.h"
#include "QBMutex.h"

// Who may receive from a connection's socket. Only the holder of the token touches the socket's
// input and the connection's InboundFrames.
//
// A sender that waits for an answer takes the token when it is free and reads the connection
// itself (it leads), so that its answer wakes the one thread that waits for it, where a reader
// thread would have to be woken and then wake the sender. On the way a leader completes other
// senders' answers (they may even have been sent on another connection of the endpoint) and
// queues commands for the connection's reader thread, which alone hands them to the delegate,
// one at a time in order of arrival, and writes their replies in that order.
//
// The reader thread watches the socket only while no sender waits on the connection, and no
// sender leads while it watches: so a command or an answer that arrives always finds a thread
// in a receive call, and the reader thread needs no wake-up but the socket. Once it has read an
// answer for a waiting sender it steps aside, so that the next senders lead, and it takes the
// socket up again at most readerResumeDelay after the last of them has left.
//
//   free   --takeReadToken(reader)-->  reader   (the reader thread; no sender waits)
//   free   --takeReadToken(leader)-->  leader   (a waiting sender whose connection allows it)
//   reader/leader --releaseReadToken-->  free   (then handOff picks who goes next)
//
// Nobody takes the token of an ended connection, and the connection's descriptor is closed only
// once the token is free (endConnection): no thread is left reading a closed descriptor.
enum class ReadToken { free, reader, leader };

struct QBLumentideIPC::Connection {
    explicit Connection(int socket) : socket(socket), leaderKick(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~Connection() {
        if (leaderKick >= 0) ::close(leaderKick);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    bool isUsable() const { return leaderKick >= 0; }

    const int socket;      // closed by endConnection, under writeLock, never here
    const int leaderKick;  // an eventfd: wakes a leader out of poll() when its wait ended otherwise

    // Held for a whole send on this connection: from taking the message id to the last byte
    // written, so that frames never interleave and ids leave in the order they are made. Also
    // held to close the descriptor. Comes before the endpoint's endpointLock; no thread holds
    // two of them.
    QBMutex writeLock;
    bool closed QB_GUARDED_BY(writeLock) = false;  // the descriptor is closed: nothing is written
    std::string outgoing QB_GUARDED_BY(writeLock);  // the frame being written, its buffer reused
    std::atomic<bool> waitingForRoom{false};  // the writeLock holder waits for the peer to read

    // Guards the fields below and the flags of every waiting entry of a request sent on this
    // connection (each entry's condition waits on it). Comes after the endpoint's repliesLock.
    QBMutex lock QB_ACQUIRED_AFTER(writeLock);
    std::condition_variable readerWake;  // the reader thread waits here while senders lead
    ReadToken token QB_GUARDED_BY(lock) = ReadToken::free;
    bool readerNeedsCall QB_GUARDED_BY(lock) = false;  // the parked reader thread waits for handOff
    bool ended QB_GUARDED_BY(lock) = false;            // the connection is over; the token stays free
    std::vector<WaitingEntry*> waiters QB_GUARDED_BY(lock);  // senders of requests on it, until they return
    std::deque<nlohmann::json> commands QB_GUARDED_BY(lock);  // read, not yet handed to the delegate
    std::deque<std::size_t> commandSizes QB_GUARDED_BY(lock);  // the frame body size of each
    std::size_t queuedBodyBytes QB_GUARDED_BY(lock) = 0;       // their sum
    std::thread::id readerThread QB_GUARDED_BY(lock);          // the thread that runs the reader loop

    // Used only by the holder of the token.
    QBLumentideIPCFrames::InboundFrames input;
    std::uint64_t answersRead = 0;  // answers matched to waiting senders

    void takeReadToken(ReadToken holder) QB_REQUIRES(lock) {
        assert(holder != ReadToken::free);
        assert(token == ReadToken::free && !ended);
        token = holder;
    }
    void releaseReadToken(ReadToken holder) QB_REQUIRES(lock) {
        assert(token == holder);
        (void)holder;
        token = ReadToken::free;
    }

    // Whether a waiting sender may take the token now. Not while the reader thread watches the
    // socket: it reads what comes (and then steps aside). A full command queue pauses reading
    // until the reader thread catches up, as a busy reader thread would; the reader thread's
    // own requests (a delegate that asks something) may always read on.
    bool mayLead() const QB_REQUIRES(lock) {
        const bool queueHasRoom =
            commands.size() < maximumQueuedCommands && queuedBodyBytes < maximumQueuedBodyBytes;
        return token == ReadToken::free && (queueHasRoom || readerThread == std::this_thread::get_id());
    }

    // Whenever the token may have become free: wakes the next sender that may lead, or else
    // the parked reader thread; on an ended connection, everyone, to give up.
    void handOff() QB_REQUIRES(lock);

    void markEnded() QB_REQUIRES(lock) {
        ended = true;
        handOff();
    }
};

// A request whose sender waits for its answer, or hands it to a handler. Its flags are guarded
// by its connection's lock, and its condition waits on that lock.
struct QBLumentideIPC::WaitingEntry {
    explicit WaitingEntry(std::shared_ptr<Connection> connection, AnswerHandler answered = {})
        : connection(std::move(connection)), answered(std::move(answered)) {}

    const std::shared_ptr<Connection> connection;  // the connection that carries the request
    std::condition_variable condition;
    bool replied QB_GUARDED_BY(connection->lock) = false;    // the answer is in messageReplies
    bool abandoned QB_GUARDED_BY(connection->lock) = false;  // the endpoint shut down
    bool leading QB_GUARDED_BY(connection->lock) = false;    // the sender holds the read token
    // Set for a request whose sender does not wait: it gets the answer (or nothing) instead. Such
    // an entry is never among its connection's waiters, so the reader thread reads its answer.
    // It is taken out of the entry under the endpoint's waitingLock, by whoever takes the entry
    // out of waitingMessages, so it runs once.
    AnswerHandler answered;

    // Its sender still waits for the answer. For the connection's own sweeps: every entry in a
    // connection's waiters carries a request on it, so that connection's lock is the one held.
    bool stillWaits(const Connection& on) const QB_NO_THREAD_SAFETY_ANALYSIS {
        assert(connection.get() == &on);
        (void)on;
        return !replied && !abandoned;
    }
};

inline void QBLumentideIPC::Connection::handOff() {
    if (ended) {
        for (WaitingEntry* waiter : waiters) waiter->condition.notify_one();
        readerWake.notify_one();
        return;
    }
    if (token != ReadToken::free) return;
    for (WaitingEntry* waiter : waiters) {
        if (waiter->stillWaits(*this)) {
            waiter->condition.notify_one();
            return;
        }
    }
    if (waiters.empty() && readerNeedsCall) readerWake.notify_one();
}

namespace QBLumentideIPCSockets {

// The address of a filesystem socket at path; false for a path that the address cannot hold
// whole (empty, too long, or with an embedded NUL that would cut it short).
inline bool makeAddress(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() > QBLumentideIPC::maximumSocketPathLength) return false;
    if (path.find('\0') != std::string::npos) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

// What the socket takes now, without waiting: -1 with EAGAIN when it has no room.
inline std::ptrdiff_t sendNow(int socket, const std::uint8_t* bytes, std::size_t length) {
    for (;;) {
        const ssize_t sent = ::send(socket, bytes, length, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno == EINTR) continue;
        return sent;
    }
}

// Wakes a thread that waits in poll() on the other end. Writing a counter never blocks (it only
// fails when the counter would overflow, and then the thread is already awake).
inline void kick(int eventDescriptor) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t ignored = ::write(eventDescriptor, &one, sizeof one);
}

inline void drainKicks(int eventDescriptor) {
    std::uint64_t count;
    [[maybe_unused]] const ssize_t ignored = ::read(eventDescriptor, &count, sizeof count);
}

}  // namespace QBLumentideIPCSockets
