// The real host: start-up with both configuration files, the hide switch,
// the IRQ line, the missing-driver warning, and the end on command 4.
#include <algorithm>

#include "e2e_support.h"

namespace zor::e2e {
namespace {

TEST(Startup, ReadsBothIniFilesStaysHiddenAndEndsOnCommandFour) {
    ZorInstance::Options o;
    o.userIni = "[INIT]\r\nIRQPRIO=1\r\n";
    o.args = {"-hide"};
    ZorInstance zor(o);
    ASSERT_TRUE(zor.WaitLog("SZEXE: "));
    // Paths in the log have Windows separators on every platform.
    auto logged = [](std::string path) {
        std::replace(path.begin(), path.end(), '/', '\\');
        return path;
    };
    const std::string dir = logged(zor.Dir()), log = zor.Log();
    EXPECT_EQ(CountOf(log, "SZINI: " + dir + "\\ZOR.INI\r\n"), 1u) << log;
    EXPECT_EQ(CountOf(log, "SZINIW: " + logged(zor.UserIni()) + "\r\n"), 1u) << log;
    EXPECT_EQ(CountOf(log, "SZEXE: " + dir + "\\\r\n"), 1u) << log;
    // The driver is the configured one.
    const ZorStats* s = nullptr;
    ZorView view{};
    ASSERT_EQ(zor_stats_map(zor.Pid(), &s, &view), ZOR_OK);
    EXPECT_EQ(Narrow(s->info.irq_driver), "trigger.irq");
    // Every ramp ends in the last stage, or none applies without the privilege.
    EXPECT_TRUE(s->info.irq_priority == 2u || s->info.irq_priority == 0xFFFFFFFFu) << s->info.irq_priority;
    zor_unmap(&view);
    EXPECT_EQ(Shown(zor), "");

    EXPECT_EQ(zor.Send(ZOR_CMD_QUIT), 0u);
    EXPECT_TRUE(zor.Exited(5000));
    EXPECT_EQ(zor.ExitCode(), 0u);
}

TEST(Startup, WarnsWhenNoDriverIsConfigured) {
    ZorInstance::Options o;
    o.ini = "[INIT]\r\nFALLBACKIRQ=trigger.irq\r\n";
    o.connect = false;
    ZorInstance zor(o);
    EXPECT_EQ(Warning(zor), "No IRQ driver selected!");
    ASSERT_TRUE(zor.WaitReady(5000));
    EXPECT_EQ(Shown(zor), "IRQ: PRIO:0");
    // No driver: command 6 answers 1000, command 7 answers 0.
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_QUERY), 1000u);
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_CONTROL, {5, 0, 0, 0}), 0u);
}

}  // namespace
}  // namespace zor::e2e
