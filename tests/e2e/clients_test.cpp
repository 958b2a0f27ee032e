// Client pipes against the real host, and the liveness of recorded client
// processes: AutoKill and the Cancel confirmation.
#include "e2e_support.h"

namespace zor::e2e {
namespace {

std::uint64_t Hex(const std::string& s) { return std::strtoull(s.c_str(), nullptr, 16); }

std::uint64_t RegisterEcho(ZorInstance& zor) {
    auto reg = zor.Run(L"register remote_echo_isr.dll 0");
    return Hex((*reg)["module"]);
}

TEST(ClientPipes, RequestsOfEverySizeThenStopAndRemove) {
    ZorInstance zor{ZorInstance::Options{}};
    std::uint64_t module = RegisterEcho(zor);
    ASSERT_NE(module, 0u);
    auto c = zor.Run(L"pipe " + std::to_wstring(module));
    EXPECT_EQ((*c)["index"], "1") << c->Output();
    EXPECT_EQ((*c)["connect"], "0");
    EXPECT_EQ((*c)["answer12"], (*c)["expect12"]);
    EXPECT_EQ((*c)["answerbig"], (*c)["expectbig"]);
    EXPECT_EQ(Hex((*c)["answer0"]), 0xFFFFFFFFu);
    EXPECT_EQ((*c)["stop"], "0");
    EXPECT_EQ((*c)["writeafterstop"], "0");
    EXPECT_EQ((*c)["remove"], "1");
    EXPECT_EQ((*c)["removeagain"], "0");
    EXPECT_EQ(CountOf(zor.Log(), "ZOR: Pipe-Communication failed!"), 0u);
}

TEST(ClientPipes, AKilledClientGivesExactlyTenFailures) {
    ZorInstance zor{ZorInstance::Options{}};
    std::uint64_t module = RegisterEcho(zor);
    Client c(zor.PidArg() + L" pipe-hold " + std::to_wstring(module));
    ASSERT_TRUE(c.WaitLine("ready")) << c.Output();
    EXPECT_EQ(c["answer12"], c["expect12"]);
    c.Kill();
    EXPECT_TRUE(zor.WaitLog("ZOR: Pipe-Communication failed!\n\r", 10));
    Sleep(500);  // a thread that went on would add more
    EXPECT_EQ(CountOf(zor.Log(), "ZOR: Pipe-Communication failed!\n\r"), 10u);
    EXPECT_FALSE(zor.Exited(0));
}

TEST(Liveness, AutoKillAfterTheLastRecordedClientEnds) {
    ZorInstance zor{ZorInstance::Options{}};
    Client c(zor.PidArg() + L" hold");
    ASSERT_TRUE(c.WaitLine("ready"));
    Sleep(5500);  // at least one timer tick with the client alive
    EXPECT_FALSE(zor.Exited(0));
    c.Kill();
    EXPECT_TRUE(zor.Exited(5000 + 1500));
    EXPECT_EQ(CountOf(zor.Log(), "ZOR: AutoKill!\n\r"), 1u);
}

TEST(Liveness, CancelAsksWhileAClientLives) {
    ZorInstance zor{ZorInstance::Options{}};
    Client c(zor.PidArg() + L" hold");
    ASSERT_TRUE(c.WaitLine("ready"));

    zor.Click(IDCANCEL);
    HWND box = WaitDialog(zor.Pid(), L"ZOR WARNING", 5000);
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(WindowText(GetDlgItem(box, 0xFFFF)), "Are you sure to terminate and unload\nall hardware drivers?");
    EXPECT_NE(GetDlgItem(box, IDYES), nullptr);
    EXPECT_NE(GetDlgItem(box, IDNO), nullptr);
    PostMessageW(box, WM_COMMAND, MAKEWPARAM(IDNO, BN_CLICKED), 0);
    EXPECT_FALSE(zor.Exited(1000));

    zor.Click(IDCANCEL);
    box = WaitDialog(zor.Pid(), L"ZOR WARNING", 5000);
    ASSERT_NE(box, nullptr);
    PostMessageW(box, WM_COMMAND, MAKEWPARAM(IDYES, BN_CLICKED), 0);
    EXPECT_TRUE(zor.Exited(5000));
}

TEST(Liveness, CancelWithoutClientsEndsAtOnce) {
    ZorInstance zor{ZorInstance::Options{}};
    zor.Click(IDCANCEL);
    EXPECT_TRUE(zor.Exited(5000));
    EXPECT_EQ(FindDialog(zor.Pid(), L"ZOR WARNING"), nullptr);
}

TEST(Dialog, StatsTwiceWithoutEventsShowsZero) {
    ZorInstance zor{ZorInstance::Options{}};
    HWND status = GetDlgItem(zor.Window(), 1004);
    ASSERT_NE(status, nullptr);
    SendMessageW(zor.Window(), WM_COMMAND, MAKEWPARAM(1003, BN_CLICKED), 0);
    EXPECT_EQ(WindowText(status), "IRQ freq. 50 Hz,  time  0%");
    SendMessageW(zor.Window(), WM_COMMAND, MAKEWPARAM(1003, BN_CLICKED), 0);
    EXPECT_EQ(WindowText(status), "IRQ freq.  0 Hz,  time  0%");
}

}  // namespace
}  // namespace zor::e2e
