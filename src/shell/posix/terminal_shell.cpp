// The Linux host's dialog loop.
#include "shell/posix/terminal_shell.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

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
#include "support/wformat.h"

namespace zor::shell {

namespace {

// Lines at level 0 or with mask 0 or 1 also go to a terminal's stderr.
void StderrSink(void*, std::uint32_t level, std::uint32_t mask, const char* utf8, std::size_t len) {
    if (level != 0 && mask > 1) return;
    char line[4096];
    std::size_t n = TerminalText(utf8, len, line, sizeof line - 1);
    if (n == 0 || line[n - 1] != '\n') line[n++] = '\n';
    (void)!write(STDERR_FILENO, line, n);
}

void WarnNoDriver(void*) { std::fputs("ZOR: Warning: No IRQ driver selected!\n", stderr); }

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
        if (AutoKillDue(host, kAutoKillTimerId)) {
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

// Names in log lines are clients' words: an escape sequence in one must
// not drive the operator's terminal.
std::size_t TerminalText(const char* utf8, std::size_t len, char* out, std::size_t cap) {
    static const char kHex[] = "0123456789abcdef";
    std::size_t n = 0;
    for (std::size_t i = 0; i < len; ++i) {
        const auto c = static_cast<unsigned char>(utf8[i]);
        // C0 controls but line feed and tab, DEL, and the C1 controls (U+0080..U+009F).
        const bool c1 = c == 0xC2 && i + 1 < len && static_cast<unsigned char>(utf8[i + 1]) < 0xA0;
        if (c == '\r') continue;
        if ((c < 0x20 && c != '\n' && c != '\t') || c == 0x7F || c1) {
            const unsigned v = c1 ? static_cast<unsigned char>(utf8[++i]) : c;
            if (n + 4 > cap) break;
            out[n++] = '\\';
            out[n++] = 'x';
            out[n++] = kHex[v >> 4];
            out[n++] = kHex[v & 15];
        } else if (n < cap) {
            out[n++] = static_cast<char>(c);
        }
    }
    return n;
}

void TerminalShell::LogStarted(Logger& log) {
    if (isatty(STDERR_FILENO)) log.SetSink(StderrSink, nullptr);
}

std::intptr_t TerminalShell::RunDialog(Host& host, bool hide) {
    LockMemory(host);
    os::posix::apply_scheduling(true);
    char16_t ini[260];
    char16_t group16[64];
    char group[256];
    InstallationIniPath(ini);
    os::ini_read_string(u"INIT", u"GROUP", u"", group16, 64, ini);
    utf16_to_utf8(group16, group, sizeof group);
    CommandSocket socket(host);
    socket.Listen(group, static_cast<int>(os::ini_read_int(u"INIT", u"CONNPERUID", 16, ini)));
    if (socket.FolderRefused()) {
        std::fputs("ZOR: the command socket's folder is not safe (see the log): not started\n", stderr);
        return -1;
    }

    SelectionUi ui;
    ui.warnNoDriver = WarnNoDriver;
    Loop loop{host, hide};
    FormatIrqLine(host, SelectAndLoadIrq(host, ui), loop.irqLine, 300);

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
        const double wait = nextTick - os::now_ms();
        int waitMs = wait > 0 ? static_cast<int>(wait) + 1 : 0;
        if (const int silent = socket.WaitMs(); silent >= 0 && silent < waitMs) waitMs = silent;
        poll(fds, n, waitMs);
        if (os::now_ms() >= nextTick) {
            nextTick += kAutoKillPeriodMs;
            loop.Tick();
        }
        if (fds[0].revents) {
            signalfd_siginfo si;
            while (read(signals, &si, sizeof si) == sizeof si) loop.Cancel();
        }
        if (fds[1].revents) loop.Answered();
        if (!loop.ended) socket.Handle(fds + 2, n - 2, ender);
    }
    if (signals >= 0) close(signals);
    host.log.SetSink(nullptr, nullptr);
    return loop.result;
}

}  // namespace zor::shell
