// The Linux host's entry: the command line, the signals the dialog loop
// takes, and the application sequence.
#include <signal.h>

#include <string>

#include "host/app.h"
#include "shell/posix/terminal_shell.h"
#include "support/wformat.h"

int main(int argc, char** argv) {
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
