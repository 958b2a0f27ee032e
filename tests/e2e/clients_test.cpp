// Client processes that die or linger: the pipe of a killed client, AutoKill
// and the Cancel confirmation.
#include "e2e_support.h"

namespace zor::e2e {
namespace {

std::wstring Client() { return TestBinFile("zor_client.exe"); }

// Arguments for a client process that records itself with the host and holds
// a pipe to the echo module.
std::wstring PipeHold(const ZorInstance& zor) {
    std::uint32_t mod = 0;
    EXPECT_EQ(zor_register_module(zor.conn(), "test_isr.dll", 0, &mod, nullptr), ZOR_OK);
    return std::to_wstring(zor.Pid()) + L" pipe-hold " + std::to_wstring(mod);
}

TEST(Clients, AKilledClientsPipeFailsTenTimesThenAutoKillEndsTheHost) {
    ZorInstance zor;
    Program c(Client(), PipeHold(zor));
    ASSERT_TRUE(c.WaitFor("ready")) << c.Output();
    EXPECT_NE(c.Output().find("answer=5a000000"), std::string::npos) << c.Output();
    Sleep(5500);  // at least one timer tick with the client alive
    EXPECT_FALSE(zor.Exited(0));
    c.Kill();
    EXPECT_TRUE(zor.WaitLog("ZOR: Pipe-Communication failed!\n\r", 10));
    EXPECT_TRUE(zor.Exited(5000 + 1500));
    // A pipe thread that went on after ten would have added more by now.
    EXPECT_EQ(CountOf(zor.Log(), "ZOR: Pipe-Communication failed!\n\r"), 10u);
    EXPECT_EQ(CountOf(zor.Log(), "ZOR: AutoKill!\n\r"), 1u);
}

TEST(Clients, CancelAsksWhileAClientLivesAndEndsAtOnceWithout) {
    ZorInstance zor;
    Program c(Client(), PipeHold(zor));
    ASSERT_TRUE(c.WaitFor("ready"));
    for (int answer : {IDNO, IDYES}) {
        zor.Click(IDCANCEL);
        HWND box = WaitDialog(zor.Pid(), L"ZOR WARNING", 5000);
        ASSERT_NE(box, nullptr);
        EXPECT_EQ(WindowText(GetDlgItem(box, 0xFFFF)),
                  "Are you sure to terminate and unload\nall hardware drivers?");
        EXPECT_NE(GetDlgItem(box, IDYES), nullptr);
        EXPECT_NE(GetDlgItem(box, IDNO), nullptr);
        PostMessageW(box, WM_COMMAND, MAKEWPARAM(answer, BN_CLICKED), 0);
        EXPECT_EQ(zor.Exited(answer == IDNO ? 1000 : 5000), answer == IDYES);
    }

    ZorInstance alone;
    alone.Click(IDCANCEL);
    EXPECT_TRUE(alone.Exited(5000));
    EXPECT_EQ(WaitDialog(alone.Pid(), L"ZOR WARNING", 0), nullptr);
}

}  // namespace
}  // namespace zor::e2e
