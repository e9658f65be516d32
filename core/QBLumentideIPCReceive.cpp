// QBLumentideIPC, receiving: the reader thread of a connection, the commands it hands to the
// delegate and answers, the matching of answers to waiting senders, and the end of a connection.

#include <algorithm>

#include "QBLumentideIPC.h"
#include "QBLumentideIPCConnection.h"
#include "platform/QBLog.h"

using nlohmann::json;
using namespace QBLumentideIPCSockets;
using QBLumentideIPCFrames::InboundFrames;

namespace {

const std::string replyCommand = "reply";

// What has arrived, without waiting: -1 with EAGAIN when nothing has.
std::ptrdiff_t receiveNow(int socket, std::uint8_t* bytes, std::size_t length) {
    for (;;) {
        const ssize_t received = ::recv(socket, bytes, length, MSG_DONTWAIT);
        if (received < 0 && errno == EINTR) continue;
        return received;
    }
}

// The same, waiting until input (or the end of the connection) arrives; also on a socket that
// was left non-blocking.
std::ptrdiff_t receiveWaiting(int socket, std::uint8_t* bytes, std::size_t length) {
    for (;;) {
        const ssize_t received = ::recv(socket, bytes, length, 0);
        if (received >= 0) return received;
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
        pollfd input{socket, POLLIN, 0};
        if (::poll(&input, 1, -1) < 0 && errno != EINTR) return -1;
    }
}

}  // namespace

void QBLumentideIPC::processMessages(int socket) {
    const std::shared_ptr<Connection> connection = connectionForReader(socket);
    const bool served = enterReaderLoop(connection);
    if (served) {
        notifyDelegate(&QBLumentideIPCDelegate::clientConnected);
        setBlocking(socket);
        runReader(*connection);
    }
    endConnection(*connection);
    if (_mode.load() != serverMode) shutdown();
    if (served) notifyDelegate(&QBLumentideIPCDelegate::clientDisconnected);
}

void QBLumentideIPC::notifyDelegate(void (QBLumentideIPCDelegate::*notification)(QBLumentideIPC&)) {
    const auto current = delegate();
    if (!current) return;
    try {
        (current.get()->*notification)(*this);
    } catch (...) {
        // A delegate that throws loses its notification, not the connection.
    }
}

std::shared_ptr<QBLumentideIPC::Connection> QBLumentideIPC::connectionForReader(int socket) {
    if (_mode.load() != serverMode) {
        QBMutexLock endpoint(endpointLock);
        if (clientConnection && clientConnection->socket == socket) return clientConnection;
    }
    return std::make_shared<Connection>(socket);
}

bool QBLumentideIPC::enterReaderLoop(const std::shared_ptr<Connection>& connection) {
    if (!connection->isUsable()) return false;
    {
        QBMutexLock guard(connection->lock);
        connection->readerThread = std::this_thread::get_id();
    }
    if (_mode.load() != serverMode) return !_shutdown.load();
    // Checked under the same lock as the teardown's sweep: a reader either joins the list
    // before the sweep or sees the flag and serves nothing.
    {
        QBMutexLock clients(clientsLock);
        if (_shutdown.load()) return false;
        activeSockets.push_back(connection);
        ++clientArrivals;
    }
    notifyClientWaiters();
    return true;
}

void QBLumentideIPC::runReader(Connection& connection) {
    QBMutexLock guard(connection.lock);
    bool stepAside = false;  // this thread has just read an answer: let the next senders lead
    bool longWait = false;   // the last short wait ran out while senders still waited
    while (!connection.ended && !_shutdown.load()) {
        if (!connection.commands.empty()) {
            json envelope = std::move(connection.commands.front());
            connection.commands.pop_front();
            connection.queuedBodyBytes -= connection.commandSizes.front();
            connection.commandSizes.pop_front();
            guard.unlock();
            handleCommand(std::move(envelope), connection.socket);
            guard.relock();
            connection.handOff();  // a leader may have paused for the full queue
            continue;
        }
        if (stepAside || connection.token != ReadToken::free || !connection.waiters.empty()) {
            // Senders read for themselves meanwhile. Under a stream of requests, being called
            // back whenever the last of them leaves would cost a wake-up per round trip; so the
            // thread first looks again by itself after readerResumeDelay, and only when senders
            // still wait then does it ask to be called back.
            if (longWait) {
                connection.readerNeedsCall = true;
                connection.readerWake.wait(guard.native());
                connection.readerNeedsCall = false;
                longWait = false;
            } else {
                longWait = connection.readerWake.wait_for(guard.native(), readerResumeDelay) ==
                           std::cv_status::timeout;
            }
            stepAside = false;
            continue;
        }
        longWait = false;
        // No sender leads while this thread watches (see mayLead), so that a command or answer
        // that arrives always finds this thread awake: only the socket needs watching, and the
        // thread waits in the receive itself (a shutdown(2) of the socket ends that wait).
        connection.takeReadToken(ReadToken::reader);
        const std::uint64_t answeredBefore = connection.answersRead;
        guard.unlock();
        const bool open = receiveFrames(connection, true);
        guard.relock();
        connection.releaseReadToken(ReadToken::reader);
        if (!open) connection.ended = true;
        // Senders that waited while this thread watched read for themselves from now on.
        stepAside = connection.answersRead != answeredBefore || !connection.waiters.empty();
        connection.handOff();
    }
}

bool QBLumentideIPC::receiveFrames(Connection& connection, bool waitForInput) {
    // Called with the token held and no lock. The socket stays blocking for the peer's sake;
    // a receive here waits only when asked to, otherwise poll() has just found input (or the end).
    const std::span<std::uint8_t> space = connection.input.space();
    const std::ptrdiff_t got = waitForInput ? receiveWaiting(connection.socket, space.data(), space.size())
                                            : receiveNow(connection.socket, space.data(), space.size());
    if (got == 0) return false;
    if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
    connection.input.received(static_cast<std::size_t>(got));
    for (;;) {
        std::string_view body;
        InboundFrames::Step step = connection.input.next(body, false);
        if (step == InboundFrames::Step::needTopUp) {
            const std::span<std::uint8_t> more = connection.input.space();
            const std::ptrdiff_t extra = receiveNow(connection.socket, more.data(), more.size());
            if (extra > 0) connection.input.received(static_cast<std::size_t>(extra));
            step = connection.input.next(body, true);
        }
        if (step == InboundFrames::Step::needInput) return true;
        if (step == InboundFrames::Step::broken) return false;
        std::optional<json> envelope = QBLumentideIPCFrames::decodeEnvelope(body);
        if (!envelope) return false;
        handleEnvelope(*envelope, body.size(), connection);
    }
}

void QBLumentideIPC::handleEnvelope(json& envelope, std::size_t bodySize, Connection& connection) {
    if (!isValidEnvelope(envelope)) return;
    if (envelope["command"].get_ref<const std::string&>() == replyCommand) {
        matchReply(envelope, connection);
        return;
    }
    QBMutexLock guard(connection.lock);
    connection.commands.push_back(std::move(envelope));
    connection.commandSizes.push_back(bodySize);
    connection.queuedBodyBytes += bodySize;
    connection.readerWake.notify_one();
}

void QBLumentideIPC::handleCommand(json envelope, int socket) {
    const std::string& command = envelope["command"].get_ref<const std::string&>();
    // Copied: a refused envelope is moved into its answer.
    const std::string messageId = envelope["messageid"].get_ref<const std::string&>();
    const json& content = envelope["content"];
    const auto handler = delegate();
    std::optional<json> answer;
    bool accepted = false;
    try {
        accepted = handler && handler->validateCommand(command, content, *this);
        if (accepted) answer = handler->processCommand(command, content, socket, *this);
    } catch (...) {
        accepted = false;  // a delegate that throws refuses the command; the reader goes on
    }
    if (!accepted) {
        // The echo takes the envelope itself: a large one is not held twice.
        json refusal = json::object();
        refusal["status"] = "INVALID";
        refusal["message"] = std::move(envelope);
        sendReply(messageId, refusal, socket);
        QBLog::log("Invalid command");
        return;
    }
    if (!answer || !answer->is_object()) answer = json{{"status", "OK"}};
    sendReply(messageId, *answer, socket);
}

void QBLumentideIPC::sendReply(const std::string& replyId, const json& content, int socket) {
    const std::shared_ptr<Connection> connection = connectionFor(socket);
    if (!connection) return;
    std::string messageId;
    writeMessage(*connection, replyCommand, content, &replyId, nullptr, RoomWait::bounded, messageId);
}

void QBLumentideIPC::matchReply(json& envelope, Connection& readingOn) {
    const auto replyId = envelope.find("replyid");
    if (replyId == envelope.end() || !replyId->is_string()) return;
    const std::string& id = replyId->get_ref<const std::string&>();
    std::shared_ptr<WaitingEntry> entry;
    bool leadingElsewhere = false;
    AnswerHandler handler;
    {
        QBMutexLock waiting(waitingLock);
        const auto found = waitingMessages.find(id);
        if (found == waitingMessages.end()) return;
        entry = found->second;
        if (entry->answered) {
            // Nobody waits for it: the handler runs below, and this thread reads on (an answer
            // of this kind is no reason for the reader thread to step aside).
            handler = std::move(entry->answered);
            waitingMessages.erase(found);
        } else {
            ++readingOn.answersRead;
            {
                QBMutexLock replies(repliesLock);
                messageReplies[id] = std::move(envelope["content"]);
            }
            QBMutexLock guard(entry->connection->lock);
            assert(!entry->leading || entry->connection->token == ReadToken::leader);
            entry->replied = true;
            // A sender that leads on this connection is the thread that runs here; one that
            // leads on another waits in poll() there.
            leadingElsewhere = entry->leading && entry->connection.get() != &readingOn;
        }
    }
    if (handler) {
        deliver(handler, std::move(envelope["content"]));
        return;
    }
    // Signalled after the locks are released: the woken sender takes them at once to collect
    // its answer, and would otherwise block on this thread a second time.
    if (leadingElsewhere) kick(entry->connection->leaderKick);
    entry->condition.notify_one();
}

// Every client descriptor is closed exactly once, here, by the reader thread of its connection
// (or by connectOnNewThread when no reader thread could start). Before the close: the connection
// is marked ended and its read token is seen free, so no leader polls or reads it any more; it
// is taken out of the client list (server) or out of _socket (client) under endpointLock, so no
// new sender finds it; and the close happens under its writeLock, after which a sender that
// found it earlier sees it closed instead of writing. Everyone else only wakes its users, with
// shutdown(2), and only while the descriptor is known to be open.
void QBLumentideIPC::endConnection(Connection& connection) {
    // Wakes a leader blocked in poll() and a writer blocked on a peer that no longer reads.
    ::shutdown(connection.socket, SHUT_RDWR);
    {
        QBMutexLock guard(connection.lock);
        connection.markEnded();  // every waiting sender of this connection gives up
        while (connection.token != ReadToken::free) connection.readerWake.wait(guard.native());
    }
    {
        QBMutexLock endpoint(endpointLock);
        if (_mode.load() == serverMode) {
            QBMutexLock clients(clientsLock);
            std::erase_if(activeSockets, [&](const auto& client) { return client.get() == &connection; });
        } else {
            QBMutexLock socketGuard(socketLock);
            if (_socket.load() == connection.socket) _socket.store(-1);
            _socketState.store(0);
            if (clientConnection.get() == &connection) clientConnection.reset();
        }
    }
    {
        // A sender that found the connection before it left the lists may still be writing: it
        // fails at once on the shut-down socket, and the close waits for it to let go.
        QBMutexLock writing(connection.writeLock);
        connection.closed = true;
        // Once the number is free, a new connection may get it; nothing here uses it any more.
        ::close(connection.socket);
    }
    // Closed, the connection takes no request any more.
    abandonHandlers(connection);
}
