// QBLumentideIPC, the server end: the listening socket (bound or from socket activation), the
// accept loop with its wake pipe, the client slots, and the client list.

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <set>

#include "QBLumentideIPC.h"
#include "QBLumentideIPCConnection.h"
#include "QBSocket.h"
#include "platform/QBLog.h"

void QBLumentideIPC::startServerOnThread() {
    startTrackedThread([](QBLumentideIPC& endpoint) { endpoint.startServerAndBlock(); }, acceptRole);
}

void QBLumentideIPC::startServerAndBlock() {
    if (_socketState.load() == 1 || serverLoopStarted.exchange(true)) return;
    // The loop clears selfReference however it ends, which may drop the last reference while
    // this function still runs; this copy lasts until it returns.
    auto keepAlive = selfReference();
    _mode.store(serverMode);
    if (!obtainListeningSocket()) {
        setSelfReference(nullptr);
        return;
    }
    setBlocking(_socket.load());
    if (!createWakePipe()) {
        QBLog::notice("Failed to create control pipe");
        releaseListeningSocket();
        setSelfReference(nullptr);
        return;
    }
    QBLog::notice("LumentideHelper started");
    runAcceptLoop();
    tearDownServer();
}

bool QBLumentideIPC::obtainListeningSocket() {
    if (useLaunchdSocket) {
        _socket.store(getSocketFromLaunchd());
        if (_socket.load() < 0) {
            QBLog::notice("Failed to get socket from launchd");
            return false;
        }
        return true;
    }
    if (!listen()) {
        QBLog::log("Failed to listen on Unix socket");
        return false;
    }
    return true;
}

bool QBLumentideIPC::listen() {
    sockaddr_un address;
    if (!QBLumentideIPCSockets::makeAddress(_path, address)) return false;
    const int listening = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listening < 0) return false;
    ::unlink(_path.c_str());
    if (::bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(listening);
        return false;
    }
    ::chmod(_path.c_str(), socketFileMode);
    if (::listen(listening, listenBacklog) != 0) {
        ::close(listening);
        ::unlink(_path.c_str());
        return false;
    }
    _socket.store(listening);
    return true;
}

// Socket activation stands in for the launchd check-in. Its outcomes map onto the check-in's
// log texts like this:
//
//   outcome of sd_listen_fds_with_names                  check-in text logged
//   -------------------------------------------------    ---------------------------------------
//   (building the request cannot fail)                   "Could not create checkin request": never
//   (there is no request to send)                        "Error checking in": never
//   error (malformed LISTEN_* variables), errno set      "Checkin failed"
//   no descriptors passed                                "Could not get socket dictionary from
//                                                         checkin response"
//   (descriptors always come as named descriptors)       the two "Type mismatch" texts for the
//                                                         dictionary and the array: never
//   descriptors under two or more names                  "Some sockets in dictionary will be
//                                                         ignored" (goes on)
//   no descriptor named "MasterSocket"                   "Could not get file descriptor array"
//   two or more named "MasterSocket" (first one used)    "Some sockets in array will be ignored"
//                                                         (goes on)
//   the first "MasterSocket" is not a listening          "Could not get file descriptor array
//   Unix stream socket                                    entry: Type mismatch"
//
// Passed descriptors are at least 3, so the check-in's negative-descriptor assertion has no
// counterpart. The descriptors that are not used are left open: they belong to the service
// manager's configuration, and socket activation marks them close-on-exec.
int QBLumentideIPC::getSocketFromLaunchd() {
    char** names = nullptr;
    const int count = sd_listen_fds_with_names(1, &names);
    std::vector<std::string> nameList;
    if (names != nullptr) {
        for (int i = 0; i < std::max(count, 0); ++i) {
            nameList.emplace_back(names[i] != nullptr ? names[i] : "");
            std::free(names[i]);
        }
        std::free(names);
    }
    if (count < 0) {
        errno = -count;
        QBLog::log("Checkin failed");
        return -1;
    }
    if (count == 0) {
        QBLog::log("Could not get socket dictionary from checkin response");
        return -1;
    }
    nameList.resize(static_cast<std::size_t>(count), "unknown");
    if (std::set<std::string>(nameList.begin(), nameList.end()).size() >= 2) {
        QBLog::log("Some sockets in dictionary will be ignored");
    }
    std::vector<int> masterSockets;
    for (int i = 0; i < count; ++i) {
        if (nameList[static_cast<std::size_t>(i)] == "MasterSocket") {
            masterSockets.push_back(SD_LISTEN_FDS_START + i);
        }
    }
    if (masterSockets.empty()) {
        QBLog::log("Could not get file descriptor array");
        return -1;
    }
    if (masterSockets.size() >= 2) QBLog::log("Some sockets in array will be ignored");
    const int descriptor = masterSockets.front();
    if (sd_is_socket_unix(descriptor, SOCK_STREAM, 1, nullptr, 0) <= 0) {
        QBLog::log("Could not get file descriptor array entry: Type mismatch");
        return -1;
    }
    return descriptor;
}

bool QBLumentideIPC::createWakePipe() {
    QBMutexLock guard(wakeLock);
    return ::pipe2(wakePipe, O_CLOEXEC) == 0;
}

void QBLumentideIPC::closeWakePipe() {
    QBMutexLock guard(wakeLock);
    for (int& end : wakePipe) {
        if (end >= 0) ::close(end);
        end = -1;
    }
}

int QBLumentideIPC::wakeReadEnd() {
    QBMutexLock guard(wakeLock);
    return wakePipe[0];
}

void QBLumentideIPC::runAcceptLoop() {
    if (_shutdown.load()) return;
    // poll rather than select: descriptor numbers above FD_SETSIZE stay safe.
    pollfd watched[2] = {{_socket.load(), POLLIN, 0}, {wakeReadEnd(), POLLIN, 0}};
    for (;;) {
        const int ready = ::poll(watched, 2, -1);
        if (ready > 0 && (watched[0].revents & (POLLIN | POLLERR | POLLHUP)) != 0) {
            const int client = ::accept4(_socket.load(), nullptr, nullptr, SOCK_CLOEXEC);
            if (client >= 0) {
                if (_shutdown.load()) {
                    ::close(client);  // accepted after shutdown was asked for: not served
                    return;
                }
                serveClient(client);
            } else if (QBSocket::outOfResources(errno)) {
                pauseAfterFailedAccept();
            }
        }
        if (_shutdown.load()) return;
    }
}

void QBLumentideIPC::serveClient(int client) {
    // The kernel keeps the credentials of the process that connected; a connection without
    // them cannot be counted against its user and is refused.
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || length != sizeof peer ||
        !takeClientSlot(peer.uid)) {
        ::close(client);
        noteRefusedClient();
        return;
    }
    if (!startTrackedThread([client, user = peer.uid](QBLumentideIPC& endpoint) {
            // The slot is held until the reader thread ends, so that threads and descriptors
            // stay bounded even while connections are being torn down.
            struct Release {
                QBLumentideIPC& endpoint;
                uid_t user;
                ~Release() { endpoint.releaseClientSlot(user); }
            } release{endpoint, user};
            endpoint.processMessages(client);
        }, readerRole)) {
        releaseClientSlot(peer.uid);
        ::close(client);
    }
}

bool QBLumentideIPC::takeClientSlot(uid_t user) {
    QBMutexLock clients(clientsLock);
    const auto held = servedClientsByUser.find(user);
    const int ofUser = held == servedClientsByUser.end() ? 0 : held->second;
    if (servedClients >= maximumClients || ofUser >= maximumClientsPerUser) return false;
    ++servedClients;
    servedClientsByUser[user] = ofUser + 1;
    return true;
}

void QBLumentideIPC::releaseClientSlot(uid_t user) {
    QBMutexLock clients(clientsLock);
    --servedClients;
    const auto held = servedClientsByUser.find(user);
    if (held != servedClientsByUser.end() && --held->second == 0) servedClientsByUser.erase(held);
}

void QBLumentideIPC::noteRefusedClient() {
    // Runs on the accept loop's thread only. A flood of connections logs one line per interval.
    const auto now = std::chrono::steady_clock::now();
    if (lastRefusalLogged && now - *lastRefusalLogged < refusalLogInterval) return;
    lastRefusalLogged = now;
    QBLog::log("Too many clients; connection refused");
}

void QBLumentideIPC::pauseAfterFailedAccept() {
    pollfd wake{wakeReadEnd(), POLLIN, 0};
    ::poll(&wake, 1, static_cast<int>(acceptRetryDelay.count()));
}

void QBLumentideIPC::tearDownServer() {
    {
        // Wake every reader; each one closes its own descriptor and leaves the list.
        QBMutexLock clients(clientsLock);
        for (const auto& client : activeSockets) ::shutdown(client->socket, SHUT_RDWR);
    }
    releaseListeningSocket();
    closeWakePipe();
    setSelfReference(nullptr);
    QBLog::notice("LumentideHelper finished");
}

void QBLumentideIPC::releaseListeningSocket() {
    // A socket from the service manager stays with it, and so does its file.
    if (useLaunchdSocket) return;
    const int listening = _socket.exchange(-1);
    if (listening >= 0) ::close(listening);
    ::unlink(_path.c_str());
}

std::int32_t QBLumentideIPC::clientCount() const {
    QBMutexLock clients(clientsLock);
    return static_cast<std::int32_t>(activeSockets.size());
}

bool QBLumentideIPC::waitForClients(std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        // Read before the count: an arrival after the count was taken changes it, so the wait
        // below cannot miss it.
        const auto seen = clientArrivals.load();
        if (clientCount() > 0) return true;
        if (_shutdown.load()) return false;
        QBMutexLock guard(clientWaitLock);
        while (clientArrivals.load() == seen && !_shutdown.load()) {
            if (clientsArrived.wait_until(guard.native(), deadline) == std::cv_status::timeout) {
                guard.unlock();
                return clientCount() > 0;
            }
        }
    }
}

std::vector<int> QBLumentideIPC::clientSockets() const {
    QBMutexLock clients(clientsLock);
    std::vector<int> sockets;
    sockets.reserve(activeSockets.size());
    for (const auto& client : activeSockets) sockets.push_back(client->socket);
    return sockets;
}

void QBLumentideIPC::disconnectClient(int socket) {
    // Under the endpoint lock the descriptor is still open: a connection leaves the client list
    // under it before its descriptor is closed.
    QBMutexLock endpoint(endpointLock);
    if (openConnection(socket)) ::shutdown(socket, SHUT_RDWR);
}
