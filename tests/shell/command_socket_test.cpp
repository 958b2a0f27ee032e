// The Linux command socket in process: who is admitted, and what an
// ill-formed datagram, a foreign pid or too many descriptors get.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <sys/resource.h>
#include <sys/wait.h>
#include <grp.h>
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

TEST(RefusalLog, OneLinePerSecondPerUidCountingTheRest) {
    RefusalLog r;
    std::uint32_t more = 99;
    struct Step {
        std::uint32_t uid;
        double ms;
        bool due;
        std::uint32_t more;
    } steps[] = {{7, 0, true, 0}, {7, 500, false, 0}, {8, 600, true, 0}, {7, 900, false, 0}, {7, 1000, true, 2}};
    for (const Step& s : steps) {
        EXPECT_EQ(r.Due(s.uid, s.ms, &more), s.due) << s.uid << "@" << s.ms;
        EXPECT_TRUE(!s.due || more == s.more) << s.uid << "@" << s.ms;
    }
}

int OpenDescriptors() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

class SocketTest : public test::HostTest {
protected:
    void SetUp() override {
        socket_.SetSilentMs(silentMs_);
        ASSERT_TRUE(socket_.Listen(group_, perUid_));
        ASSERT_TRUE(os::posix::wire::socket_path(static_cast<std::uint32_t>(getpid()), path_, sizeof path_));
        struct stat st{};
        ASSERT_EQ(stat(path_, &st), 0);
        EXPECT_EQ(st.st_mode & 0777, group_[0] ? 0660u : 0600u);
        client_ = Connect();
        Pump();  // admits the peer
    }
    void TearDown() override {
        close(client_);
        std::filesystem::remove_all(dir_);
    }
    int Connect(int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strcpy(addr.sun_path, path_);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        return fd;
    }
    // One round of the host's loop; false when nothing happened in `ms`.
    bool Pump(int ms = 2000) {
        pollfd fds[CommandSocket::kMaxPeers + 1];
        const int n = socket_.PollSet(fds, CommandSocket::kMaxPeers + 1);
        const int ready = poll(fds, n, ms);
        socket_.Handle(fds, n, DialogEnder{});
        return ready > 0;
    }
    // True when the host has closed `fd` (after taking its queued datagrams).
    static bool Closed(int fd) {
        char b[16];
        return recv(fd, b, sizeof b, MSG_DONTWAIT) == 0;
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
    const char* group_ = "";
    int perUid_ = 16;
    double silentMs_ = CommandSocket::kSilentMs;
    char path_[256] = {};
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

TEST_F(SocketTest, EveryDescriptorADatagramCarriesIsClosedWhateverBecomesOfIt) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    const int before = OpenDescriptors();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(Send({}, {p[0], p[1], p[0], p[1]}), 0u);  // an empty datagram
        EXPECT_EQ(Send({1, 2, 3}, {p[0], p[1]}), 0u);
        EXPECT_EQ(Send(Command(ZOR_CMD_IRQ_QUERY, {}), {p[0]}), 1000u);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_TRUE(log.Contains("ZOR: command socket: datagram of 0 bytes refused\n\r"));
    close(p[0]);
    close(p[1]);
}

TEST_F(SocketTest, OutOfDescriptorsWaitingPeersAreClosedOnceLoggedAndTheHostGoesOn) {
    const int waiting[] = {socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0),
                           socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    rlimit low = old;
    low.rlim_cur = static_cast<rlim_t>(OpenDescriptors() + 8);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> held;
    for (int fd; (fd = dup(client_)) >= 0;) held.push_back(fd);
    for (int fd : waiting) Connect(fd);
    for (int round = 0; round < 2; ++round) EXPECT_TRUE(Pump(100));
    EXPECT_FALSE(Pump(100));  // the queue is empty: poll does not wake
    for (int fd : held) close(fd);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    for (int fd : waiting) {
        EXPECT_TRUE(Closed(fd));
        close(fd);
    }
    EXPECT_EQ(log.Count("ZOR: command socket: out of descriptors (Too many open files): new peers are closed\n\r"),
              1u);
    EXPECT_EQ(Send(Command(ZOR_CMD_IRQ_QUERY, {})), 1000u);
}

TEST_F(SocketTest, APayloadPidOfAnotherProcessReachesNoClientRecord) {
    const std::uint32_t self = static_cast<std::uint32_t>(getpid());
    EXPECT_EQ(Send(Command(ZOR_CMD_CLIENT_ADD, {self + 1})), 0u);
    EXPECT_EQ(h.clients.FindClient(self + 1), 0u);
    EXPECT_EQ(Send(Command(ZOR_CMD_CLIENT_ADD, {self})), 1u);
    for (std::uint64_t cmd : {ZOR_CMD_CLIENT_REMOVE, ZOR_CMD_PIPE_DISCONNECT}) {
        EXPECT_EQ(Send(Command(cmd, {self + 1})), 0u);
        EXPECT_TRUE(log.Contains("ZOR: command " + std::to_string(cmd) + ": payload pid " +
                                 std::to_string(self + 1) + " is not the peer's (pid " + std::to_string(self) +
                                 " uid " + std::to_string(getuid()) + ")\n\r"));
    }
    EXPECT_EQ(h.clients.FindClient(self), 1u);
    Send(Command(ZOR_CMD_CLIENT_REMOVE, {self}));
    EXPECT_EQ(h.clients.FindClient(self), 0u);
}

class CappedSocketTest : public SocketTest {
protected:
    CappedSocketTest() {
        perUid_ = 2;
        silentMs_ = 300;
    }
};

TEST_F(CappedSocketTest, OneUserHoldsFewConnectionsAndSilentOnesAreClosed) {
    const int second = Connect();
    const int third = Connect();
    Pump();
    Pump(50);
    EXPECT_TRUE(Closed(third));
    EXPECT_TRUE(log.ContainsSubstr("uid " + std::to_string(getuid()) +
                                   " refused: its user holds the most connections allowed\n\r"));
    EXPECT_EQ(Send(Command(ZOR_CMD_IRQ_QUERY, {})), 1000u);  // client_ has spoken: it stays
    for (int wait; (wait = socket_.WaitMs()) >= 0;) Pump(wait);
    EXPECT_TRUE(Closed(second));
    EXPECT_TRUE(log.ContainsSubstr(" sent nothing for 300 ms: closed\n\r"));
    EXPECT_EQ(Send(Command(ZOR_CMD_IRQ_QUERY, {})), 1000u);
    close(second);
    close(third);
}

TEST(SocketFolder, AFolderOthersCouldControlIsRefused) {
    namespace fs = std::filesystem;
    const fs::path base = fs::temp_directory_path() / ("zor_folder_" + std::to_string(getpid()));
    struct Case {
        const char* name;
        const char* why;
        bool root;
    } cases[] = {{"open", "others may write to it", false},
                 {"link", "it is a symbolic link", false},
                 {"theirs", "it belongs to uid 65534", true}};
    for (const Case& c : cases) {
        if (c.root && getuid() != 0 && std::printf("skipped: a folder of another user needs root\n")) continue;
        fs::create_directories(base / "real");
        const fs::path dir = base / c.name;
        if (std::string(c.name) == "link") fs::create_directory_symlink(base / "real", dir);
        else fs::create_directory(dir);
        chmod(dir.c_str(), std::string(c.name) == "open" ? 0777 : 0700);
        if (c.root) {
            ASSERT_EQ(chown(dir.c_str(), 65534, 65534), 0);
        }
        test::TestHost th;
        test::ScopedEnv env("ZOR_RUNTIME_DIR", dir.u16string().c_str());
        CommandSocket socket(th.host());
        EXPECT_FALSE(socket.Listen(""));
        EXPECT_TRUE(socket.FolderRefused());
        EXPECT_TRUE(th.log().ContainsSubstr("ZOR: command socket: folder '" + dir.string() + "' refused (" + c.why +
                                            "): remove it"))
            << c.name;
    }
    fs::remove_all(base);
}

// A member of the group, in more groups than the first buffer holds, as
// another user: admitted, and refused a module by path.
class GroupSocketTest : public SocketTest {
protected:
    GroupSocketTest() { group_ = "nogroup"; }
};

TEST_F(GroupSocketTest, AMemberOfManyGroupsIsAdmittedButLoadsNoModuleByPath) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to connect as another user (uid 65534)";
    const group* g = getgrnam("nogroup");
    ASSERT_NE(g, nullptr);
    std::vector<gid_t> groups;
    for (gid_t i = 0; i < 100; ++i) groups.push_back(20000 + i);
    groups.push_back(g->gr_gid);
    std::vector<unsigned char> load = Command(ZOR_CMD_ISR_REGISTER, {0, 0, 0, 0});
    const std::u16string name = u"/tmp/evil.so";
    load.insert(load.end(), reinterpret_cast<const unsigned char*>(name.c_str()),
                reinterpret_cast<const unsigned char*>(name.c_str() + name.size() + 1));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path_);
    const pid_t child = fork();
    if (child == 0) {  // system calls only: a copy of a process with threads
        std::uint64_t query = ZOR_CMD_IRQ_QUERY, answer = 0, loaded = 1;
        if (setgroups(groups.size(), groups.data()) != 0 || setgid(20000) != 0 || setuid(65534) != 0) _exit(2);
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) _exit(3);
        if (send(fd, &query, 8, MSG_NOSIGNAL) != 8 || recv(fd, &answer, 8, 0) != 8 || answer != 1000) _exit(4);
        if (send(fd, load.data(), load.size(), MSG_NOSIGNAL) < 0 || recv(fd, &loaded, 8, 0) != 8) _exit(5);
        _exit(loaded == 0 ? 0 : 1);
    }
    int status = -1;
    while (waitpid(child, &status, WNOHANG) == 0) Pump(100);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(log.Contains("ZOR: module '/tmp/evil.so' refused for peer pid " + std::to_string(child) +
                             " uid 65534: only a protected file of the module folder, by name\n\r"));
}

}  // namespace
}  // namespace zor::shell
