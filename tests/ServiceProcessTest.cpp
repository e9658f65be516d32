// Runs the real daemon binary inside private namespaces, on its real port and socket path.

#include <gtest/gtest.h>

#include <chrono>

#include "support/DaemonProcess.h"
#include "support/PrivateNamespace.h"

using namespace std::chrono_literals;

TEST(ServiceProcessTest, ExitsWithStatusZero) {
    QB_REQUIRE_PRIVATE_NAMESPACES();
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start());
    // With nothing to serve the start sequence returns at once.
    const auto status = daemon.waitForExit(10s);
    ASSERT_TRUE(status.has_value()) << "signal " << daemon.terminatedBySignal() << "\n"
                                    << daemon.standardError();
    EXPECT_EQ(*status, 0);
}
