#include "support/PrivateNamespace.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

bool enterPrivateNamespaces(std::string& whyNot) {
    const auto fail = [&](const std::string& what) {
        whyNot = what + ": " + std::strerror(errno);
        return false;
    };
    if (::geteuid() != 0) {
        whyNot = "private namespaces need root";
        return false;
    }
    if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return fail("unshare(CLONE_NEWNET|CLONE_NEWNS)");
    // Keep our mounts to ourselves.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return fail("making mounts private");
    if (::mount("tmpfs", "/var/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
        return fail("mounting tmpfs on /var/run");
    }
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP | IFF_RUNNING);
    up = up && ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    if (!up) fail("cannot bring lo up");
    if (fd >= 0) ::close(fd);
    return up;
}
