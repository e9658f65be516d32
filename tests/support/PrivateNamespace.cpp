#include "support/PrivateNamespace.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

bool bringLoopbackUp(std::string& whyNot) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        whyNot = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    if (ok) {
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP | IFF_RUNNING);
        ok = ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    }
    if (!ok) whyNot = std::string("cannot bring lo up: ") + std::strerror(errno);
    ::close(fd);
    return ok;
}

}  // namespace

bool enterPrivateNamespaces(std::string& whyNot) {
    if (::geteuid() != 0) {
        whyNot = "private namespaces need root";
        return false;
    }
    if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        whyNot = std::string("unshare(CLONE_NEWNET|CLONE_NEWNS): ") + std::strerror(errno);
        return false;
    }
    // Keep our mounts to ourselves.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        whyNot = std::string("making mounts private: ") + std::strerror(errno);
        return false;
    }
    if (::mount("tmpfs", "/var/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
        whyNot = std::string("mounting tmpfs on /var/run: ") + std::strerror(errno);
        return false;
    }
    return bringLoopbackUp(whyNot);
}
