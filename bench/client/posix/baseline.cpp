// POSIX: command 6 as an 8-byte datagram over a SOCK_SEQPACKET socketpair
// to a child process that sends every datagram straight back.
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>

#include "baseline.h"
#include "zor/zor_client.h"

namespace client_bench {

namespace {

int g_sock = -1;
pid_t g_child = -1;

[[noreturn]] void Echo(int fd) {
    unsigned char buf[16];
    for (;;) {
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0 || send(fd, buf, static_cast<std::size_t>(n), MSG_NOSIGNAL) != n) _exit(0);
    }
}

}  // namespace

bool PinTo(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return cpu >= 0 && sched_setaffinity(0, sizeof set, &set) == 0;
}

int OtherCpu(int cpu) {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) != 0) return -1;
    for (int i = 0; i < CPU_SETSIZE; ++i)
        if (i != cpu && CPU_ISSET(i, &set)) return i;
    return -1;
}

bool BaselineOpen(Baseline* b, int cpu) {
    *b = {"socket command 6 round trip", "bare SOCK_SEQPACKET echo in its own process", bench::MaxRatio(1.3)};
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) return false;
    g_child = fork();
    if (g_child == 0) {
        close(sv[0]);
        if (cpu >= 0) PinTo(cpu);
        Echo(sv[1]);
    }
    close(sv[1]);
    if (g_child < 0) {
        close(sv[0]);
        return false;
    }
    g_sock = sv[0];
    return true;
}

bool BaselineRound() {
    std::uint64_t command = ZOR_CMD_IRQ_QUERY, answer = 0;
    return send(g_sock, &command, 8, MSG_NOSIGNAL) == 8 && recv(g_sock, &answer, 8, 0) == 8;
}

void BaselineClose() {
    if (g_sock >= 0) close(g_sock);  // the echo ends at end of file
    if (g_child > 0) waitpid(g_child, nullptr, 0);
    g_sock = -1;
    g_child = -1;
}

}  // namespace client_bench
