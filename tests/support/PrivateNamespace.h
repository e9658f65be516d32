#pragma once
// Moves the calling test process (and its later children) into fresh network and mount
// namespaces with loopback up and a tmpfs on /var/run, so that the real daemon can use its real
// port and socket path. Needs root, and must come before the test starts threads; false with the
// reason otherwise. Each ctest case is a process of its own, so the namespaces end with it.

#include <string>

bool enterPrivateNamespaces(std::string& whyNot);

// Skips the current test, visibly, when the private namespaces cannot be had.
#define QB_REQUIRE_PRIVATE_NAMESPACES()                                              \
    do {                                                                             \
        std::string qbWhyNot;                                                        \
        if (!enterPrivateNamespaces(qbWhyNot)) GTEST_SKIP() << "SKIP: " << qbWhyNot; \
    } while (0)
