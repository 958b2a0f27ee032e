// What only the Windows host has: its window's integrity switch and the
// Cancel confirmation box.
#include "win32/host_window.h"

namespace zor::e2e {
namespace {

TEST(Dialog, LowIntegrityCommandsAreAllowedWhenConfigured) {
    ZorInstance::Options o;
    o.ini += "ALLOWLOWINTEGRITY=1\r\n";
    ZorInstance zor(o);
    EXPECT_TRUE(zor.WaitLog("ZOR: commands from lower integrity levels allowed\n\r"));
}

TEST(Dialog, CancelAsksWhileAClientLivesAndEndsAtOnceWithout) {
    ZorInstance zor;
    ASSERT_EQ(zor_system_area(zor.conn(), 0, nullptr), ZOR_OK);  // a live client
    for (int answer : {IDNO, IDYES}) {
        Click(zor, IDCANCEL);
        HWND box = WaitDialog(zor.Pid(), L"ZOR WARNING", 5000);
        ASSERT_NE(box, nullptr);
        EXPECT_EQ(WindowText(GetDlgItem(box, 0xFFFF)), "Are you sure to terminate and unload\nall hardware drivers?");
        EXPECT_NE(GetDlgItem(box, IDYES), nullptr);
        EXPECT_NE(GetDlgItem(box, IDNO), nullptr);
        PostMessageW(box, WM_COMMAND, MAKEWPARAM(answer, BN_CLICKED), 0);
        EXPECT_EQ(zor.Exited(answer == IDNO ? 1000 : 5000), answer == IDYES);
    }

    ZorInstance alone;
    Click(alone, IDCANCEL);
    EXPECT_TRUE(alone.Exited(5000));
    EXPECT_EQ(WaitDialog(alone.Pid(), L"ZOR WARNING", 0), nullptr);
}

}  // namespace
}  // namespace zor::e2e
