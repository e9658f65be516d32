// QBLumentideIPC, sending: the one write path of every message, the senders that wait for their
// answers (reading their connection themselves when they may), and the answer handlers.

#include <algorithm>
#include <chrono>

#include "QBLumentideIPC.h"
#include "QBLumentideIPCConnection.h"

using nlohmann::json;
using namespace QBLumentideIPCSockets;

// ---------------------------------------------------------------------------------------------
// The send operations

std::optional<json> QBLumentideIPC::sendMessage(const std::string& command, const json& data) {
    return transmit(command, data, nullptr, true, _socket.load());
}

void QBLumentideIPC::sendMessageAndDontWait(const std::string& command, const json& data) {
    transmit(command, data, nullptr, false, _socket.load());
}

std::optional<json> QBLumentideIPC::sendMessage(const std::string& command,
                                                const std::optional<json>& data,
                                                const std::optional<std::string>& replyId,
                                                bool getReply, int toSocket) {
    static const json emptyContent = json::object();
    const json& content = data && !data->is_null() ? *data : emptyContent;
    return transmit(command, content, replyId ? &*replyId : nullptr, getReply, toSocket);
}

std::optional<json> QBLumentideIPC::sendMessageToFirstClient(const std::string& command,
                                                             const json& data) {
    if (_mode.load() != serverMode) return std::nullopt;
    int first;
    {
        QBMutexLock clients(clientsLock);
        if (activeSockets.empty()) return std::nullopt;
        first = activeSockets.front()->socket;
    }
    return transmit(command, data, nullptr, true, first);
}

void QBLumentideIPC::sendMessageToFirstClient(const std::string& command, const json& data,
                                              AnswerHandler answered) {
    int first = -1;
    if (_mode.load() == serverMode && data.is_object()) {
        QBMutexLock clients(clientsLock);
        if (!activeSockets.empty()) first = activeSockets.front()->socket;
    }
    const std::shared_ptr<Connection> connection = first >= 0 ? connectionFor(first) : nullptr;
    // A send that waits for room holds the write lock for up to frameWriteTimeout; a client
    // that makes senders wait is not reading now, so this request is not even tried.
    if (!connection || connection->waitingForRoom.load()) {
        deliver(answered, std::nullopt);
        return;
    }
    const auto entry = std::make_shared<WaitingEntry>(connection, std::move(answered));
    std::string messageId;
    if (writeMessage(*connection, command, data, nullptr, entry, RoomWait::onlyIfRoom, messageId)) return;
    // The handler is called with no lock held, unless the connection's end took it first.
    if (AnswerHandler handler = withdraw(messageId, *entry)) deliver(handler, std::nullopt);
}

std::optional<json> QBLumentideIPC::transmit(const std::string& command, const json& content,
                                             const std::string* replyId, bool getReply, int toSocket) {
    if (!content.is_object()) return std::nullopt;
    const std::shared_ptr<Connection> connection = connectionFor(toSocket);
    if (!connection) return std::nullopt;
    // A reply never waits.
    const auto entry = getReply && !replyId ? std::make_shared<WaitingEntry>(connection) : nullptr;
    std::string messageId;
    if (!writeMessage(*connection, command, content, replyId, entry, RoomWait::bounded, messageId)) {
        if (entry) withdraw(messageId, *entry);
        return std::nullopt;
    }
    if (!entry) return std::nullopt;
    // Only once the request is out: a sender whose write blocks must not keep the reader
    // thread off a connection that the peer may be waiting for us to read.
    {
        QBMutexLock guard(connection->lock);
        connection->waiters.push_back(entry.get());
    }
    return awaitReply(messageId, *entry);
}

// ---------------------------------------------------------------------------------------------
// The write path

std::shared_ptr<QBLumentideIPC::Connection> QBLumentideIPC::connectionFor(int socket) {
    QBMutexLock endpoint(endpointLock);
    return openConnection(socket);
}

std::shared_ptr<QBLumentideIPC::Connection> QBLumentideIPC::openConnection(int socket) const {
    // A connection leaves the places checked here under endpointLock, before its descriptor is
    // closed (under its writeLock).
    if (socket < 0) return nullptr;
    if (_mode.load() == serverMode) {
        QBMutexLock clients(clientsLock);
        for (const auto& client : activeSockets) {
            if (client->socket == socket) return client;
        }
        return nullptr;
    }
    if (_socketState.load() != 1 || _socket.load() != socket) return nullptr;
    return clientConnection && clientConnection->socket == socket ? clientConnection : nullptr;
}

bool QBLumentideIPC::writeMessage(Connection& connection, const std::string& command, const json& content,
                                  const std::string* replyId, const std::shared_ptr<WaitingEntry>& entry,
                                  RoomWait room, std::string& messageId) {
    // Only this connection's senders wait here: a peer that does not read holds up no one
    // else, and no longer than frameWriteTimeout.
    QBMutexLock writing(connection.writeLock);
    if (connection.closed) return false;
    {
        QBMutexLock endpoint(endpointLock);
        lastMessageId = nextMessageId(lastMessageId);
        messageId = std::to_string(lastMessageId);
    }
    // The keys in the library's order, so that frameWithEnvelope gives the same bytes.
    const QBLumentideIPCFrames::Member members[] = {
        {"command", &command}, {"content", nullptr, &content}, {"messageid", &messageId}, {"replyid", replyId}};
    bool written = QBLumentideIPCFrames::encodeFrame(connection.outgoing, std::span(members, replyId ? 4 : 3));
    if (written && entry) {
        // Registered before the first byte leaves, so that no answer can come too early.
        QBMutexLock waiting(waitingLock);
        waitingMessages[messageId] = entry;
    }
    if (written) {
        written = room == RoomWait::bounded
                      ? writeWithinBound(connection, reinterpret_cast<const std::uint8_t*>(connection.outgoing.data()),
                                         connection.outgoing.size())
                      : writeIfRoom(connection, connection.outgoing);
    }
    if (connection.outgoing.capacity() > QBLumentideIPCFrames::retainedBufferSize) {
        std::string().swap(connection.outgoing);
    }
    return written;
}

bool QBLumentideIPC::writeWithinBound(Connection& connection, const std::uint8_t* bytes, std::size_t size) {
    const int socket = connection.socket;
    const auto deadline = std::chrono::steady_clock::now() + frameWriteTimeout;
    const bool written = QBLumentideIPCFrames::writeInPieces(
        bytes, size, transferChunkSize, [&](const std::uint8_t* piece, std::size_t length) -> std::ptrdiff_t {
            for (;;) {
                const std::ptrdiff_t sent = sendNow(socket, piece, length);
                if (sent >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return sent;
                const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now());
                pollfd room{socket, POLLOUT, 0};
                connection.waitingForRoom.store(true);
                const bool timedOut = left.count() <= 0 || ::poll(&room, 1, static_cast<int>(left.count()) + 1) == 0;
                connection.waitingForRoom.store(false);
                if (timedOut) {
                    errno = ETIMEDOUT;
                    return -1;
                }
            }
        });
    // A peer that takes nothing for so long is not reading: end its connection (its reader
    // tears it down, and every sender waiting on it gets nothing).
    if (!written && errno == ETIMEDOUT) ::shutdown(socket, SHUT_RDWR);
    return written;
}

bool QBLumentideIPC::writeIfRoom(Connection& connection, const std::string& bytes) {
    // A frame that has started must be finished, so only its first bytes may be refused.
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    const std::ptrdiff_t sent = sendNow(connection.socket, data, std::min(bytes.size(), transferChunkSize));
    if (sent <= 0) return false;
    const auto rest = static_cast<std::size_t>(sent);
    return rest == bytes.size() || writeWithinBound(connection, data + rest, bytes.size() - rest);
}

// ---------------------------------------------------------------------------------------------
// Waiting for an answer

std::optional<json> QBLumentideIPC::awaitReply(const std::string& messageId, WaitingEntry& entry) {
    bool replied;
    {
        QBMutexLock guard(entry.connection->lock);
        while (!entry.replied && !entry.abandoned && !entry.connection->ended && !_shutdown.load()) {
            if (!entry.connection->mayLead()) {
                entry.condition.wait(guard.native());
                continue;
            }
            entry.connection->takeReadToken(ReadToken::leader);
            entry.leading = true;
            guard.unlock();
            const bool open = readAsLeader(*entry.connection);
            guard.relock();
            entry.connection->releaseReadToken(ReadToken::leader);
            entry.leading = false;
            if (!open) entry.connection->markEnded();
        }
        replied = entry.replied && !_shutdown.load();
        std::erase(entry.connection->waiters, &entry);
        entry.connection->handOff();
    }
    // Out of the waiting list first: a late duplicate can then no longer be stored.
    QBMutexLock waiting(waitingLock);
    waitingMessages.erase(messageId);
    QBMutexLock replies(repliesLock);
    const auto stored = messageReplies.find(messageId);
    if (stored == messageReplies.end()) return std::nullopt;
    json content = std::move(stored->second);
    messageReplies.erase(stored);
    if (!replied) return std::nullopt;
    return content;
}

bool QBLumentideIPC::readAsLeader(Connection& connection) {
    // Called with the token held and no lock. Each descriptor watched costs a wait-queue entry
    // made and removed per call. A client endpoint has one connection, so no answer can come on
    // another, and its shutdown shuts the socket down: the socket alone wakes its leaders.
    pollfd watched[2] = {{connection.socket, POLLIN, 0}, {connection.leaderKick, POLLIN, 0}};
    const int ready = ::poll(watched, _mode.load() == serverMode ? 2 : 1, -1);
    if (ready > 0 && watched[1].revents != 0) drainKicks(connection.leaderKick);
    return ready <= 0 || watched[0].revents == 0 || receiveFrames(connection, false);
}

// ---------------------------------------------------------------------------------------------
// Giving up on answers

QBLumentideIPC::AnswerHandler QBLumentideIPC::withdraw(const std::string& messageId, WaitingEntry& entry) {
    QBMutexLock waiting(waitingLock);
    const auto found = waitingMessages.find(messageId);
    if (found != waitingMessages.end() && found->second.get() == &entry) waitingMessages.erase(found);
    return std::move(entry.answered);
}

std::vector<QBLumentideIPC::AnswerHandler> QBLumentideIPC::takeHandlers(const Connection* of) {
    std::vector<AnswerHandler> handlers;
    QBMutexLock waiting(waitingLock);
    for (auto entry = waitingMessages.begin(); entry != waitingMessages.end();) {
        if (entry->second->answered && (of == nullptr || entry->second->connection.get() == of)) {
            handlers.push_back(std::move(entry->second->answered));
            entry = waitingMessages.erase(entry);
        } else {
            ++entry;
        }
    }
    return handlers;
}

void QBLumentideIPC::abandonHandlers(const Connection& of) {
    deliverNothing(takeHandlers(&of));
}

void QBLumentideIPC::abandonWaiters() {
    QBMutexLock waiting(waitingLock);
    for (const auto& [id, entry] : waitingMessages) {
        bool leading;
        {
            QBMutexLock guard(entry->connection->lock);
            entry->abandoned = true;
            leading = entry->leading;
        }
        if (leading) kick(entry->connection->leaderKick);
        entry->condition.notify_one();
    }
}

void QBLumentideIPC::deliver(const AnswerHandler& handler, std::optional<json> answer) {
    try {
        handler(std::move(answer));
    } catch (...) {
        // A handler that fails loses its answer; the thread that delivers it (a connection's
        // reader, or one tearing a connection down) goes on.
    }
}
