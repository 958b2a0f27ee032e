#include <cerrno>
#include <csignal>
#include <unistd.h>

#include "platform.h"

namespace zorctl {

namespace {
volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }
}  // namespace

std::vector<std::string> Utf8Args(int argc, char** argv) { return {argv, argv + argc}; }

bool ProcessAlive(std::uint32_t pid) {
    return pid != 0 && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

void CatchInterrupt() {
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

bool Interrupted() { return g_stop != 0; }

bool AnsiTerminal() { return isatty(STDOUT_FILENO) == 1; }

}  // namespace zorctl
