// The Linux command socket in process: who is admitted, and what an
// ill-formed datagram, a foreign pid or too many descriptors get.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <vector>

#include "common/scoped_env.h"
#include "common/test_host.h"
#include "host/command_intake.h"
#include "os/posix/wire.h"
#include "shell/posix/command_socket.h"
#include "zor/zor_module.h"

namespace zor::shell {
namespace {

TEST(PeerAccess, OwnUserRootAndTheConfiguredGroupOnly) {
    const std::uint32_t supplementary[] = {5, 77};
    struct Case {
        bool hasGroup;
        std::uint32_t uid, gid;
        int groups;
        bool allowed;
    } cases[] = {
        {false, 1000, 1000, 0, true}, {false, 0, 0, 0, true},     {false, 1001, 77, 2, false},
        {true, 1001, 77, 0, true},    {true, 1001, 5, 2, true},   {true, 1001, 5, 1, false},
    };
    for (const Case& c : cases) {
        PeerAccess a{1000, c.hasGroup, 77};
        EXPECT_EQ(PeerAllowed(a, c.uid, c.gid, supplementary, c.groups), c.allowed) << c.uid << "/" << c.gid;
    }
}

class SocketTest : public test::HostTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(socket_.Listen(""));
        char path[256];
        ASSERT_TRUE(os::posix::wire::socket_path(static_cast<std::uint32_t>(getpid()), path, sizeof path));
        struct stat st{};
        ASSERT_EQ(stat(path, &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strcpy(addr.sun_path, path);
        client_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        ASSERT_EQ(connect(client_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        Pump();  // admits the peer
    }
    void TearDown() override { close(client_); }

    void Pump() {
        pollfd fds[CommandSocket::kMaxPeers + 1];
        const int n = socket_.PollSet(fds, CommandSocket::kMaxPeers + 1);
        ASSERT_GT(poll(fds, n, 2000), 0);
        socket_.Handle(fds, n, DialogEnder{});
    }
    // One datagram with `fds` attached; the answer and the descriptors it carries.
    std::uint64_t Send(const std::vector<unsigned char>& bytes, std::vector<int> fds = {},
                       std::vector<int>* got = nullptr) {
        iovec iov{const_cast<unsigned char*>(bytes.data()), bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 8)] = {};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        if (!fds.empty()) {  // by hand: more than the host takes
            msg.msg_control = control;
            msg.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
            cmsghdr* c = CMSG_FIRSTHDR(&msg);
            *c = cmsghdr{CMSG_LEN(sizeof(int) * fds.size()), SOL_SOCKET, SCM_RIGHTS};
            std::memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
        }
        EXPECT_EQ(sendmsg(client_, &msg, 0), static_cast<ssize_t>(bytes.size()));
        Pump();
        std::uint64_t result = 0xBAD;
        iovec in{&result, sizeof result};
        os::posix::wire::Control answerControl;
        msghdr answer{};
        answer.msg_iov = &in;
        answer.msg_iovlen = 1;
        answer.msg_control = answerControl.bytes;
        answer.msg_controllen = sizeof answerControl.bytes;
        EXPECT_EQ(recvmsg(client_, &answer, MSG_DONTWAIT), 8);
        int taken[os::posix::wire::kMaxDescriptors], n = 0;
        os::posix::wire::take_descriptors(&answer, taken, &n);
        for (int i = 0; i < n; ++i) {
            if (got) got->push_back(taken[i]);
            else close(taken[i]);
        }
        return result;
    }
    static std::vector<unsigned char> Command(std::uint64_t cmd, std::vector<std::uint32_t> words,
                                              std::size_t extra = 0) {
        std::vector<unsigned char> b(8 + 4 * words.size() + extra);
        std::memcpy(b.data(), &cmd, 8);
        if (!words.empty()) std::memcpy(b.data() + 8, words.data(), 4 * words.size());
        return b;
    }

    std::filesystem::path dir_ = std::filesystem::temp_directory_path() / ("zor_sock_" + std::to_string(getpid()));
    test::ScopedEnv runtime_{"ZOR_RUNTIME_DIR", dir_.u16string().c_str()};
    CommandSocket socket_{h};
    int client_ = -1;
};

TEST_F(SocketTest, IllFormedDatagramsGetTheFailureValueAndALine) {
    EXPECT_EQ(Send({1, 2, 3}), 0u);
    EXPECT_TRUE(log.Contains("ZOR: command socket: datagram of 3 bytes refused\n\r"));
    EXPECT_EQ(Send(Command(ZOR_CMD_MODULE_CALL, {}, os::posix::wire::kMaxPayload + 1)),
              FindCommand(ZOR_CMD_MODULE_CALL)->failure);
    EXPECT_TRUE(log.Contains("ZOR: command socket: datagram of 65545 bytes refused\n\r"));
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    EXPECT_EQ(Send(Command(ZOR_CMD_IRQ_QUERY, {}), {p[0], p[1], p[0], p[1], p[0]}), 0u);
    EXPECT_TRUE(log.Contains("ZOR: command socket: more than 4 descriptors refused\n\r"));
    close(p[0]);
    close(p[1]);
    // Well-formed again: answered as usual (no driver: 1000).
    EXPECT_EQ(Send(Command(ZOR_CMD_IRQ_QUERY, {})), 1000u);
}

TEST_F(SocketTest, SharedMemoryGoesOnlyToThePeerAndCannotShrink) {
    const std::uint32_t self = static_cast<std::uint32_t>(getpid());
    EXPECT_EQ(Send(Command(ZOR_CMD_SYSMEM, {self + 1, 8192})), 0u);
    EXPECT_TRUE(log.Contains("ZOR: command 3: payload pid " + std::to_string(self + 1) +
                             " is not the peer's (pid " + std::to_string(self) + " uid " +
                             std::to_string(getuid()) + ")\n\r"));
    std::vector<int> fds;
    ASSERT_EQ(Send(Command(ZOR_CMD_SYSMEM, {self, 8192}), {}, &fds), 1u);
    ASSERT_EQ(fds.size(), 1u);
    struct stat st{};
    EXPECT_EQ(fstat(fds[0], &st), 0);
    EXPECT_EQ(st.st_size, 8192);
    EXPECT_NE(ftruncate(fds[0], 100), 0);  // the host's view keeps its pages
    close(fds[0]);
}

}  // namespace
}  // namespace zor::shell
