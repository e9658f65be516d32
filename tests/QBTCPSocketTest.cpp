// QBTCPSocket over real loopback connections: connecting with a time-out, terminated reads that
// keep what follows the terminator, non-waiting reads, the silence limit, complete sends, and
// the accept loop.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "QBTCPSocket.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/LoopbackClient.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

const auto loopback = QBIPAddress::ipAddressWithAddress("127.0.0.1");

TEST(QBTCPSocketConnectTest, GivesUpOnMissingHostsClosedPortsAndSilentListeners) {
    EXPECT_FALSE(QBTCPSocket().connectToHost(std::nullopt, 80, 1));
    EXPECT_FALSE(QBTCPSocket().connectToHost("", 80, 1));
    QBTCPSocket listener;
    ASSERT_TRUE(listener.listenOnAddress(loopback, 0));
    const int port = listener.localPort();
    ::listen(listener.fileDescriptor(), 0);  // one queued connection; later handshakes stall
    EXPECT_TRUE(QBTCPSocket().connectToHost("127.0.0.1", port, 5));
    QBTCPSocket stalled;
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(stalled.connectToHost("127.0.0.1", port, 1));
    const auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_TRUE(waited >= 900ms && waited < 4s * sanitizerSlowdown) << waited / 1ms;
    EXPECT_FALSE(stalled.isOpen());
    listener.close();
    EXPECT_FALSE(QBTCPSocket().connectToHost("127.0.0.1", port, 2));
}

// A QBTCPSocket connected with connectToHost, and the raw descriptor of its peer.
class ConnectionTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(listener.listenOnAddress(loopback, 0));
        ASSERT_TRUE(socket.connectToHost("127.0.0.1", listener.localPort(), 5));
        ASSERT_GE(peer = ::accept(listener.fileDescriptor(), nullptr, nullptr), 0);
    }
    void TearDown() override { peerCloses(); }
    void peerSends(std::string_view bytes) const {
        ASSERT_EQ(::send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
    }
    void peerCloses() { ::close(std::exchange(peer, -1)); }

    LogCapture log;
    QBTCPSocket listener;
    QBTCPSocket socket;
    int peer = -1;
};

TEST_F(ConnectionTest, ReadsTakeWhatHasArrivedAndLeaveWhatFollowsForTheNextRead) {
    EXPECT_TRUE(socket.remoteHost() == "127.0.0.1" && socket.remotePort() == listener.localPort());
    auto buffer = QBBuffer::initWithSize(16);
    EXPECT_EQ(socket.readData(10, *buffer), 0);             // nothing has arrived
    peerSends("GET / HTTP/1.1\r\nA: b\r\n\r\nC: d\r\n\r");  // the second terminator comes in two
    EXPECT_EQ(socket.readStringTerminatedBy("\r\n\r\n", -1), "GET / HTTP/1.1\r\nA: b\r\n\r\n");
    std::thread later([&] { std::this_thread::sleep_for(50ms), peerSends("\nline one\nBODY"); });
    EXPECT_EQ(socket.readStringTerminatedBy("\r\n\r\n", 5), "C: d\r\n\r\n");
    later.join();
    EXPECT_EQ(socket.readLineWithTimeout(5), "line one\n");
    EXPECT_EQ(socket.readData(1, *buffer), 1);
    EXPECT_EQ(socket.readData(16, *buffer, 300ms), 3);  // what has arrived when the wait ends
    EXPECT_EQ(buffer->readString(), "BODY");
    // The peer closing in the middle of a message gives nothing and closes the socket.
    peerSends("partial\r\n");
    peerCloses();
    EXPECT_EQ(socket.readDataTerminatedByString("\r\n\r\n", -1), nullptr);
    EXPECT_FALSE(socket.isOpen());
}

TEST_F(ConnectionTest, SilenceLimitBoundsTheGapsNotTheWholeRead) {
    std::thread trickle([&] {
        for (const char* byte : {"o", "k", "\n"}) std::this_thread::sleep_for(400ms), peerSends(byte);
    });
    EXPECT_EQ(socket.readLineWithTimeout(1), "ok\n");  // 1.2 s in all, never 1 s of silence
    trickle.join();
    peerSends("silent after this");
    EXPECT_EQ(socket.readLineWithTimeout(1), std::nullopt);
    EXPECT_TRUE(socket.isOpen());
    auto buffer = QBBuffer::initWithSize(64);
    peerSends("abc");
    EXPECT_EQ(socket.readData(2, *buffer, 5s), 2);  // the rest stays for the next read,
    peerCloses();                                   // which then finds the end of the stream
    EXPECT_EQ(socket.readData(10, *buffer, 5s), -1);
    EXPECT_FALSE(socket.isOpen());
}

TEST_F(ConnectionTest, SendsWaitForRoomUntilEverythingIsWritten) {
    EXPECT_TRUE(socket.sendString(""));
    const std::string large(8 * 1024 * 1024, 'z');  // far more than the socket buffers hold
    size_t received = 0;
    std::thread reader([&] {
        char chunk[65536];
        for (ssize_t count = 0; received < large.size() && (count = ::recv(peer, chunk, sizeof chunk, 0)) > 0;) {
            received += static_cast<size_t>(count);
        }
    });
    EXPECT_TRUE(socket.sendString(large));
    reader.join();
    EXPECT_EQ(received, large.size());
    socket.close();
    EXPECT_EQ(socket.sendRawData("x", 1, true), -1);
}

// Answers every message (ended by an empty line) with "echo:<message>"; while holding, keeps
// each thread busy after a message.
struct EchoDelegate : QBTCPSocketServerDelegate {
    void clientConnected(std::shared_ptr<QBTCPSocket> connection) override {
        while (auto message = connection->readStringTerminatedBy("\r\n\r\n", 0)) {
            connection->sendString("echo:" + *message);
            while (holding) std::this_thread::sleep_for(1ms);
        }
    }
    std::atomic<bool> holding{false};
};

TEST(QBTCPSocketServerTest, ServesEveryConnectionOnAThreadOfItsOwnUntilShutDown) {
    LogCapture log;
    const auto delegate = std::make_shared<EchoDelegate>();
    const auto server = QBTCPSocket::socket();
    std::thread loop([&] { server->serveOnAddress(loopback, 0, delegate, false); });
    int port = 0;
    ASSERT_TRUE(eventually([&] { return (port = server->localPort()) != 0; }));
    LoopbackClient busy(port), other(port);
    delegate->holding = true;  // the first connection's thread stays busy after its answer
    for (auto [client, word] : {std::pair{&busy, "one"}, {&other, "two"}}) {
        EXPECT_TRUE(client->send(word + "\r\n\r\n"s) && client->readResponse() == "echo:"s + word + "\r\n\r\n");
    }
    delegate->holding = false;
    server->shutdownServer();
    loop.join();
    EXPECT_FALSE(server->isOpen() || LoopbackClient(port).connected());
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
