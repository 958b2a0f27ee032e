// The Linux host's dialog loop.
#include "shell/posix/terminal_shell.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "host/command_intake.h"
#include "host/config.h"
#include "host/dialog_logic.h"
#include "host/host.h"
#include "control/driver_selection.h"
#include "os/os.h"
#include "os/posix/process_setup.h"
#include "shell/posix/command_socket.h"
#include "shell/posix/service_status.h"
#include "shell/posix/stderr_log.h"
#include "support/wformat.h"

namespace zor::shell {

namespace {

void WarnNoDriver(void*) { StderrLine(4, "ZOR: Warning: No IRQ driver selected!"); }

void Print(const char16_t* text) {
    char utf8[1024], shown[4096];
    const std::size_t n = TerminalText(utf8, utf16_to_utf8(text, utf8, sizeof utf8), shown, sizeof shown - 1);
    shown[n] = 0;
    std::fputs(shown, stdout);
    std::fflush(stdout);
}

struct Loop {
    Host& host;
    bool hide;
    // A supervised host is resident: its unit, not its last client, decides
    // when it ends.
    bool resident;
    bool ended = false;
    bool asking = false;
    std::intptr_t result = 0;
    char16_t irqLine[300] = {};

    static void End(void* ctx, std::intptr_t r) {
        auto* self = static_cast<Loop*>(ctx);
        self->ended = true;
        self->result = r;
    }

    void Cancel() {
        if (asking) return;
        if (CancelNeedsConfirmation(host) && isatty(STDIN_FILENO)) {
            Print(u"Are you sure to terminate and unload\nall hardware drivers? [y/N] ");
            asking = true;
            return;
        }
        End(this, 2);
    }

    void Answered() {
        char buf[64] = {};
        const ssize_t n = read(STDIN_FILENO, buf, sizeof buf - 1);
        asking = false;
        if (n > 0 && (buf[0] == 'y' || buf[0] == 'Y')) End(this, 2);
    }

    void Tick() {
        if (!resident && AutoKillDue(host, kAutoKillTimerId)) {
            End(this, 1);
            return;
        }
        if (hide) return;
        char16_t stats[100], line[420];
        TakeStats(host, stats, 100);
        wformat(line, 420, u"%s  %s\n", irqLine, stats);
        Print(line);
    }
};

void LockMemory(Host& host) {
#ifdef ZOR_SANITIZED
    // The sanitizers' shadow memory is terabytes of reserved pages.
    host.log.wPrintf(kLogTrace, u"ZOR: memory not locked (%S)\n\r", "sanitizer build");
#else
    char why[128];
    if (os::posix::lock_memory(why, sizeof why)) host.log.wPrintf(kLogTrace, u"ZOR: memory locked\n\r");
    else host.log.wPrintf(kLogTrace, u"ZOR: memory not locked (%S)\n\r", why);
#endif
}

}  // namespace

void TerminalShell::LogStarted(Logger& log) { AttachStderr(log); }

std::intptr_t TerminalShell::RunDialog(Host& host, bool hide) {
    ServiceStatus service(host);
    service.Open();
    LockMemory(host);
    os::posix::apply_scheduling(true);
    char16_t ini[260];
    char16_t group16[64];
    char group[256];
    InstallationIniPath(ini);
    os::ini_read_string(u"INIT", u"GROUP", u"", group16, 64, ini);
    utf16_to_utf8(group16, group, sizeof group);
    CommandSocket socket(host);
    const bool listening =
        socket.Listen(group, static_cast<int>(os::ini_read_int(u"INIT", u"CONNPERUID", 16, ini)));
    if (socket.FolderRefused()) {
        StderrLine(3, "ZOR: the command socket's folder is not safe (see the log): not started");
        return -1;
    }

    SelectionUi ui;
    ui.warnNoDriver = WarnNoDriver;
    Loop loop{host, hide, service.Supervised()};
    FormatIrqLine(host, SelectAndLoadIrq(host, ui), loop.irqLine, 300);
    service.Started(listening, loop.irqLine);

    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    const int signals = signalfd(-1, &stop, SFD_CLOEXEC | SFD_NONBLOCK);
    DialogEnder ender{&loop, Loop::End};
    double nextTick = os::now_ms() + kAutoKillPeriodMs;
    while (!loop.ended) {
        pollfd fds[2 + CommandSocket::kMaxPeers + 1];
        fds[0] = pollfd{signals, POLLIN, 0};
        fds[1] = pollfd{loop.asking ? STDIN_FILENO : -1, POLLIN, 0};
        const int n = 2 + socket.PollSet(fds + 2, CommandSocket::kMaxPeers + 1);
        const double wait = std::min(nextTick, service.NextDueMs()) - os::now_ms();
        int waitMs = wait > 0 ? static_cast<int>(wait) + 1 : 0;
        if (const int silent = socket.WaitMs(); silent >= 0 && silent < waitMs) waitMs = silent;
        poll(fds, n, waitMs);
        if (os::now_ms() >= nextTick) {
            nextTick += kAutoKillPeriodMs;
            loop.Tick();
        }
        service.Tick(os::now_ms());
        if (fds[0].revents) {
            signalfd_siginfo si;
            while (read(signals, &si, sizeof si) == sizeof si) loop.Cancel();
        }
        if (fds[1].revents) loop.Answered();
        if (!loop.ended) socket.Handle(fds + 2, n - 2, ender);
    }
    service.Stopping();
    if (signals >= 0) close(signals);
    host.log.SetSink(nullptr, nullptr);
    return loop.result;
}

}  // namespace zor::shell
