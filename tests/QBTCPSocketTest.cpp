// QBTCPSocket over real loopback connections: terminated reads that keep what follows the
// terminator, non-waiting reads, the silence limit, complete sends, descriptors beyond
// FD_SETSIZE, and the accept loop with its thread limit.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <thread>

#include "QBTCPSocket.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/LoopbackClient.h"

namespace {

using namespace std::chrono_literals;

std::shared_ptr<QBIPAddress> loopback() {
    return QBIPAddress::ipAddressWithAddress("127.0.0.1");
}

TEST(QBSocketTest, AbstractOperationsRaiseNamingTheClass) {
    QBSocket base;
    EXPECT_THROW(base.isOpen(), QBInternalInconsistencyException);
    QBTCPSocket tcp;
    EXPECT_THROW(tcp.writeData({1}), QBInternalInconsistencyException);
    try {
        tcp.readData(4);
        ADD_FAILURE() << "readData did not raise";
    } catch (const QBInternalInconsistencyException& error) {
        EXPECT_STREQ(error.what(), "The class QBTCPSocket is abstract and must be subclassed.");
    }
}

TEST(QBTCPSocketConnectTest, RefusesMissingHostsAndClosedPorts) {
    int closedPort = 0;
    {
        QBTCPSocket gone;
        ASSERT_TRUE(gone.listenOnAddress(loopback(), 0));
        closedPort = gone.localPort();
    }
    for (const auto& host : {std::optional<std::string>(), std::optional<std::string>("")}) {
        QBTCPSocket socket;
        EXPECT_FALSE(socket.connectToHost(host, 80, 1));
        EXPECT_FALSE(socket.isOpen());
    }
    EXPECT_FALSE(QBTCPSocket().connectToHost("127.0.0.1", closedPort, 2));
}

// A QBTCPSocket connected with connectToHost, and the raw descriptor of its peer.
class ConnectionTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(listener.listenOnAddress(loopback(), 0));
        ASSERT_TRUE(socket->connectToHost("127.0.0.1", listener.localPort(), 5));
        peer = ::accept(listener.fileDescriptor(), nullptr, nullptr);
        ASSERT_GE(peer, 0);
    }
    void TearDown() override { peerCloses(); }
    void peerSends(std::string_view bytes) const {
        ASSERT_EQ(::send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    void peerCloses() {
        if (peer >= 0) ::close(peer);
        peer = -1;
    }

    LogCapture log;
    QBTCPSocket listener;
    std::shared_ptr<QBTCPSocket> socket = QBTCPSocket::socket();
    int peer = -1;
};

TEST_F(ConnectionTest, TerminatedReadsLeaveWhatFollowsForTheNextRead) {
    EXPECT_EQ(socket->remoteHost(), "127.0.0.1");
    EXPECT_EQ(socket->remotePort(), listener.localPort());
    peerSends("GET / HTTP/1.1\r\nA: b\r\n\r\nC: d\r\n\r");  // the second terminator comes in two parts
    EXPECT_EQ(socket->readStringTerminatedBy("\r\n\r\n", -1), "GET / HTTP/1.1\r\nA: b\r\n\r\n");
    std::thread later([&] {
        std::this_thread::sleep_for(50ms);
        peerSends("\nline one\nBODY");
    });
    EXPECT_EQ(socket->readStringTerminatedBy("\r\n\r\n", 5), "C: d\r\n\r\n");
    later.join();
    EXPECT_EQ(socket->readLineWithTimeout(5), "line one\n");
    auto buffer = QBBuffer::initWithSize(16);
    EXPECT_EQ(socket->readData(16, *buffer, 300ms), 4);  // what has arrived when the wait runs out
    EXPECT_EQ(buffer->readString(), "BODY");
    // The peer closing in the middle of a message gives nothing and closes the socket.
    peerSends("partial\r\n");
    peerCloses();
    EXPECT_EQ(socket->readDataTerminatedByString("\r\n\r\n", -1), nullptr);
    EXPECT_FALSE(socket->isOpen());
}

TEST_F(ConnectionTest, NonWaitingReadsTakeOnlyWhatHasArrived) {
    auto buffer = QBBuffer::initWithSize(64);
    EXPECT_EQ(socket->readData(10, *buffer), 0);
    EXPECT_TRUE(socket->isOpen());
    peerSends("abcdefgh");
    EXPECT_EQ(socket->readData(3, *buffer, 5s), 3);  // the rest stays for later reads
    EXPECT_EQ(socket->readData(5, *buffer, 5s), 5);
    EXPECT_EQ(buffer->readString(), "abcdefgh");
    peerCloses();
    EXPECT_EQ(socket->readData(10, *buffer, 5s), -1);
    EXPECT_FALSE(socket->isOpen());
}

TEST_F(ConnectionTest, SilenceLimitBoundsTheGapsNotTheWholeRead) {
    std::thread trickle([&] {
        for (const char* byte : {"o", "k", "\n"}) {
            std::this_thread::sleep_for(400ms);
            peerSends(byte);
        }
    });
    EXPECT_EQ(socket->readLineWithTimeout(1), "ok\n");  // 1.2 s in all, never 1 s of silence
    trickle.join();
    peerSends("silent after this");
    EXPECT_EQ(socket->readLineWithTimeout(1), std::nullopt);
    EXPECT_TRUE(socket->isOpen());
}

TEST_F(ConnectionTest, SendsWaitForRoomUntilEverythingIsWritten) {
    EXPECT_TRUE(socket->sendString(""));
    const std::string large(8 * 1024 * 1024, 'z');  // far more than the socket buffers hold
    size_t received = 0;
    std::thread reader([&] {
        char chunk[65536];
        for (ssize_t count; received < large.size() && (count = ::recv(peer, chunk, sizeof chunk, 0)) > 0;) {
            received += static_cast<size_t>(count);
        }
    });
    EXPECT_TRUE(socket->sendString(large));
    reader.join();
    EXPECT_EQ(received, large.size());
    socket->close();
    EXPECT_EQ(socket->sendRawData("x", 1, true), -1);
}

TEST(QBTCPSocketDescriptorTest, DescriptorsAboveFDSetSizeAreWaitedOn) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < 2048) GTEST_SKIP() << "descriptor limit too low";
    QBTCPSocket listener;
    ASSERT_TRUE(listener.listenOnAddress(loopback(), 0));
    LoopbackClient client(listener.localPort());
    const int accepted = ::accept4(listener.fileDescriptor(), nullptr, nullptr, SOCK_NONBLOCK);
    QBTCPSocket socket(::fcntl(accepted, F_DUPFD_CLOEXEC, FD_SETSIZE + 100), nullptr, 0);
    ::close(accepted);
    ASSERT_GT(socket.fileDescriptor(), FD_SETSIZE);
    std::thread sender([&] {
        std::this_thread::sleep_for(50ms);
        client.send("hello\n");
    });
    EXPECT_EQ(socket.readLineWithTimeout(5), "hello\n");
    sender.join();
}

// ---- Serving --------------------------------------------------------------------------------

// Answers every line with "echo:<line>"; while holding, keeps each thread busy after a line.
class EchoDelegate : public QBTCPSocketServerDelegate {
public:
    void clientConnected(std::shared_ptr<QBTCPSocket> connection) override {
        if (connection->remoteHost() || connection->remotePort() != 0) ++withHostOrPort;
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
    std::atomic<int> withHostOrPort{0};

private:
    std::mutex lock;  // guards holding
    std::condition_variable released;
    bool holding = false;
};

class ServerTest : public ::testing::Test {
protected:
    void serve(std::size_t maxThreads = 512) {
        server->setServerLimits({maxThreads, 256 * 1024, 2000ms});
        loop = std::thread([this] { server->serveOnAddress(loopback(), 0, delegate, false); });
        ASSERT_TRUE(eventually([&] { return (port = server->localPort()) != 0; }));
    }
    void TearDown() override {
        delegate->hold(false);
        server->shutdownServer();
        if (loop.joinable()) loop.join();
    }
    static bool echoes(LoopbackClient& client, const std::string& line) {
        return client.send(line + "\n") && client.readUntil("\n") == "echo:" + line + "\n";
    }

    LogCapture log;
    std::shared_ptr<EchoDelegate> delegate = std::make_shared<EchoDelegate>();
    std::shared_ptr<QBTCPSocket> server = QBTCPSocket::socket();
    std::thread loop;
    int port = 0;
};

TEST_F(ServerTest, ShutdownEndsServingAndTheConnectionsItAccepted) {
    serve();
    LoopbackClient idle(port);
    LoopbackClient talking(port);
    ASSERT_TRUE(echoes(talking, "x"));
    ASSERT_TRUE(eventually([&] { return server->connectionThreadCount() == 2; }));
    server->shutdownServer();
    server->shutdownServer();  // a second call changes nothing
    loop.join();
    EXPECT_EQ(server->connectionThreadCount(), 0u);
    EXPECT_FALSE(server->isOpen());
    EXPECT_TRUE(idle.closedWithin(5s));
    EXPECT_FALSE(LoopbackClient(port).connected());
    // A socket that has been shut down listens and stops at once when served again.
    server->serveOnAddress(loopback(), 0, delegate, false);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(delegate->withHostOrPort, 0);  // accepted connections: no host, port 0
}

TEST_F(ServerTest, ServingOnAPortInUseReturnsAtOnceWithoutALogLine) {
    serve();
    auto second = QBTCPSocket::socket();
    second->serveOnAddress(loopback(), port, delegate, false);
    EXPECT_FALSE(second->isOpen());
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(second->listenOnAddress(QBIPAddress::ipAddressWithAddress("::1"), 0));
}

TEST_F(ServerTest, FullServerReplacesTheLongestWaitingConnectionOrRefusesWhenAllAreBusy) {
    serve(2);
    LoopbackClient oldest(port);
    LoopbackClient second(port);
    ASSERT_TRUE(echoes(oldest, "1"));  // then waits for its next line longest
    ASSERT_TRUE(echoes(second, "2"));
    LoopbackClient newcomer(port);
    EXPECT_TRUE(echoes(newcomer, "new"));
    EXPECT_TRUE(oldest.closedWithin(5s));
    delegate->hold(true);
    ASSERT_TRUE(echoes(second, "busy"));
    ASSERT_TRUE(echoes(newcomer, "busy"));
    LoopbackClient refused(port);
    EXPECT_TRUE(refused.closedWithoutReply());
    delegate->hold(false);
    second.close();
    ASSERT_TRUE(eventually([&] { return server->connectionThreadCount() == 1; }));
    LoopbackClient admitted(port);
    EXPECT_TRUE(echoes(admitted, "room again"));
}

}  // namespace
