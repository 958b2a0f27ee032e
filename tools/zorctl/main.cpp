// zorctl: drives a running ZOR host from the command line.
//
// Every command is one or two calls into the client library; this file is
// argument handling and printing. Exit codes: 0 ok, 1 the host refused or a
// call failed, 2 usage, 3 no host running (or it ended during the call).
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "client/payloads.h"
#include "module_check.h"
#include "platform.h"
#include "stats_commands.h"
#include "usage.h"
#include "trace.h"
#include "zor/zor_client.h"
#include "zor/zor_version.h"

namespace {

constexpr int kOk = 0, kFail = 1, kUsage = 2, kNoHost = 3;

int Usage(const char* why) {
    std::fprintf(stderr, "zorctl: %s\n(zorctl --help for usage)\n", why);
    return kUsage;
}

bool ParseU32(const char* s, std::uint32_t* out) {
    if (s == nullptr || *s == '\0' || *s == '-') return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(s, &end, 0);
    if (errno != 0 || *end != '\0' || v > 0xFFFFFFFFull) return false;
    *out = static_cast<std::uint32_t>(v);
    return true;
}

int Fail(const char* what, int status) {
    std::fprintf(stderr, "zorctl: %s: %s\n", what, zor_strerror(status));
    if (status == ZOR_E_UNTRUSTED) {
        std::uint32_t pid = 0, uid = 0;
        zor_untrusted_peer(&pid, &uid);
        std::fprintf(stderr, "zorctl: it was answered by process %lu of uid %lu; not used\n",
                     static_cast<unsigned long>(pid), static_cast<unsigned long>(uid));
    }
    return status == ZOR_E_NO_HOST || status == ZOR_E_HOST_GONE ? kNoHost : kFail;
}

struct Args {
    std::vector<const char*> pos;  // positional words after the command
    std::uint32_t shm = 0, tag = 0, wait = 0, seconds = 0;
    bool pipe = false, waitSet = false, secondsSet = false, json = false;
    const char* svg = nullptr;
};

// Options after the command word; returns an error text or null.
const char* ParseOptions(int argc, char** argv, int i, Args* a) {
    for (; i < argc; ++i) {
        const char* s = argv[i];
        if (!std::strcmp(s, "--shm")) {
            if (++i >= argc || !ParseU32(argv[i], &a->shm)) return "--shm needs a byte count";
        } else if (!std::strcmp(s, "--tag")) {
            if (++i >= argc || !ParseU32(argv[i], &a->tag)) return "--tag needs a number";
        } else if (!std::strcmp(s, "--json")) {
            a->json = true;
        } else if (!std::strcmp(s, "--svg")) {
            if (++i >= argc || argv[i][0] == '\0') return "--svg needs a file name";
            a->svg = argv[i];
        } else if (!std::strcmp(s, "--pipe")) {
            a->pipe = true;
        } else if (!std::strcmp(s, "--wait")) {
            a->waitSet = true;
            a->wait = 2000;
            if (i + 1 < argc && ParseU32(argv[i + 1], &a->wait)) ++i;
            if (a->wait == 0) return "--wait needs a positive number of milliseconds";
        } else if (!std::strcmp(s, "--seconds")) {
            a->secondsSet = true;
            if (++i >= argc || !ParseU32(argv[i], &a->seconds)) return "--seconds needs a number";
        } else if (s[0] == '-' && s[1] == '-') {
            return "unknown option";
        } else {
            a->pos.push_back(s);
        }
    }
    return nullptr;
}

int Status(ZorConnection* c) {
    std::uint32_t q = 0;
    int st = zor_irq_query(c, &q);
    if (st != ZOR_OK) return Fail("irq-query", st);
    std::printf("host running: pid %lu\n", static_cast<unsigned long>(zor_host_pid(c)));
    // The value is the driver's own (timer.irq: its period in microseconds);
    // the host answers 1000 itself when no driver is loaded.
    std::printf("irq driver query: %lu%s\n", static_cast<unsigned long>(q),
                q == 1000 ? " (also the host's answer when no driver is loaded)" : "");
    return kOk;
}

int RunStatsCommand(const std::string& cmd, std::uint32_t pid, std::uint32_t timeout, const Args& a) {
    if (!a.pos.empty()) return Usage("stats, watch and plot take no positional arguments");
    zorctl::StatsOptions o{pid, timeout, a.json, a.svg, a.seconds, a.secondsSet};
    if (cmd == "stats") return zorctl::Stats(o);
    if (cmd == "watch") return zorctl::Watch(o);
    if (a.svg == nullptr) return Usage("plot --svg FILE [--seconds N]");
    if (!a.secondsSet) o.seconds = 10;
    return zorctl::Plot(o);
}

int Run(ZorConnection* c, const std::string& cmd, const Args& a) {
    const auto& p = a.pos;
    std::uint32_t n = 0, v = 0, r = 0;
    int st;
    if (cmd == "status") {
        if (!p.empty()) return Usage("status takes no arguments");
        return Status(c);
    }
    if (cmd == "register") {
        if (p.size() != 1) return Usage("register NAME [--shm BYTES]");
        ZorView shm{};
        st = zor_register_module(c, p[0], a.shm, &n, a.shm ? &shm : nullptr);
        if (st != ZOR_OK) return Fail("register", st);
        std::printf("registered %s as module %lu", p[0], static_cast<unsigned long>(n));
        if (a.shm) std::printf(" with %lu bytes of shared memory", static_cast<unsigned long>(a.shm));
        std::printf("\n");
        zor_unmap(&shm);
        return kOk;
    }
    if (cmd == "unregister") {
        if (p.size() != 1 || !ParseU32(p[0], &n)) return Usage("unregister N");
        const zorctl::ModuleKnown known = zorctl::IsModuleRegistered(c, n);
        if (known == zorctl::ModuleKnown::No) return Fail("unregister", ZOR_E_NOT_REGISTERED);
        st = zor_unregister_module(c, n);
        if (st != ZOR_OK) return Fail("unregister", st);
        std::printf(known == zorctl::ModuleKnown::Yes ? "module %lu unregistered\n"
                                                      : "unregister sent for module %lu\n",
                    static_cast<unsigned long>(n));
        return kOk;
    }
    if (cmd == "unblock") {
        if (p.size() != 1 || !ParseU32(p[0], &n)) return Usage("unblock N");
        st = zor_unblock_module(c, n);
        if (st != ZOR_OK) return Fail("unblock", st);
        std::printf("module %lu unblocked\n", static_cast<unsigned long>(n));
        return kOk;
    }
    if (cmd == "find") {
        if (p.size() != 1) return Usage("find NAME");
        st = zor_find_module(c, p[0], &n);
        if (st != ZOR_OK) return Fail(p[0], st);
        std::printf("%lu\n", static_cast<unsigned long>(n));
        return kOk;
    }
    if (cmd == "info") {
        if (p.size() != 1 || !ParseU32(p[0], &n)) return Usage("info N");
        st = zor_module_info(c, n, &v);
        if (st != ZOR_OK) return Fail("info", st);
        // 0 is also the host's answer for a number it does not know.
        if (v == 0 && zorctl::IsModuleRegistered(c, n) == zorctl::ModuleKnown::No)
            return Fail("info", ZOR_E_NOT_REGISTERED);
        std::printf("module %lu: %lu bytes of shared memory\n", static_cast<unsigned long>(n),
                    static_cast<unsigned long>(v));
        return kOk;
    }
    if (cmd == "irq-query") {
        if (!p.empty()) return Usage("irq-query takes no arguments");
        st = zor_irq_query(c, &v);
        if (st != ZOR_OK) return Fail("irq-query", st);
        std::printf("%lu\n", static_cast<unsigned long>(v));
        return kOk;
    }
    if (cmd == "irq-control") {
        if (p.size() != 1 || !ParseU32(p[0], &v)) return Usage("irq-control VALUE");
        st = zor_irq_control(c, v, &r);
        if (st != ZOR_OK) return Fail("irq-control", st);
        std::printf("%lu\n", static_cast<unsigned long>(r));
        return kOk;
    }
    if (cmd == "call" || cmd == "exec") {
        const bool exec = cmd == "exec";
        std::uint32_t func = 0;
        const std::size_t need = exec ? 2 : 2, most = exec ? 3 : 2;
        if (p.size() < need || p.size() > most || !ParseU32(p[0], &n) ||
            (exec && !ParseU32(p[1], &func)))
            return Usage(exec ? "exec N FUNC [HEXBYTES] [--wait [MS]]"
                              : "call N HEXBYTES [--pipe] [--tag T]");
        const char* hex = exec ? (p.size() == 3 ? p[2] : "") : p[1];
        std::vector<unsigned char> data(std::strlen(hex) / 2 + 1);
        std::size_t len = 0;
        st = zor::client::parse_hex(hex, data.data(), data.size(), &len);
        if (st != ZOR_OK) return Usage("HEXBYTES must be pairs of hex digits");
        if (exec) {
            st = zor_exec_isr_func(c, n, func, data.data(), static_cast<std::uint32_t>(len),
                                   a.waitSet ? a.wait : 0, &r);
            if (st != ZOR_OK) return Fail("exec", st);
            if (a.waitSet) std::printf("%lu\n", static_cast<unsigned long>(r));
            else std::printf("queued\n");
            return kOk;
        }
        if (a.pipe) {
            st = zor_pipe_open(c);
            if (st != ZOR_OK) return Fail("pipe", st);
            st = zor_pipe_call(c, n, a.tag, data.data(), static_cast<std::uint32_t>(len), &r);
            int cst = zor_pipe_close(c);
            if (st == ZOR_OK && cst != ZOR_OK) st = cst;
        } else {
            st = zor_module_call(c, n, a.tag, data.data(), static_cast<std::uint32_t>(len), &r);
        }
        if (st != ZOR_OK) return Fail("call", st);
        std::printf("%lu\n", static_cast<unsigned long>(r));
        return kOk;
    }
    if (cmd == "quit") {
        if (!p.empty()) return Usage("quit takes no arguments");
        st = zor_quit(c);
        if (st != ZOR_OK) return Fail("quit", st);
        std::printf("host told to quit\n");
        return kOk;
    }
    return Usage("unknown command");
}

}  // namespace

namespace {
int Main(int argc, char** argv);
}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args = zorctl::Utf8Args(argc, argv);
    std::vector<char*> ptrs;
    for (auto& a : args) ptrs.push_back(a.data());
    ptrs.push_back(nullptr);
    return Main(argc, ptrs.data());
}

namespace {

int Main(int argc, char** argv) {
    std::uint32_t pid = 0, timeout = 0;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) {
            zorctl::PrintOverview();
            return kOk;
        }
        if (!std::strcmp(argv[i], "--version")) {
            std::printf("zorctl %s\n", ZOR_VERSION_STRING);
            return kOk;
        }
        if (!std::strcmp(argv[i], "--pid")) {
            if (++i >= argc || !ParseU32(argv[i], &pid) || pid == 0) return Usage("--pid needs a process id");
        } else if (!std::strcmp(argv[i], "--timeout")) {
            if (++i >= argc || !ParseU32(argv[i], &timeout) || timeout == 0)
                return Usage("--timeout needs milliseconds");
        } else {
            return Usage("unknown option");
        }
    }
    if (i >= argc) return Usage("no command");
    const std::string cmd = argv[i];
    const zorctl::CommandUsage* usage = zorctl::FindCommandUsage(cmd.c_str());
    if (usage == nullptr) return Usage(("unknown command '" + cmd + "'").c_str());
    for (int k = i + 1; k < argc; ++k) {
        if (!std::strcmp(argv[k], "--help") || !std::strcmp(argv[k], "-h")) {
            zorctl::PrintCommandHelp(*usage);
            return kOk;
        }
    }
    // trace reads its own options (durations, a folder).
    if (cmd == "trace") return zorctl::Trace(argc - i - 1, argv + i + 1, pid, timeout);
    Args a;
    if (const char* err = ParseOptions(argc, argv, i + 1, &a)) return Usage(err);
    if (a.pos.size() < usage->minWords || a.pos.size() > usage->maxWords) {
        const std::string want = "usage: zorctl " + cmd + (usage->args[0] ? " " : "") + usage->args;
        return Usage(want.c_str());
    }
    if (cmd == "help") {
        if (a.pos.empty()) {
            zorctl::PrintOverview();
            return kOk;
        }
        const zorctl::CommandUsage* one = zorctl::FindCommandUsage(a.pos[0]);
        if (one == nullptr) return Usage("help: unknown command");
        zorctl::PrintCommandHelp(*one);
        return kOk;
    }
    if (cmd == "hosts") {
        std::uint32_t pids[64], n = 0;
        zor_list_hosts(pids, 64, &n);
        for (std::uint32_t k = 0; k < n && k < 64; ++k) std::printf("%lu\n", static_cast<unsigned long>(pids[k]));
        return n ? kOk : kNoHost;
    }
    if (cmd == "stats" || cmd == "watch" || cmd == "plot") return RunStatsCommand(cmd, pid, timeout, a);

    ZorConnection* c = nullptr;
    int st = pid ? zor_connect_pid(&c, pid, timeout) : zor_connect(&c, timeout);
    if (st != ZOR_OK) {
        if (st == ZOR_E_NO_HOST && zorctl::ReportAccessProblem()) return kFail;
        if (cmd == "status" && st == ZOR_E_NO_HOST) std::printf("no host running\n");
        return Fail("connect", st);
    }
    int rc = Run(c, cmd, a);
    std::fflush(stdout);
    zor_disconnect(c);
    return rc;
}

}  // namespace
