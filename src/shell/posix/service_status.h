// What the Linux host tells a service manager that started it (systemd,
// Type=notify; nothing without one): READY=1 once the IRQ driver runs and
// the command socket listens, then WATCHDOG=1 every half watchdog interval
// while the host is healthy, and STOPPING=1 when the dialog loop ends.
//
// The pings come from the dialog loop itself, between commands: a loop that
// hangs (a command stuck in a module) stops them, and the manager restarts
// the host. The dispatch thread has its say through DispatchHealthy.
// A supervised host is resident: it does not end by itself when its last
// client has gone, as a host started by hand does.
#pragma once

#include "shell/posix/notify_socket.h"

namespace zor {
struct Host;
}

namespace zor::shell {

// The dispatch thread's part of the verdict, from the dispatch watchdog:
// true while it makes progress, or while its driver is idle by design (a
// paused timer, a device without events: no call running); false while a
// call has run past WATCHDOGMS (1 s without it) or could not be aborted.
bool DispatchHealthy(const Host& host);

class ServiceStatus {
public:
    explicit ServiceStatus(Host& host) : host_(host) {}

    // Reads the manager's variables; before any thread that could start
    // programs exists.
    void Open();
    // A manager started the host: it stays until told to end (no automatic
    // shut-down after its last client).
    bool Supervised() const { return socket_.Active(); }
    // After start-up: READY=1 with the dialog's IRQ line as STATUS when
    // both parts run, else only a STATUS that says what is missing.
    void Started(bool listening, const char16_t* irqLine);
    // When the loop must come back for the next ping (os::now_ms() clock);
    // a huge value when no ping is due.
    double NextDueMs() const;
    void Tick(double nowMs);
    void Stopping();

private:
    Host& host_;
    NotifySocket socket_;
    double periodMs_ = 0;
    double nextMs_ = 0;
    bool pinging_ = false;
    bool withheld_ = false;
};

}  // namespace zor::shell
