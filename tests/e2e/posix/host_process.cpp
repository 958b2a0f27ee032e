// zor and programs as Linux processes; commands through the socket. The
// host's folders all lie in the test's own: XDG_CONFIG_HOME, XDG_STATE_HOME,
// ZOR_LOG_FILE; ZOR_RUNTIME_DIR is one folder per test process, which the
// tools started from it share.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "posix/host_socket.h"

namespace zor::e2e {
namespace {

// argv made before fork: the child only calls what is safe after forking a
// process with threads. It inherits the environment.
pid_t Spawn(const std::string& exe, const std::vector<std::string>& args, int out, int err, const char* dir) {
    std::vector<char*> argv{const_cast<char*>(exe.c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        if (dir && chdir(dir) != 0) _exit(126);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid > 0 ? pid : 0;
}

// The first line of the file that starts with `from`, without it and its
// end, waited for up to `ms`.
std::string WaitLine(const std::string& path, const std::string& from, int ms) {
    for (int waited = 0;; waited += 50) {
        const std::string text = FileText(path);
        const auto at = text.find(from), end = text.find('\n', at);
        if (at != std::string::npos && end != std::string::npos) return text.substr(at + from.size(), end - at - from.size());
        if (waited >= ms) return "";
        Pause(50);
    }
}

}  // namespace

const char kSep = '/';
std::string Mod(const std::string& stem) { return stem + ".so"; }
std::string Exe(const std::string& stem) { return stem; }
std::string BinFile(const std::string& name) { return std::string(ZOR_BIN_DIR) + "/" + name; }
std::string TestBinFile(const std::string& name) { return std::string(ZOR_TEST_BIN_DIR) + "/" + name; }
std::uint32_t SelfPid() { return static_cast<std::uint32_t>(getpid()); }

struct Program::Proc {
    pid_t pid = 0;
    int read = -1;
};

Program::Program(const std::string& exe, const std::vector<std::string>& args) : p_(new Proc) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return;
    p_->pid = Spawn(exe, args, fds[1], fds[1], nullptr);
    close(fds[1]);
    p_->read = fds[0];
}

Program::~Program() {
    Kill();
    if (p_->read >= 0) close(p_->read);
}

std::uint32_t Program::Finish() {
    while (ReadMore()) {
    }
    int status = 0;
    if (p_->pid <= 0 || waitpid(p_->pid, &status, 0) != p_->pid) return 0xFFFFFFFF;
    p_->pid = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 0xFFFFFFFF;
}

void Program::Kill() {
    if (p_->pid <= 0) return;
    kill(p_->pid, SIGKILL);
    waitpid(p_->pid, nullptr, 0);
    p_->pid = 0;
}

bool Program::ReadMore() {
    char buf[4096];
    pollfd pfd{p_->read, POLLIN, 0};
    if (p_->read < 0 || poll(&pfd, 1, 30000) != 1) return false;
    const ssize_t got = read(p_->read, buf, sizeof buf);
    if (got <= 0) return false;
    out_.append(buf, static_cast<std::size_t>(got));
    return true;
}

void ZorInstance::Start(const Options& o) {
    static const std::string run =
        (std::filesystem::temp_directory_path() / ("zor_e2e_run_" + std::to_string(getpid()))).string();
    setenv("ZOR_RUNTIME_DIR", run.c_str(), 1);
    p_ = new Proc{0, -1, dir_ + "/stdout", dir_ + "/stderr"};
    // Tests run one at a time; the tools started later need no log file.
    setenv("XDG_CONFIG_HOME", user_.c_str(), 1);
    setenv("XDG_STATE_HOME", (dir_ + "/state").c_str(), 1);
    setenv("ZOR_LOG_FILE", logFile_.c_str(), 1);
    const int out = open(p_->out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int err = open(p_->err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    EXPECT_EQ(o.beforeStart, nullptr) << "not on this platform";
    p_->pid = Spawn(dir_ + "/zor", o.args, out, err, dir_.c_str());
    pid_ = static_cast<std::uint32_t>(p_->pid);
    unsetenv("ZOR_LOG_FILE");
    close(out);
    close(err);
}

ZorInstance::~ZorInstance() {
    Stop();
    if (pid_) unlink(SocketPath(*this).c_str());  // left behind by a killed host
    delete p_;
    rmdir(std::getenv("ZOR_RUNTIME_DIR"));  // once no host is left in it
}

// The socket accepts before the driver is chosen; the first answer comes
// once the set-up is done.
bool ZorInstance::WaitReady(std::uint32_t ms) {
    for (std::uint32_t waited = 0; !conn_ && waited < ms && !Exited(0); waited += 20) {
        if (access(SocketPath(*this).c_str(), F_OK) == 0) EXPECT_EQ(zor_connect_pid(&conn_, pid_, 5000), ZOR_OK);
        else Pause(20);
    }
    std::uint32_t answer = 0;
    return conn_ && zor_irq_query(conn_, &answer) == ZOR_OK;
}

void ZorInstance::Kill() const {
    if (p_->pid > 0 && p_->status < 0) kill(p_->pid, SIGKILL);
    Exited(5000);
}

bool ZorInstance::Exited(std::uint32_t ms) const {
    for (std::uint32_t waited = 0; p_->status < 0; waited += 10) {
        int status = 0;
        if (waitpid(p_->pid, &status, WNOHANG) == p_->pid) p_->status = status;
        else if (waited >= ms) return false;
        else Pause(10);
    }
    return true;
}

std::uint32_t ZorInstance::ExitCode() const {
    return p_->status >= 0 && WIFEXITED(p_->status) ? WEXITSTATUS(p_->status) : 0xFFFFFFFF;
}

std::uint32_t ZorInstance::Send(std::uint64_t cmd, const std::vector<unsigned char>& payload) const {
    std::vector<unsigned char> bytes(8);
    std::memcpy(bytes.data(), &cmd, 8);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return static_cast<std::uint32_t>(SendDatagram(SocketPath(*this), bytes));
}

std::string SocketPath(const ZorInstance& zor) {
    return std::string(std::getenv("ZOR_RUNTIME_DIR")) + "/zor-" + std::to_string(zor.Pid()) + ".sock";
}

std::uint64_t SendDatagram(const std::string& socket, const std::vector<unsigned char>& bytes) {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socket.c_str(), sizeof addr.sun_path - 1);
    const timeval wait{20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    std::uint64_t r = ~0ull;
    iovec iov{&r, sizeof r};
    alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size()) ||
        recvmsg(fd, &msg, MSG_CMSG_CLOEXEC) != sizeof r) {
        r = ~0ull;
        msg.msg_controllen = 0;
    }
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c))
        for (std::size_t i = 0; i < (c->cmsg_len - CMSG_LEN(0)) / sizeof(int); ++i)
            close(reinterpret_cast<int*>(CMSG_DATA(c))[i]);
    close(fd);
    return r;
}

std::string Shown(const ZorInstance& zor) {
    const std::string line = WaitLine(zor.proc().out, "", 7500);  // one every 5 s
    return line.substr(0, line.find("  "));
}

std::string Warning(const ZorInstance& zor) { return WaitLine(zor.proc().err, "ZOR: Warning: ", 15000); }

}  // namespace zor::e2e
