#include "QBTCPSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "QBThread.h"
#include "platform/QBLog.h"
#include "platform/QBText.h"

namespace {

using Clock = std::chrono::steady_clock;

// First size of a connection's read-ahead; it doubles up to maxMessageLength when a message
// needs more. A request header block of a browser fits in the first size.
constexpr std::size_t initialReadAheadSize = 4096;
// Most bytes one non-waiting read takes from the kernel, whatever count the caller asks for, so
// that a huge count cannot make it allocate a huge temporary block.
constexpr std::size_t maxSingleReceive = 1024 * 1024;
// Connections accepted for one wake-up of the accept loop, before it looks at the wake pipe
// again: a burst is drained without a poll per connection, and a shutdown is still seen soon.
constexpr int acceptBatch = 32;
// After accept fails for want of descriptors or memory the listening socket stays readable;
// the loop pauses this long (still waking for shutdownServer) instead of spinning.
constexpr int acceptPauseMilliseconds = 100;

std::string systemErrorText(int error) {
    char text[256];
    return strerror_r(error, text, sizeof text);
}

// Milliseconds until deadline for poll(2), at least 0.
int millisecondsUntil(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT32_MAX));
}

// Seconds as milliseconds for poll(2), clamped to its range.
int pollMilliseconds(std::int32_t seconds) {
    return static_cast<int>(std::min<std::int64_t>(std::int64_t{seconds} * 1000, INT32_MAX));
}

}  // namespace

// ---- Creation and state ---------------------------------------------------------------------

std::shared_ptr<QBTCPSocket> QBTCPSocket::socket() {
    return std::make_shared<QBTCPSocket>();
}

std::shared_ptr<QBTCPSocket> QBTCPSocket::socketWithExistingSocket(
    std::int32_t existingSocket, std::shared_ptr<QBIPAddress> andAddress, std::int32_t andPort) {
    return std::make_shared<QBTCPSocket>(existingSocket, std::move(andAddress), andPort);
}

QBTCPSocket::QBTCPSocket() = default;

QBTCPSocket::QBTCPSocket(std::int32_t existingSocket, std::shared_ptr<QBIPAddress>,
                         std::int32_t andPort)
    : _socket(existingSocket), _port(andPort), socketState(stateOpen) {}

QBTCPSocket::~QBTCPSocket() {
    QBTCPSocket::close();
    QBMutexLock guard(serverLock);
    for (int& end : wakePipe) {
        if (end >= 0) ::close(end);
        end = -1;
    }
}

bool QBTCPSocket::isOpen() {
    return socketState == stateOpen;
}

void QBTCPSocket::close() {
    if (socketState != stateOpen) return;
    ::close(_socket);
    socketState = stateClosed;
    _host.reset();
    _port = 0;
    boundPort.store(0);
    dropReadAhead();
}

void QBTCPSocket::releaseDescriptor() {
    ::close(_socket);
    _socket = 0;
}

bool QBTCPSocket::setBlocking(bool blocking) {
    const int flags = ::fcntl(_socket, F_GETFL);
    if (flags < 0) return false;
    const int wanted = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
    if (::fcntl(_socket, F_SETFL, wanted) < 0) return false;
    nonBlocking = blocking;
    return true;
}

void QBTCPSocket::setNoDelay() {
    const int on = 1;
    ::setsockopt(_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

QBTCPSocket::Wait QBTCPSocket::waitFor(short events, int timeoutMilliseconds) const {
    pollfd entry{_socket, events, 0};
    const int ready = ::poll(&entry, 1, timeoutMilliseconds);
    if (ready < 0 || (ready > 0 && (entry.revents & POLLNVAL))) return Wait::failed;
    return ready == 0 ? Wait::timedOut : Wait::ready;
}

// ---- Connecting -----------------------------------------------------------------------------

bool QBTCPSocket::connectToHost(const std::optional<std::string>& host, std::int32_t port) {
    return connectToHost(host, port, defaultConnectTimeout);
}

bool QBTCPSocket::connectToHost(const std::optional<std::string>& host, std::int32_t port,
                                std::int32_t timeout) {
    _socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (_socket < 0) {
        _socket = 0;
        return false;
    }
    const auto fail = [this] {
        releaseDescriptor();
        return false;
    };
    if (!setBlocking(false) || !host || host->empty()) return fail();

    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host->c_str(), nullptr, &hints, &found) != 0 || !found) return fail();
    sockaddr_in address{};
    std::memcpy(&address, found->ai_addr, sizeof address);
    ::freeaddrinfo(found);
    address.sin_port = htons(static_cast<std::uint16_t>(port));

    if (::connect(_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if (errno != EINPROGRESS) return fail();
        if (waitFor(POLLOUT, timeout > 0 ? pollMilliseconds(timeout) : 0) != Wait::ready) {
            return fail();
        }
        int error = 0;
        socklen_t length = sizeof error;
        if (::getsockopt(_socket, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
            return fail();
        }
    }
    socketState = stateOpen;
    _host = host;
    _port = port;
    return true;
}

// ---- Serving --------------------------------------------------------------------------------

bool QBTCPSocket::listenOnAddress(std::shared_ptr<QBIPAddress> address, std::int64_t andPort) {
    // Only an IPv4 address (or none, the any-address) is accepted: taking the IPv4 field of
    // another kind of address would bind to an address nobody asked for.
    if (address && address->ipVersion() != 4) return false;
    _socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (_socket < 0) {
        _socket = 0;
        return false;
    }
    if (!setBlocking(false)) {
        releaseDescriptor();
        return false;
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<std::uint16_t>(andPort));
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    if (address) {
        local.sin_addr = reinterpret_cast<const sockaddr_in*>(address->getSockAddr())->sin_addr;
    }
    const int on = 1;
    ::setsockopt(_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(_socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
        ::listen(_socket, listenBacklog) != 0) {
        releaseDescriptor();
        return false;
    }
    socklen_t length = sizeof local;
    if (::getsockname(_socket, reinterpret_cast<sockaddr*>(&local), &length) == 0) {
        boundPort.store(ntohs(local.sin_port));
    }
    socketState = stateOpen;
    _port = static_cast<std::int32_t>(andPort);
    return true;
}

void QBTCPSocket::serveOnAddress(std::shared_ptr<QBIPAddress> address, std::int64_t andPort,
                                 std::weak_ptr<QBTCPSocketServerDelegate> withDelegate) {
    serveOnAddress(std::move(address), andPort, std::move(withDelegate), true);
}

void QBTCPSocket::serveOnAddress(std::shared_ptr<QBIPAddress> address, std::int64_t andPort,
                                 std::weak_ptr<QBTCPSocketServerDelegate> withDelegate,
                                 bool newThread) {
    if (!address) return;
    if (!newThread) {
        internalServeOnData(address, andPort, withDelegate);
        return;
    }
    auto self = weak_from_this().lock();
    if (!self) return;
    QBThread::startDetached(
        [self, address, andPort, withDelegate] {
            self->internalServeOnData(address, andPort, withDelegate);
        },
        0, acceptRole);
}

// The pipe's read end, or -1 when there is no pipe.
int QBTCPSocket::createWakePipe() {
    QBMutexLock guard(serverLock);
    if (wakePipe[0] < 0 && ::pipe2(wakePipe, O_CLOEXEC) != 0) return -1;
    return wakePipe[0];
}

void QBTCPSocket::internalServeOnData(const std::shared_ptr<QBIPAddress>& address,
                                      std::int64_t port,
                                      const std::weak_ptr<QBTCPSocketServerDelegate>& delegate) {
    if (!listenOnAddress(address, port)) return;
    const int wakeReadEnd = createWakePipe();
    if (wakeReadEnd < 0) {
        close();
        boundPort.store(0);
        return;
    }
    while (!shutdown.load()) {
        pollfd ready[2] = {{_socket, POLLIN, 0}, {wakeReadEnd, POLLIN, 0}};
        // A failed poll is ignored, like a failed accept: the loop only ends on shutdown.
        if (::poll(ready, 2, -1) <= 0 || !(ready[0].revents & POLLIN)) continue;
        for (int i = 0; i < acceptBatch && acceptConnection(delegate, wakeReadEnd); ++i) {
        }
    }
    ::close(_socket);
    socketState = stateClosed;
    boundPort.store(0);
}

// Accepts one connection and starts its thread. False when there was none to accept, or
// accepting failed.
bool QBTCPSocket::acceptConnection(const std::weak_ptr<QBTCPSocketServerDelegate>& delegate,
                                   int wakeReadEnd) {
    const int descriptor = ::accept4(_socket, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor < 0) {
        if (QBSocket::outOfResources(errno)) {
            pollfd wake{wakeReadEnd, POLLIN, 0};
            ::poll(&wake, 1, acceptPauseMilliseconds);
        }
        return false;
    }
    auto handler = delegate.lock();
    if (!handler) {
        ::close(descriptor);
        return true;
    }
    // Should no thread start, the connection is closed as the body holding it is destroyed.
    QBThread::startDetached(
        [handler, connection = socketWithExistingSocket(descriptor, nullptr, 0)]() mutable {
            handler->clientConnected(std::move(connection));
        },
        connectionStackSize, connectionRole);
    return true;
}

void QBTCPSocket::shutdownServer() {
    QBMutexLock guard(serverLock);
    if (shutdown.exchange(true)) return;
    if (wakePipe[1] >= 0) {
        const char wake = 0;
        [[maybe_unused]] const auto written = ::write(wakePipe[1], &wake, 1);
    }
}

// ---- Receiving ------------------------------------------------------------------------------

bool QBTCPSocket::reserveReadAheadSpace() {
    if (!readAhead) {
        readAhead = std::make_unique_for_overwrite<std::uint8_t[]>(initialReadAheadSize);
        readAheadCapacity = initialReadAheadSize;
    }
    if (readAheadEnd < readAheadCapacity) return true;
    if (readAheadBegin > 0) {
        std::memmove(readAhead.get(), readAhead.get() + readAheadBegin, pendingLength());
        readAheadEnd -= readAheadBegin;
        readAheadBegin = 0;
        return true;
    }
    if (readAheadCapacity >= maxMessageLength) return false;
    const auto larger = std::min(readAheadCapacity * 2, maxMessageLength);
    auto grown = std::make_unique_for_overwrite<std::uint8_t[]>(larger);
    std::memcpy(grown.get(), readAhead.get(), readAheadEnd);
    readAhead = std::move(grown);
    readAheadCapacity = larger;
    return true;
}

// One non-waiting receive into the read-ahead: the count received, 0 when nothing was waiting
// or there is no room, -1 on an error (logged) or when the peer has closed (socket closed).
std::int64_t QBTCPSocket::receiveIntoReadAhead() {
    if (!reserveReadAheadSpace()) return 0;
    const auto received = ::recv(_socket, readAhead.get() + readAheadEnd,
                                 readAheadCapacity - readAheadEnd, MSG_DONTWAIT);
    if (received > 0) {
        readAheadEnd += static_cast<std::size_t>(received);
        return received;
    }
    if (received == 0) {
        close();
        return -1;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
    QBLog::log("Socket read error: " + systemErrorText(errno));
    return -1;
}

std::int64_t QBTCPSocket::readData(std::uint32_t count, QBBuffer& toBuffer) {
    if (!isOpen()) return -1;
    if (count == 0) {  // a receive of 0 bytes cannot tell "nothing" from "closed"
        close();
        return -1;
    }
    const auto fromReadAhead = std::min<std::size_t>(count, pendingLength());
    const auto wanted = std::min<std::size_t>(count - fromReadAhead, maxSingleReceive);
    const std::uint8_t* bytes = readAhead.get() + readAheadBegin;
    std::unique_ptr<std::uint8_t[]> combined;
    std::size_t total = fromReadAhead;
    if (wanted > 0) {
        combined = std::make_unique_for_overwrite<std::uint8_t[]>(fromReadAhead + wanted);
        if (fromReadAhead > 0) std::memcpy(combined.get(), bytes, fromReadAhead);
        const auto received = ::recv(_socket, combined.get() + fromReadAhead, wanted, MSG_DONTWAIT);
        // With bytes from the read-ahead in hand, an end or error of the stream is reported by
        // the next read instead (the end of a stream is seen again; the error has been logged).
        if (received == 0 && fromReadAhead == 0) {
            close();
            return -1;
        }
        if (received < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            QBLog::log("Socket read error: " + systemErrorText(errno));
            if (fromReadAhead == 0) return -1;
        }
        if (received > 0) total += static_cast<std::size_t>(received);
        bytes = combined.get();
    }
    readAheadBegin += fromReadAhead;
    if (readAheadBegin == readAheadEnd) dropReadAhead();
    if (total == 0) return 0;
    if (!toBuffer.writeRawData(bytes, static_cast<std::int64_t>(total))) {
        QBLog::log("Error: Socket data could not be written to buffer");
    }
    return static_cast<std::int64_t>(total);
}

std::int64_t QBTCPSocket::readData(std::uint32_t count, QBBuffer& toBuffer,
                                   std::chrono::milliseconds wait) {
    const auto deadline = Clock::now() + wait;
    std::uint32_t taken = 0;
    while (taken < count) {
        const auto received = readData(count - taken, toBuffer);
        if (received < 0) return -1;
        taken += static_cast<std::uint32_t>(received);
        if (taken == count || waitFor(POLLIN, millisecondsUntil(deadline)) != Wait::ready) break;
    }
    return taken;
}

// Receives until the read-ahead holds the terminator; returns the length of the message at its
// head, terminator included. Any failure drops what was received of the message.
std::optional<std::size_t> QBTCPSocket::receiveMessage(std::string_view terminator,
                                                       std::int32_t silenceSeconds) {
    if (!isOpen()) return std::nullopt;
    const int silenceMilliseconds = silenceSeconds > 0 ? pollMilliseconds(silenceSeconds) : -1;
    std::size_t searched = 0;  // bytes of the message already searched for the terminator
    for (;;) {
        const auto pending = pendingLength();
        if (terminator.empty() && pending > 0) return 1;  // every byte ends an empty terminator
        if (!terminator.empty() && pending >= terminator.size()) {
            const auto from = searched >= terminator.size() ? searched - terminator.size() + 1 : 0;
            const auto* start = readAhead.get() + readAheadBegin;
            const auto* found = static_cast<const std::uint8_t*>(
                ::memmem(start + from, pending - from, terminator.data(), terminator.size()));
            if (found) return static_cast<std::size_t>(found - start) + terminator.size();
        }
        searched = pending;
        if (pending >= maxMessageLength) break;
        if (waitFor(POLLIN, silenceMilliseconds) != Wait::ready) break;
        if (receiveIntoReadAhead() < 0) break;
    }
    dropReadAhead();
    return std::nullopt;
}

std::optional<std::string> QBTCPSocket::takeMessageText(std::size_t length) {
    const auto* start = reinterpret_cast<const char*>(readAhead.get() + readAheadBegin);
    std::string_view text(start, length);
    readAheadBegin += length;
    if (readAheadBegin == readAheadEnd) dropReadAhead();
    text = text.substr(0, text.find('\0'));
    if (!QBText::isValidUTF8(text)) return std::nullopt;
    return std::string(text);
}

std::unique_ptr<QBBuffer> QBTCPSocket::readDataTerminatedBy(const void* terminator,
                                                            std::int32_t terminalLength,
                                                            std::int32_t withTimeout) {
    const std::string_view bytes(
        static_cast<const char*>(terminator),
        terminator ? static_cast<std::size_t>(std::max(terminalLength, 0)) : 0);
    const auto length = receiveMessage(bytes, withTimeout);
    if (!length) return nullptr;
    auto buffer = QBBuffer::init();
    if (buffer) {
        buffer->writeRawData(readAhead.get() + readAheadBegin, static_cast<std::int64_t>(*length));
    }
    readAheadBegin += *length;
    if (readAheadBegin == readAheadEnd) dropReadAhead();
    return buffer;
}

std::unique_ptr<QBBuffer> QBTCPSocket::readDataTerminatedByString(std::string_view terminator,
                                                                  std::int32_t withTimeout) {
    return readDataTerminatedBy(terminator.data(), static_cast<std::int32_t>(terminator.size()),
                                withTimeout);
}

std::optional<std::string> QBTCPSocket::readStringTerminatedBy(std::string_view terminator,
                                                               std::int32_t withTimeout) {
    const auto length = receiveMessage(terminator, withTimeout);
    if (!length) return std::nullopt;
    return takeMessageText(*length);
}

std::optional<std::string> QBTCPSocket::readLineWithTimeout(std::int32_t timeout) {
    return readStringTerminatedBy("\n", timeout);
}

// ---- Sending --------------------------------------------------------------------------------

bool QBTCPSocket::waitUntilWritable() {
    return waitFor(POLLOUT, static_cast<int>(sendStallTimeout.count())) == Wait::ready;
}

// MSG_NOSIGNAL: a peer that has gone away makes the send fail with EPIPE instead of raising
// SIGPIPE, whether or not the process ignores that signal.
std::int64_t QBTCPSocket::sendRawData(const void* data, std::int32_t withLength, bool waitForAll) {
    if (!data) return 0;
    if (!isOpen()) return -1;
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    std::int64_t sent = 0;
    while (sent < withLength) {
        const auto result = ::send(_socket, bytes + sent,
                                   static_cast<std::size_t>(withLength - sent), MSG_NOSIGNAL);
        if (result >= 0) {
            sent += result;
        } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
            return -1;
        } else if (waitForAll && !waitUntilWritable()) {
            return -1;
        }
        if (!waitForAll) break;
    }
    return sent;
}

std::int64_t QBTCPSocket::sendBuffer(QBBuffer& buffer, bool waitForAll) {
    const auto copy = buffer.rawData();
    if (!copy) return 0;
    if (!isOpen()) return -1;
    const auto length = static_cast<std::int64_t>(copy->size());
    std::int64_t sent = 0;
    do {
        const auto result = ::send(_socket, copy->data() + sent,
                                   static_cast<std::size_t>(length - sent), MSG_NOSIGNAL);
        if (result > 0) {
            buffer.removeData(result);
            sent += result;
        } else if (result < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            QBLog::log("Socket write error: " + systemErrorText(errno));
            return -1;
        } else if (result < 0 && waitForAll && !waitUntilWritable()) {
            return -1;
        }
    } while (waitForAll && sent != length);
    return sent;
}

std::int64_t QBTCPSocket::sendBuffer(QBBuffer& buffer) {
    return sendBuffer(buffer, false);
}

bool QBTCPSocket::sendString(std::string_view text) {
    if (text.empty()) return true;
    if (text.size() > static_cast<std::size_t>(INT32_MAX)) return false;
    return sendRawData(text.data(), static_cast<std::int32_t>(text.size()), true) ==
           static_cast<std::int64_t>(text.size());
}
