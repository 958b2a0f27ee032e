// The real zor.exe: start-up with its configuration, the hide switch, the
// IRQ line, the missing-driver warning, and the end on command 4.
#include "e2e_support.h"

namespace zor::e2e {
namespace {

TEST(Startup, LogsItsConfigurationStaysHiddenAndEndsOnCommandFour) {
    ZorInstance::Options o;
    o.userIni = "[INIT]\r\nIRQPRIO=1\r\n";
    o.args = L"-hide";
    o.ini += "ALLOWLOWINTEGRITY=1\r\n";
    ZorInstance zor(o);
    ASSERT_NE(zor.Window(), nullptr);
    ASSERT_TRUE(zor.WaitLog("SZEXE: "));
    EXPECT_TRUE(zor.WaitLog("ZOR: commands from lower integrity levels allowed\n\r"));
    const std::string dir = Narrow(zor.Dir()), log = zor.Log();
    EXPECT_EQ(CountOf(log, "SZINI: " + dir + "\\ZOR.INI\r\n"), 1u) << log;
    EXPECT_EQ(CountOf(log, "SZINIW: " + Narrow(zor.AppData()) + "\\ZOR\\ZOR.ini\r\n"), 1u) << log;
    EXPECT_EQ(CountOf(log, "SZEXE: " + dir + "\\\r\n"), 1u) << log;
    // The per-user file's priority wins; the driver is the configured one.
    EXPECT_EQ(WindowText(GetDlgItem(zor.Window(), -1)), "IRQ:trigger.irq PRIO:1");
    // Hidden past the modal loop's first idle, which shows dialogs, and when asked.
    Sleep(300);
    EXPECT_FALSE(IsWindowVisible(zor.Window()));
    ShowWindow(zor.Window(), SW_SHOW);
    SetWindowPos(zor.Window(), nullptr, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_SHOWWINDOW);
    Sleep(100);
    EXPECT_FALSE(IsWindowVisible(zor.Window()));

    EXPECT_EQ(zor.Send(ZOR_CMD_QUIT), 0u);
    EXPECT_TRUE(zor.Exited(5000));
    EXPECT_EQ(zor.ExitCode(), 0u);
}

TEST(Startup, WarnsWhenNoDriverIsConfigured) {
    ZorInstance::Options o;
    o.ini = "[INIT]\r\nFALLBACKIRQ=trigger.irq\r\n";
    o.connect = false;
    ZorInstance zor(o);
    HWND box = WaitDialog(zor.Pid(), L"ZOR: Warning", 15000);
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(WindowText(GetDlgItem(box, 0xFFFF)), "No IRQ driver selected!");
    PostMessageW(box, WM_COMMAND, MAKEWPARAM(IDOK, BN_CLICKED), 0);
    ASSERT_NE(zor.WaitWindow(5000), nullptr);
    EXPECT_EQ(WindowText(GetDlgItem(zor.Window(), -1)), "IRQ: PRIO:0");
    // No driver: command 6 answers 1000, command 7 answers 0.
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_QUERY), 1000u);
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_CONTROL, {5, 0, 0, 0}), 0u);
}

}  // namespace
}  // namespace zor::e2e
