#pragma once
// Moves the calling test process (and its later children) into fresh network and mount
// namespaces with loopback up and a tmpfs on /var/run, so that the real daemon can use its real
// port and socket path. Needs root, and must come before the test starts threads; false with the
// reason otherwise. Each ctest case is a process of its own, so the namespaces end with it.

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

inline bool enterPrivateNamespaces(std::string& whyNot) {
    const auto fail = [&](const std::string& step) { return whyNot = step + ": " + std::strerror(errno), false; };
    if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return fail("unshare (needs root)");
    // Our mounts stay ours; /var/run gets a tmpfs of its own.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return fail("mount");
    if (::mount("tmpfs", "/var/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
        return fail("mounting tmpfs on /var/run");
    }
    return std::system("ip link set lo up") == 0 || fail("ip link set lo up");
}

// Skips the current test, visibly, when the private namespaces cannot be had.
#define QB_REQUIRE_PRIVATE_NAMESPACES()                                              \
    do {                                                                             \
        std::string qbWhyNot;                                                        \
        if (!enterPrivateNamespaces(qbWhyNot)) GTEST_SKIP() << "SKIP: " << qbWhyNot; \
    } while (0)
