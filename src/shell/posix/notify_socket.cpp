// The notification datagrams to the service manager.
#include "shell/posix/notify_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace zor::shell {

namespace {

// The interval applies to us unless another pid was named.
double ReadWatchdogMs() {
    const char* usec = std::getenv("WATCHDOG_USEC");
    const char* pid = std::getenv("WATCHDOG_PID");
    if (!usec || !*usec) return 0;
    if (pid && *pid && std::strtoul(pid, nullptr, 10) != static_cast<unsigned long>(getpid())) return 0;
    char* end = nullptr;
    const unsigned long long us = std::strtoull(usec, &end, 10);
    return *end == 0 ? static_cast<double>(us) / 1000.0 : 0;
}

}  // namespace

NotifySocket::~NotifySocket() {
    if (fd_ >= 0) close(fd_);
}

bool NotifySocket::Open() {
    const char* name = std::getenv("NOTIFY_SOCKET");
    const std::size_t len = name ? std::strlen(name) : 0;
    addr_.sun_family = AF_UNIX;
    const bool usable = len >= 2 && len < sizeof addr_.sun_path && (name[0] == '/' || name[0] == '@');
    if (usable) {
        std::memcpy(addr_.sun_path, name, len);
        if (name[0] == '@') addr_.sun_path[0] = 0;  // abstract: no terminator, the length counts
        addrLen_ = static_cast<unsigned>(offsetof(sockaddr_un, sun_path) + len + (name[0] == '/'));
        watchdogMs_ = ReadWatchdogMs();
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    }
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
    return fd_ >= 0;
}

bool NotifySocket::Send(const char* message) const {
    if (fd_ < 0) return false;
    const ssize_t n = sendto(fd_, message, std::strlen(message), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&addr_),
                             addrLen_);
    return n == static_cast<ssize_t>(std::strlen(message));
}

}  // namespace zor::shell
