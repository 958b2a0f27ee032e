// The Linux host's entry: the command line, the signals the dialog loop
// takes, and the application sequence.
#include <grp.h>
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "host/app.h"
#include "host/config.h"
#include "os/os.h"
#include "shell/posix/terminal_shell.h"
#include "support/wformat.h"
#include "zor/zor_version.h"

namespace {

const char kUsage[] =
    "usage: zor [-hide]\n"
    "       zor --help | --version\n"
    "\n"
    "Runs the ZOR host: loads the IRQ driver that ZOR.INI names (LASTIRQ) and\n"
    "calls the registered ISR modules on every event until Ctrl-C, SIGTERM or\n"
    "command 4 (zorctl quit). -hide: no status line every 5 s.\n"
    "Configuration: ZOR.INI beside zor (the package: /etc/zor/ZOR.INI).\n"
    "Clients: zorctl(1); every key: docs/configuration.md.\n";

// --help and --version answer and end; no host starts.
bool Answered(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) {
            std::fputs(kUsage, stdout);
            return true;
        }
        if (!std::strcmp(argv[i], "--version")) {
            std::printf("zor %s\n", ZOR_VERSION_STRING);
            return true;
        }
    }
    return false;
}

// A GROUP= that names no group would leave the host without its command
// socket: refuse to start instead, naming it.
bool GroupKnown() {
    char16_t ini[260], group16[64];
    char group[256];
    zor::InstallationIniPath(ini);
    zor::os::ini_read_string(u"INIT", u"GROUP", u"", group16, 64, ini);
    zor::utf16_to_utf8(group16, group, sizeof group);
    if (!group[0] || getgrnam(group) != nullptr) return true;
    char path[520];
    zor::utf16_to_utf8(ini, path, sizeof path);
    std::fprintf(stderr, "zor: GROUP '%s' in %s names no group of this system; not starting\n", group, path);
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (Answered(argc, argv)) return 0;
    if (!GroupKnown()) return 1;
    // SIGINT and SIGTERM are read from a signalfd by the dialog loop; blocked
    // before any thread starts, so that every thread inherits the mask.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    std::string tail;
    for (int i = 1; i < argc; ++i) {
        if (i > 1) tail += ' ';
        tail += argv[i];
    }
    static char16_t wide[4096];
    zor::utf8_to_utf16(tail.c_str(), wide, 4096);
    zor::shell::TerminalShell shell;
    return zor::RunZorApp(wide, shell);
}
