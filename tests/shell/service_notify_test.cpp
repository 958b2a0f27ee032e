// What the host tells a service manager: which NOTIFY_SOCKET addresses and
// watchdog settings it accepts, that a message arrives whole, and the level
// each log line gets in the journal.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "shell/posix/notify_socket.h"
#include "shell/posix/stderr_log.h"

namespace zor::shell {
namespace {

// A manager's end: a datagram socket bound to `name` ("@..." abstract).
int Listen(const std::string& name) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    name.copy(a.sun_path, name.size());
    if (name[0] == '@') a.sun_path[0] = 0;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const socklen_t len = offsetof(sockaddr_un, sun_path) + name.size() + (name[0] == '/');
    unlink(name.c_str());
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), len), 0) << name;
    return fd;
}

TEST(NotifySocket, PathsAndAbstractNamesCarryWholeMessages) {
    const std::string pid = std::to_string(getpid());
    for (const std::string& name : {"/tmp/zor-notify-test-" + pid, "@zor-notify-test-" + pid}) {
        const int manager = Listen(name);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        NotifySocket n;
        ASSERT_TRUE(n.Open()) << name;
        EXPECT_EQ(std::getenv("NOTIFY_SOCKET"), nullptr) << "left for child processes";
        ASSERT_TRUE(n.Send("READY=1\nSTATUS=IRQ:timer.irq PRIO:0"));
        char got[100] = {};
        EXPECT_EQ(recv(manager, got, sizeof got - 1, 0), 35);
        EXPECT_STREQ(got, "READY=1\nSTATUS=IRQ:timer.irq PRIO:0");
        close(manager);
        if (name[0] == '/') unlink(name.c_str());
    }
}

TEST(NotifySocket, RefusesWhatIsNoAddressAndReadsTheWatchdogForThisProcessOnly) {
    const std::string self = std::to_string(getpid());
    struct Case {
        const char* socket;
        const char* usec;
        std::string pid;
        bool opens;
        double ms;
    } cases[] = {
        {nullptr, "400000", "", false, 0},   {"relative/path", "400000", "", false, 0},
        {"@", "400000", "", false, 0},       {"@zor-x", "400000", "", true, 400},
        {"@zor-x", "400000", self, true, 400}, {"@zor-x", "400000", "1", true, 0},
        {"@zor-x", "12x", "", true, 0},      {"@zor-x", nullptr, "", true, 0},
    };
    for (const Case& c : cases) {
        c.socket ? setenv("NOTIFY_SOCKET", c.socket, 1) : unsetenv("NOTIFY_SOCKET");
        c.usec ? setenv("WATCHDOG_USEC", c.usec, 1) : unsetenv("WATCHDOG_USEC");
        c.pid.empty() ? unsetenv("WATCHDOG_PID") : setenv("WATCHDOG_PID", c.pid.c_str(), 1);
        NotifySocket n;
        EXPECT_EQ(n.Open(), c.opens) << (c.socket ? c.socket : "unset");
        EXPECT_EQ(n.WatchdogMs(), c.ms) << (c.usec ? c.usec : "unset") << " pid " << c.pid;
        EXPECT_EQ(std::getenv("WATCHDOG_USEC"), nullptr);
    }
}

TEST(StderrLog, JournalLevelsByPairWithTheConfigurationLinesAsNotices) {
    struct Case {
        std::uint32_t level, mask;
        const char* text;
        int syslog;
    } cases[] = {
        {2, 0, "ZOR: ISR 'x' caused exception", 3}, {2, 0, "SZINI: \\etc\\zor\\ZOR.INI", 5},
        {2, 1, "ZOR: No IRQ driver selected!", 4},   {0, 1, "ZOR: Time discontinuous!", 4},
        {0, 6, "ZOR: report", 5},                      {Logger::kSelfLevel, Logger::kSelfLevel, "ZOR: log", 4},
    };
    for (const Case& c : cases) EXPECT_EQ(SyslogLevel(c.level, c.mask, c.text), c.syslog) << c.text;
}

}  // namespace
}  // namespace zor::shell
