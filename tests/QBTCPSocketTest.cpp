// QBTCPSocket over real loopback connections: reads that keep what follows the terminator, the
// silence limit, sends, descriptors beyond FD_SETSIZE, and the accept loop with its thread limit.
// The message deadlines and the message length limit are tested through the bridge server.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <thread>

#include "QBTCPSocket.h"
#include "support/LogCapture.h"
#include "support/LoopbackClient.h"

namespace {

using namespace std::chrono_literals;

// A listening descriptor on 127.0.0.1 and an OS-chosen port, plain POSIX.
class PlainListener {
public:
    PlainListener() {
        descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(descriptor, reinterpret_cast<sockaddr*>(&address), length);
        ::listen(descriptor, 16);
        ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
    }
    ~PlainListener() { ::close(descriptor); }
    int accept() const { return ::accept(descriptor, nullptr, nullptr); }

    int descriptor;
    int port;
};

// A connected QBTCPSocket (made with connectToHost) and the raw descriptor of its peer.
class ConnectionTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(socket->connectToHost("127.0.0.1", listener.port, 5));
        peer = listener.accept();
        ASSERT_GE(peer, 0);
    }
    void TearDown() override {
        if (peer >= 0) ::close(peer);
    }
    void peerSends(std::string_view bytes) const {
        ASSERT_EQ(::send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    void peerCloses() {
        ::close(peer);
        peer = -1;
    }

    LogCapture log;
    PlainListener listener;
    std::shared_ptr<QBTCPSocket> socket = QBTCPSocket::socket();
    int peer = -1;
};

TEST(QBSocketTest, AbstractOperationsRaiseNamingTheClass) {
    QBSocket base;
    EXPECT_THROW(base.isOpen(), QBInternalInconsistencyException);
    QBTCPSocket tcp;
    try {
        tcp.readData(4);
        FAIL() << "readData did not raise";
    } catch (const QBInternalInconsistencyException& error) {
        EXPECT_STREQ(error.what(), "The class QBTCPSocket is abstract and must be subclassed.");
    }
    EXPECT_THROW(tcp.writeData({1}), QBInternalInconsistencyException);
}

TEST(QBTCPSocketConnectTest, RefusesMissingHostsAndClosedPorts) {
    int closedPort = 0;
    {
        PlainListener gone;
        closedPort = gone.port;
    }
    for (const auto& host : {std::optional<std::string>(), std::optional<std::string>("")}) {
        QBTCPSocket socket;
        EXPECT_FALSE(socket.connectToHost(host, 80, 1));
        EXPECT_FALSE(socket.isOpen());
    }
    QBTCPSocket socket;
    EXPECT_FALSE(socket.connectToHost("127.0.0.1", closedPort, 2));
}

TEST_F(ConnectionTest, TerminatedReadsLeaveWhatFollowsForTheNextRead) {
    EXPECT_EQ(socket->remoteHost(), "127.0.0.1");
    EXPECT_EQ(socket->remotePort(), listener.port);
    // The second message's terminator is split across two segments.
    peerSends("GET / HTTP/1.1\r\nA: b\r\n\r\nC: d\r\n\r");
    EXPECT_EQ(socket->readStringTerminatedBy("\r\n\r\n", -1), "GET / HTTP/1.1\r\nA: b\r\n\r\n");
    std::thread later([&] {
        std::this_thread::sleep_for(50ms);
        peerSends("\nline one\nBODY");
    });
    EXPECT_EQ(socket->readStringTerminatedBy("\r\n\r\n", 5), "C: d\r\n\r\n");
    later.join();
    EXPECT_EQ(socket->readLineWithTimeout(5), "line one\n");
    auto buffer = QBBuffer::initWithSize(16);
    EXPECT_EQ(socket->readData(16, *buffer, 1s), 4);  // what has arrived, after the wait ran out
    EXPECT_EQ(buffer->readString(), "BODY");
}

TEST_F(ConnectionTest, NonWaitingReadsTakeOnlyWhatHasArrived) {
    auto buffer = QBBuffer::initWithSize(64);
    EXPECT_EQ(socket->readData(10, *buffer), 0);
    EXPECT_TRUE(socket->isOpen());
    peerSends("abc");
    EXPECT_EQ(socket->readData(3, *buffer, 5s), 3);
    peerSends("defgh");
    EXPECT_EQ(socket->readData(2, *buffer, 5s), 2);  // the rest stays for later reads
    EXPECT_EQ(socket->readData(3, *buffer, 5s), 3);
    EXPECT_EQ(buffer->readString(), "abcdefgh");
    peerCloses();
    EXPECT_EQ(socket->readData(10, *buffer, 5s), -1);
    EXPECT_FALSE(socket->isOpen());
}

TEST_F(ConnectionTest, PeerClosingMidMessageGivesNothingAndClosesTheSocket) {
    peerSends("partial header\r\n");
    std::thread closer([&] {
        std::this_thread::sleep_for(50ms);
        peerCloses();
    });
    EXPECT_EQ(socket->readDataTerminatedByString("\r\n\r\n", -1), nullptr);
    closer.join();
    EXPECT_FALSE(socket->isOpen());
}

TEST_F(ConnectionTest, SilenceLimitBoundsTheGapsNotTheWholeRead) {
    std::thread trickle([&] {
        for (char c : std::string("slow\n")) {
            std::this_thread::sleep_for(400ms);
            peerSends(std::string(1, c));
        }
    });
    EXPECT_EQ(socket->readLineWithTimeout(1), "slow\n");  // 2 s in all, never 1 s of silence
    trickle.join();
    peerSends("silent after this");
    EXPECT_EQ(socket->readLineWithTimeout(1), std::nullopt);
    EXPECT_TRUE(socket->isOpen());
}

TEST_F(ConnectionTest, SendsWaitForRoomUntilEverythingIsWritten) {
    EXPECT_TRUE(socket->sendString(""));
    const std::string large(8 * 1024 * 1024, 'z');  // far more than the socket buffers hold
    std::string received;
    std::thread reader([&] {
        char chunk[65536];
        while (received.size() < large.size()) {
            const auto count = ::recv(peer, chunk, sizeof chunk, 0);
            if (count <= 0) break;
            received.append(chunk, static_cast<size_t>(count));
        }
    });
    EXPECT_TRUE(socket->sendString(large));
    reader.join();
    EXPECT_EQ(received.size(), large.size());
    socket->close();
    EXPECT_EQ(socket->sendRawData("x", 1, true), -1);
}

TEST(QBTCPSocketDescriptorTest, DescriptorsAboveFDSetSizeAreWaitedOn) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 2048) GTEST_SKIP() << "descriptor limit too low";
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    PlainListener listener;
    LoopbackClient client(listener.port);
    const int accepted = listener.accept();
    const int high = ::fcntl(accepted, F_DUPFD_CLOEXEC, FD_SETSIZE + 100);
    ::close(accepted);
    ASSERT_GT(high, FD_SETSIZE);
    ::fcntl(high, F_SETFL, O_NONBLOCK);
    QBTCPSocket socket(high, nullptr, 0);
    std::thread sender([&] {
        std::this_thread::sleep_for(50ms);
        client.send("hello\n");
    });
    EXPECT_EQ(socket.readLineWithTimeout(5), "hello\n");
    sender.join();
}

// ---- Serving --------------------------------------------------------------------------------

// Answers every line with "echo:<line>"; optionally holds each connection after its first line
// until released, to keep its thread busy.
class EchoDelegate : public QBTCPSocketServerDelegate {
public:
    void clientConnected(std::shared_ptr<QBTCPSocket> connection) override {
        {
            std::lock_guard guard(lock);
            hosts.push_back(connection->remoteHost());
            ports.push_back(connection->remotePort());
        }
        while (auto line = connection->readLineWithTimeout(0)) {
            connection->sendString("echo:" + *line);
            std::unique_lock guard(lock);
            released.wait(guard, [this] { return !holding; });
        }
    }
    void hold(bool on) {
        std::lock_guard guard(lock);
        holding = on;
        released.notify_all();
    }

    std::mutex lock;  // guards the fields below
    std::condition_variable released;
    bool holding = false;
    std::vector<std::optional<std::string>> hosts;
    std::vector<std::int32_t> ports;
};

class ServerTest : public ::testing::Test {
protected:
    void serve(std::size_t maxThreads = 512) {
        server->setServerLimits({maxThreads, 256 * 1024, 2000ms});
        loop = std::thread([this] {
            server->serveOnAddress(QBIPAddress::ipAddressWithAddress("127.0.0.1"), 0, delegate,
                                   false);
        });
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while ((port = server->localPort()) == 0 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(2ms);
        }
        ASSERT_NE(port, 0);
    }
    void TearDown() override {
        delegate->hold(false);
        server->shutdownServer();
        if (loop.joinable()) loop.join();
    }
    static bool echoes(LoopbackClient& client, const std::string& line) {
        client.discardUnread();
        if (!client.send(line + "\n")) return false;
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (client.unread() != "echo:" + line + "\n" &&
               std::chrono::steady_clock::now() < deadline) {
            if (client.closedWithin(20ms)) return false;
        }
        return client.unread() == "echo:" + line + "\n";
    }
    void waitForThreads(std::size_t count) const {
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (server->connectionThreadCount() != count &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(5ms);
        }
        ASSERT_EQ(server->connectionThreadCount(), count);
    }

    LogCapture log;
    std::shared_ptr<EchoDelegate> delegate = std::make_shared<EchoDelegate>();
    std::shared_ptr<QBTCPSocket> server = QBTCPSocket::socket();
    std::thread loop;
    int port = 0;
};

TEST_F(ServerTest, AcceptedConnectionsHaveNoHostAndPortZero) {
    serve();
    LoopbackClient client(port);
    ASSERT_TRUE(echoes(client, "hi"));
    std::lock_guard guard(delegate->lock);
    EXPECT_EQ(delegate->hosts, (std::vector<std::optional<std::string>>{std::nullopt}));
    EXPECT_EQ(delegate->ports, (std::vector<std::int32_t>{0}));
}

TEST_F(ServerTest, ShutdownEndsServingAndTheConnectionsItAccepted) {
    serve();
    LoopbackClient idle(port);
    LoopbackClient talking(port);
    ASSERT_TRUE(echoes(talking, "x"));
    waitForThreads(2);
    server->shutdownServer();
    server->shutdownServer();  // a second call changes nothing
    loop.join();
    EXPECT_EQ(server->connectionThreadCount(), 0u);
    EXPECT_FALSE(server->isOpen());
    EXPECT_TRUE(idle.closedWithin(5s));
    LoopbackClient late(port);
    EXPECT_FALSE(late.connected());
    // A socket that has been shut down listens and stops at once when served again.
    server->serveOnAddress(QBIPAddress::ipAddressWithAddress("127.0.0.1"), 0, delegate, false);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ServerTest, ServingOnAPortInUseReturnsAtOnceWithoutALogLine) {
    serve();
    auto second = QBTCPSocket::socket();
    second->serveOnAddress(QBIPAddress::ipAddressWithAddress("127.0.0.1"), port, delegate, false);
    EXPECT_FALSE(second->isOpen());
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(second->listenOnAddress(QBIPAddress::ipAddressWithAddress("::1"), 0));
}

TEST_F(ServerTest, FullServerShutsDownTheLongestWaitingConnectionToMakeRoom) {
    serve(3);
    LoopbackClient oldest(port);
    ASSERT_TRUE(echoes(oldest, "first"));  // then waits for its next line longest
    LoopbackClient second(port);
    LoopbackClient third(port);
    ASSERT_TRUE(echoes(second, "2"));
    ASSERT_TRUE(echoes(third, "3"));
    LoopbackClient newcomer(port);
    EXPECT_TRUE(echoes(newcomer, "new"));
    EXPECT_TRUE(oldest.closedWithin(5s));
    EXPECT_TRUE(echoes(third, "still served"));
}

TEST_F(ServerTest, FullServerWithEveryThreadBusyClosesNewConnections) {
    serve(2);
    delegate->hold(true);
    LoopbackClient first(port);
    LoopbackClient second(port);
    ASSERT_TRUE(echoes(first, "busy"));
    ASSERT_TRUE(echoes(second, "busy"));
    LoopbackClient refused(port);
    EXPECT_TRUE(refused.closedWithoutReply(5s));
    delegate->hold(false);
    first.close();
    waitForThreads(1);
    LoopbackClient admitted(port);
    EXPECT_TRUE(echoes(admitted, "room again"));
}

}  // namespace
