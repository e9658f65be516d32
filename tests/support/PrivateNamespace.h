#pragma once
// Moves the calling test process (and its later children) into fresh network and mount
// namespaces with loopback up and a tmpfs on /var/run, so that the real daemon can use its real
// port and socket path. Needs root, and must come before the test starts threads; otherwise it
// returns the reason (empty on success). Each ctest case is a process of its own, so the
// namespaces end with it.

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

inline std::string enterPrivateNamespaces() {
    const auto failed = [](const std::string& step) { return step + ": " + std::strerror(errno); };
    if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return failed("unshare (needs root)");
    // Our mounts stay ours; /var/run gets a tmpfs of its own.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return failed("mount");
    if (::mount("tmpfs", "/var/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) return failed("tmpfs on /var/run");
    return std::system("ip link set lo up") == 0 ? "" : failed("ip link set lo up");
}

// Skips the current test, visibly, when the private namespaces cannot be had.
#define QB_REQUIRE_PRIVATE_NAMESPACES() \
    if (const auto qbWhyNot = enterPrivateNamespaces(); !qbWhyNot.empty()) GTEST_SKIP() << "SKIP: " << qbWhyNot
