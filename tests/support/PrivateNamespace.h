#pragma once
// Moves the calling test process into fresh network and mount namespaces, so that the real
// daemon can run on its real port 986 and socket path without touching the machine: loopback
// is brought up and a tmpfs is mounted on /var/run. Child processes inherit both.
//
// Call it first thing in a test, before the test starts threads. Needs root; where namespaces
// are not available it returns false with the reason. Each ctest case runs in its own process,
// so the namespaces end with the test.

#include <string>

bool enterPrivateNamespaces(std::string& whyNot);

// Skips the current test, visibly, when the private namespaces cannot be had.
#define QB_REQUIRE_PRIVATE_NAMESPACES()                                              \
    do {                                                                             \
        std::string qbWhyNot;                                                        \
        if (!enterPrivateNamespaces(qbWhyNot)) GTEST_SKIP() << "SKIP: " << qbWhyNot; \
    } while (0)
