// A client process that dies: its pipe, and AutoKill.
#include "e2e_support.h"

namespace zor::e2e {
namespace {

TEST(Clients, AKilledClientsPipeFailsTenTimesThenAutoKillEndsTheHost) {
    ZorInstance zor;
    std::uint32_t mod = 0;
    ASSERT_EQ(zor_register_module(zor.conn(), Mod("test_isr").c_str(), 0, &mod, nullptr), ZOR_OK);
    Program c(TestBinFile(Exe("zor_client")), {std::to_string(zor.Pid()), "pipe-hold", std::to_string(mod)});
    ASSERT_TRUE(c.WaitFor("ready")) << c.Output();
    EXPECT_NE(c.Output().find("answer=5a000000"), std::string::npos) << c.Output();
    Pause(5500);  // at least one timer tick with the client alive
    EXPECT_FALSE(zor.Exited(0));
    c.Kill();
    EXPECT_TRUE(zor.WaitLog("ZOR: Pipe-Communication failed!\n\r", 10));
    EXPECT_TRUE(zor.Exited(5000 + 1500));
    // A pipe thread that went on after ten would have added more by now.
    EXPECT_EQ(CountOf(zor.Log(), "ZOR: Pipe-Communication failed!\n\r"), 10u);
    EXPECT_EQ(CountOf(zor.Log(), "ZOR: AutoKill!\n\r"), 1u);
}

}  // namespace
}  // namespace zor::e2e
