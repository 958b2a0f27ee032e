// The real zor.exe: start-up with its configuration, the hide switch, the
// IRQ line, the missing-driver warning, and the end on command 4.
#include "e2e_support.h"

namespace zor::e2e {
namespace {

std::uint64_t Hex(const std::string& s) { return std::strtoull(s.c_str(), nullptr, 16); }

TEST(Startup, LogsItsConfigurationAndEndsOnCommandFour) {
    ZorInstance::Options o;
    o.userIni = "[INIT]\r\nIRQPRIO=1\r\n";
    ZorInstance zor(o);
    ASSERT_TRUE(zor.Ok());
    ASSERT_NE(zor.Window(), nullptr);

    std::string dir = Narrow(zor.Dir());
    std::string log;
    ASSERT_TRUE(zor.WaitLog("SZEXE: "));
    log = zor.Log();
    EXPECT_EQ(CountOf(log, "SZINI: " + dir + "\\ZOR.INI\r\n"), 1u) << log;
    EXPECT_EQ(CountOf(log, "SZINIW: " + Narrow(zor.AppData()) + "\\ZOR\\ZOR.ini\r\n"), 1u) << log;
    EXPECT_EQ(CountOf(log, "SZEXE: " + dir + "\\\r\n"), 1u) << log;
    EXPECT_EQ(CountOf(log, "lower integrity"), 0u);  // off by default

    // The per-user file's priority wins; the driver is the configured one.
    HWND line = GetDlgItem(zor.Window(), -1);
    EXPECT_EQ(WindowText(line), "IRQ:trigger.irq PRIO:1");
    EXPECT_TRUE(WaitVisible(zor.Window(), true, 5000));

    auto c = zor.Run(L"cmd 4");
    EXPECT_EQ((*c)["result"], "0");
    EXPECT_TRUE(zor.Exited(5000));
    EXPECT_EQ(zor.ExitCode(), 0u);
}

TEST(Startup, HiddenHostNeverShowsItsWindow) {
    ZorInstance::Options o;
    o.args = L"-hide";
    o.ini += "ALLOWLOWINTEGRITY=1\r\n";
    ZorInstance zor(o);
    EXPECT_TRUE(zor.WaitLog("ZOR: commands from lower integrity levels allowed\n\r"));
    ASSERT_NE(zor.Window(), nullptr);
    Sleep(300);  // past the modal loop's first idle, which shows dialogs
    EXPECT_FALSE(IsWindowVisible(zor.Window()));
    // Even when asked from outside.
    ShowWindow(zor.Window(), SW_SHOW);
    SetWindowPos(zor.Window(), nullptr, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_SHOWWINDOW);
    Sleep(100);
    EXPECT_FALSE(IsWindowVisible(zor.Window()));
    // The host still serves commands.
    EXPECT_EQ((*zor.Run(L"cmd 6"))["result"], "0");
}

TEST(Startup, UpperCaseSwitchAndHideButton) {
    ZorInstance::Options o;
    o.args = L"/HIDE";
    ZorInstance zor(o);
    ASSERT_NE(zor.Window(), nullptr);
    EXPECT_TRUE(WaitVisible(zor.Window(), true, 5000));
    zor.Click(IDOK);  // Hide
    EXPECT_TRUE(WaitVisible(zor.Window(), false, 5000));
    Sleep(200);
    EXPECT_FALSE(IsWindowVisible(zor.Window()));  // and it stays hidden
    EXPECT_FALSE(zor.Exited(0));
}

TEST(Startup, WarnsWhenNoDriverIsConfigured) {
    ZorInstance::Options o;
    o.ini = "[INIT]\r\nFALLBACKIRQ=trigger.irq\r\n";
    o.waitWindow = false;
    ZorInstance zor(o);
    HWND box = WaitDialog(zor.Pid(), L"ZOR: Warning", 15000);
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(WindowText(GetDlgItem(box, 0xFFFF)), "No IRQ driver selected!");
    PostMessageW(box, WM_COMMAND, MAKEWPARAM(IDOK, BN_CLICKED), 0);
    HWND w = zor.WaitWindow(5000);
    ASSERT_NE(w, nullptr);
    for (int i = 0; i < 100 && WindowText(GetDlgItem(w, -1)).empty(); ++i) Sleep(20);
    EXPECT_EQ(WindowText(GetDlgItem(w, -1)), "IRQ: PRIO:0");
    // No driver: command 6 answers 1000, command 7 answers 0.
    std::wstring pid = zor.PidArg();
    Client q(pid + L" cmd 6");
    q.Finish();
    EXPECT_EQ(Hex(q["result"]), 1000u);
    Client c(pid + L" cmd 7 05000000");
    c.Finish();
    EXPECT_EQ(c["result"], "0");
}

}  // namespace
}  // namespace zor::e2e
