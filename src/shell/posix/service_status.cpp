// Readiness and watchdog pings for the service manager.
#include "shell/posix/service_status.h"

#include <cstdio>

#include "host/host.h"
#include "os/os.h"
#include "support/wformat.h"

namespace zor::shell {

bool DispatchHealthy(const Host& host) { return host.watchdog.DispatchHealthy(); }

void ServiceStatus::Open() {
    if (!socket_.Open()) return;
    host_.log.wPrintf(kLogTrace, u"ZOR: started by a service manager: resident, no automatic shut-down\n\r");
    periodMs_ = socket_.WatchdogMs() / 2;
    if (periodMs_ > 0) host_.log.wPrintf(kLogTrace, u"ZOR: service watchdog: a ping every %u ms\n\r", static_cast<unsigned>(periodMs_));
}

void ServiceStatus::Started(bool listening, const char16_t* irqLine) {
    if (!socket_.Active()) return;
    char line[600];
    utf16_to_utf8(irqLine, line, sizeof line);
    char message[700];
    const bool ready = listening && host_.irq.Loaded();
    if (ready) std::snprintf(message, sizeof message, "READY=1\nSTATUS=%s", line);
    else std::snprintf(message, sizeof message, "STATUS=not ready: %s", listening ? "no IRQ driver runs" : "no command socket");
    socket_.Send(message);
    pinging_ = ready && periodMs_ > 0;
    nextMs_ = os::now_ms() + periodMs_;
}

double ServiceStatus::NextDueMs() const { return pinging_ ? nextMs_ : 1e300; }

void ServiceStatus::Tick(double nowMs) {
    if (!pinging_ || nowMs < nextMs_) return;
    nextMs_ = nowMs + periodMs_;
    const bool healthy = DispatchHealthy(host_);
    if (healthy) socket_.Send("WATCHDOG=1");
    else if (!withheld_) host_.log.wPrintf(kLogFault, u"ZOR: watchdog ping withheld: the dispatch thread is stalled\n\r");
    withheld_ = !healthy;
}

void ServiceStatus::Stopping() { socket_.Send("STOPPING=1"); }

}  // namespace zor::shell
