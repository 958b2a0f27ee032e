// What only the Linux host's command socket checks: the peer's credentials
// against the payload's pid and the host's users, and datagrams that hold
// no command.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "posix/host_socket.h"

namespace zor::e2e {
namespace {

TEST(Socket, APayloadPidNotThePeersAndDatagramsWithoutACommandAreRefused) {
    ZorInstance zor;
    const ZorSysMemPayload area{static_cast<std::uint32_t>(getppid()), 0x2000};
    std::vector<unsigned char> payload(sizeof area);
    std::memcpy(payload.data(), &area, sizeof area);
    EXPECT_EQ(zor.Send(ZOR_CMD_SYSMEM, payload), 0u);
    EXPECT_TRUE(zor.WaitLog("ZOR: command 3: payload pid " + std::to_string(getppid()) + " is not the peer's (pid " +
                            std::to_string(getpid()) + " uid " + std::to_string(getuid()) + ")\n\r"));
    for (std::size_t n : {4u, 8u + 65536u + 1u}) {
        EXPECT_EQ(SendDatagram(SocketPath(zor), std::vector<unsigned char>(n, 1)), 0u) << n;
        EXPECT_TRUE(zor.WaitLog("ZOR: command socket: datagram of " + std::to_string(n) + " bytes refused\n\r"));
    }
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_CONTROL, {3, 0, 0, 0}), 1u);  // still serving
}

// The socket's mode already keeps other users out; opened up here, so that
// it is the host's own check that refuses.
TEST(Socket, APeerOfAnotherUserIsRefused) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to connect as another user (uid 65534)";
    ZorInstance zor;
    const std::string path = SocketPath(zor);
    ASSERT_EQ(chmod(path.substr(0, path.rfind('/')).c_str(), 0711), 0);
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    const pid_t child = fork();
    if (child == 0) {  // system calls only: a copy of a process with threads
        std::uint64_t cmd = ZOR_CMD_IRQ_QUERY, answer = 0;
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) _exit(3);
        const bool refused = send(fd, &cmd, 8, MSG_NOSIGNAL) != 8 || recv(fd, &answer, 8, 0) <= 0;
        _exit(refused ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(zor.WaitLog("ZOR: command socket: peer pid " + std::to_string(child) + " uid 65534 refused\n\r"));
}

// A GROUP= naming no group would leave the host without its socket.
TEST(Socket, AnUnknownGroupStopsTheStart) {
    ZorInstance::Options o;
    o.ini += "GROUP=zor-no-such-group\r\n";
    o.connect = false;
    ZorInstance zor(o);
    ASSERT_TRUE(zor.Exited(5000));
    EXPECT_EQ(zor.ExitCode(), 1u);
}

}  // namespace
}  // namespace zor::e2e
