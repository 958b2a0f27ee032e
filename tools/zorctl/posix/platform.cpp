#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "os/posix/wire.h"
#include "platform.h"

namespace zorctl {

namespace {
volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }
}  // namespace

std::vector<std::string> Utf8Args(int argc, char** argv) { return {argv, argv + argc}; }

bool ProcessAlive(std::uint32_t pid) {
    return pid != 0 && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

void CatchInterrupt() {
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

bool Interrupted() { return g_stop != 0; }

std::string AccessProblem() {
    namespace wire = zor::os::posix::wire;
    char dir[256];
    for (int i = 0; wire::search_dir(i, dir, sizeof dir); ++i) {
        DIR* d = opendir(dir);
        if (d == nullptr) {
            if (errno == EACCES) return std::string(dir) + ": permission denied";
            continue;
        }
        std::string found;
        while (dirent* e = readdir(d)) {
            const std::uint32_t pid = wire::socket_pid(e->d_name);
            const std::string path = std::string(dir) + "/" + e->d_name;
            // Connecting needs write access to the socket file.
            if (pid != 0 && ProcessAlive(pid) && access(path.c_str(), W_OK) != 0 && errno == EACCES) {
                found = path + ": permission denied";
                break;
            }
        }
        closedir(d);
        if (!found.empty()) return found;
    }
    return {};
}

bool AnsiTerminal() { return isatty(STDOUT_FILENO) == 1; }

}  // namespace zorctl
