#include "usage.h"

#include <cstdio>
#include <cstring>

namespace zorctl {

namespace {

constexpr CommandUsage kCommands[] = {
    {"status", "", "is a host running; its IRQ driver's query value", 0, 0},
    {"hosts", "", "process ids of all running hosts, one a line", 0, 0},
    {"register", "NAME [--shm BYTES]",
     "load and register ISR module NAME (file name,\nat most 19 characters), with private shared memory", 1, 1},
    {"unregister", "N", "unregister module number N (exit 1 when no module N is registered)", 1, 1},
    {"unblock", "N", "let module N be called again after the watchdog\n(or the module itself) blocked it", 1, 1},
    {"find", "NAME", "print the number of the registered module NAME", 1, 1},
    {"info", "N", "print the shared-memory size module N registered with\n(exit 1 when no module N is registered)",
     1, 1},
    {"irq-query", "", "print the IRQ driver's query value (1000: no driver)", 0, 0},
    {"irq-control", "VALUE", "send VALUE to the IRQ driver, print its answer", 1, 1},
    {"call", "N HEXBYTES [--pipe] [--tag T]",
     "hand the bytes to module N's ExecRemoteFunc (by\ncommand 5, or over a pipe with --pipe)", 2, 2},
    {"exec", "N FUNC [HEXBYTES] [--wait [MS]]",
     "run function FUNC of module N on the dispatch thread;\n--wait prints its result (default wait 2000 ms)", 2, 3},
    {"stats", "[--json]",
     "the host's figures: events, rate, load, gaps, and\nper module calls, call-time percentiles, faults", 0, 0},
    {"watch", "[--seconds N]",
     "the stats table once a second, with per-second rates,\nuntil Ctrl-C or N seconds", 0, 0},
    {"plot", "--svg FILE [--seconds N]", "histograms of N seconds (default 10) as an SVG page", 0, 0},
    {"trace", "--seconds N -o FILE [--svg]  |  --threshold DUR [--on wake|event|isr:N]\n"
              "      [--before DUR] [--after DUR] [--count K] -o DIR [--svg]",
     "the flight recorder's last N seconds as a trace file (Chrome\ntrace-event JSON; --svg: a timeline too); or wait for events\n"
     "above DUR (500us, 2ms) and write the window around each into\nDIR, printing its cause", 0, 0},
    {"quit", "", "end the host", 0, 0},
    {"help", "[COMMAND]", "this text, or one command's", 0, 1},
};

const char kFooter[] =
    "\n"
    "Options: --pid P talks to the host of process P; --timeout MS bounds each\n"
    "command (default 5000). Numbers may be decimal or 0x-hex.\n"
    "stats, watch, plot and trace only read the host's statistics area and flight\n"
    "recorder; they exit 2 when a layout is not the one this zorctl knows, 3 when\n"
    "the host has ended.\n"
    "exec maps the system shared area: the host then counts this process\n"
    "as a client and ends by itself a few seconds after its last such client exits,\n"
    "unless another one is still running.\n";

const char kExitCodes[] = "\nExit codes: 0 ok, 1 failure, 2 usage, 3 no host running.\n";

// `text` with every line after the first indented by `indent` spaces.
void PrintIndented(const char* text, int indent) {
    for (const char* p = text; *p; ++p) {
        std::putchar(*p);
        if (*p == '\n') std::printf("%*s", indent, "");
    }
    std::putchar('\n');
}

}  // namespace

const CommandUsage* FindCommandUsage(const char* name) {
    for (const CommandUsage& c : kCommands) {
        if (std::strcmp(c.name, name) == 0) return &c;
    }
    return nullptr;
}

void PrintOverview() {
    std::printf("usage: zorctl [--pid P] [--timeout MS] COMMAND [ARGS]\n"
                "       zorctl COMMAND --help\n"
                "       zorctl --version\n\nCommands:\n");
    for (const CommandUsage& c : kCommands) {
        char head[64];
        std::snprintf(head, sizeof head, "%s%s%s", c.name, c.args[0] ? " " : "", c.args);
        if (std::strlen(head) > 27) std::printf("  %s\n%30s", head, "");
        else std::printf("  %-27s ", head);
        PrintIndented(c.text, 30);
    }
    std::fputs(kFooter, stdout);
    std::fputs(kExitCodes, stdout);
}

void PrintCommandHelp(const CommandUsage& c) {
    std::printf("usage: zorctl [--pid P] [--timeout MS] %s%s%s\n\n", c.name, c.args[0] ? " " : "", c.args);
    PrintIndented(c.text, 0);
    std::fputs(kExitCodes, stdout);
}

}  // namespace zorctl
