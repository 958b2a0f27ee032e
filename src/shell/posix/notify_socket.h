// The service manager's notification protocol, spoken directly (no
// libsystemd): each message is one datagram of "KEY=VALUE" lines sent to the
// AF_UNIX socket that $NOTIFY_SOCKET names (a path, or "@name" for the
// abstract namespace). $WATCHDOG_USEC is the manager's watchdog interval,
// meant for this process unless $WATCHDOG_PID names another one.
#pragma once

#include <sys/un.h>

namespace zor::shell {

class NotifySocket {
public:
    NotifySocket() = default;
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    // Reads the variables and removes them from the environment, so that
    // programs the host or its modules start do not speak for the host.
    // False when there is no manager to tell (or its address is unusable).
    bool Open();
    bool Active() const { return fd_ >= 0; }
    // The manager's watchdog interval in ms; 0 without a watchdog.
    double WatchdogMs() const { return watchdogMs_; }
    // One message, e.g. "READY=1\nSTATUS=...". Never waits: a manager that
    // does not read loses the message.
    bool Send(const char* message) const;

private:
    int fd_ = -1;
    double watchdogMs_ = 0;
    sockaddr_un addr_{};
    unsigned addrLen_ = 0;
};

}  // namespace zor::shell
