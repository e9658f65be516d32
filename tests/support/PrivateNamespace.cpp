#include "support/PrivateNamespace.h"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

bool enterPrivateNamespaces(std::string& whyNot) {
    const auto fail = [&](const std::string& step) {
        whyNot = step + ": " + std::strerror(errno);
        return false;
    };
    if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return fail("unshare (needs root)");
    // Our mounts stay ours; /var/run gets a tmpfs of its own.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return fail("mount");
    if (::mount("tmpfs", "/var/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
        return fail("mounting tmpfs on /var/run");
    }
    if (std::system("ip link set lo up") != 0) return fail("ip link set lo up");
    return true;
}
