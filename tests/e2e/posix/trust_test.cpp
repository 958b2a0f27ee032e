// What a client checks before it believes that the host answered: the
// socket's folder, the user of the process at the other end, and the
// owner of the statistics object.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "posix/host_socket.h"
#include "zor/zor_client.h"

namespace zor::e2e {
namespace {

namespace fs = std::filesystem;

// A fake host's folder of the test's own, as the runtime folder meanwhile.
class FakeFolder {
public:
    explicit FakeFolder(mode_t mode) {
        fs::create_directories(dir_);
        chmod(dir_.c_str(), mode);
        if (const char* old = std::getenv("ZOR_RUNTIME_DIR")) old_ = old;
        setenv("ZOR_RUNTIME_DIR", dir_.c_str(), 1);
    }
    ~FakeFolder() {
        setenv("ZOR_RUNTIME_DIR", old_.c_str(), 1);
        fs::remove_all(dir_);
    }
    std::string Socket(std::uint32_t pid) const { return dir_.string() + "/zor-" + std::to_string(pid) + ".sock"; }
    const fs::path dir_ = fs::temp_directory_path() / ("zor_fake_" + std::to_string(getpid()));

private:
    std::string old_;
};

int Listen(const std::string& path) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd, 4) != 0) return -1;
    return fd;
}

TEST(Trust, ASocketInAFolderOthersMayWriteIsNotTheHost) {
    FakeFolder folder(0777);
    const std::uint32_t self = static_cast<std::uint32_t>(getpid());
    const int fake = Listen(folder.Socket(self));
    ASSERT_GE(fake, 0);
    ZorConnection* c = nullptr;
    EXPECT_EQ(zor_connect_pid(&c, self, 1000), ZOR_E_UNTRUSTED);
    std::uint32_t pid = 0, uid = 0;
    zor_untrusted_peer(&pid, &uid);
    EXPECT_EQ(pid, self);
    EXPECT_EQ(uid, getuid());
    const RunResult r = Ctl(self, {"irq-query"});
    EXPECT_EQ(r.code, 1u);
    EXPECT_NE(r.out.find("it was answered by process " + std::to_string(self) + " of uid " +
                         std::to_string(getuid()) + "; not used"),
              std::string::npos)
        << r.out;
    close(fake);
}

// A folder closed to others, but another user's, with their process
// listening in it: the folder /tmp/zor-<uid> someone made first.
TEST(Trust, AnotherUsersHostIsNotTheHost) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to listen as another user (uid 65534)";
    FakeFolder folder(0700);
    ASSERT_EQ(chown(folder.dir_.c_str(), 65534, 65534), 0);
    const std::string bound = folder.dir_.string() + "/fake.sock";
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {  // system calls only: a copy of a process with threads
        if (setgid(65534) != 0 || setuid(65534) != 0 || Listen(bound) < 0) _exit(2);
        (void)!write(ready[1], "r", 1);
        pause();
        _exit(0);
    }
    char r;
    ASSERT_EQ(read(ready[0], &r, 1), 1);
    const auto pid = static_cast<std::uint32_t>(child);
    ASSERT_EQ(rename(bound.c_str(), folder.Socket(pid).c_str()), 0);
    ZorConnection* c = nullptr;
    EXPECT_EQ(zor_connect_pid(&c, pid, 1000), ZOR_E_UNTRUSTED);
    std::uint32_t who = 0, uid = 0;
    zor_untrusted_peer(&who, &uid);
    EXPECT_EQ(uid, 65534u);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    for (int fd : ready) close(fd);
}

TEST(Trust, AStatisticsObjectOfAnotherUserIsRefused) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to plant an object of another user (uid 65534)";
    const std::uint32_t self = static_cast<std::uint32_t>(getpid());
    const std::string name = "/ZOR.stats." + std::to_string(self);
    const int fd = shm_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, sizeof(ZorStats)), 0);
    ASSERT_EQ(fchown(fd, 65534, 65534), 0);
    const ZorStats* stats = nullptr;
    EXPECT_EQ(zor_stats_map(self, &stats, std::make_unique<ZorView>().get()), ZOR_E_UNTRUSTED);
    const RunResult r = Ctl(self, {"stats"});
    EXPECT_EQ(r.code, 3u);
    EXPECT_NE(r.out.find("belongs to uid 65534, not the host's user: refused"), std::string::npos) << r.out;
    close(fd);
    shm_unlink(name.c_str());
}

}  // namespace
}  // namespace zor::e2e
