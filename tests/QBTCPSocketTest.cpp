// Connecting, for other users of the library: the daemon only listens (see the bridge's tests).

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "QBTCPSocket.h"
#include "support/Eventually.h"

using namespace std::chrono_literals;

TEST(QBTCPSocketConnectTest, GivesUpOnMissingHostsClosedPortsAndSilentListeners) {
    EXPECT_FALSE(QBTCPSocket().connectToHost(std::nullopt, 80, 1));
    EXPECT_FALSE(QBTCPSocket().connectToHost("", 80, 1));
    QBTCPSocket listener;
    ASSERT_TRUE(listener.listenOnAddress(QBIPAddress::ipAddressWithAddress("127.0.0.1"), 0));
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
