// A host whose statistics area name was taken before it started.
#include "win32/host_window.h"

namespace zor::e2e {
namespace {

TEST(StatsArea, ANameTakenBeforeStartIsRefusedAndTheHostRunsWithout) {
    static HANDLE planted = nullptr;
    ZorInstance::Options o;
    o.beforeStart = [](std::uint32_t pid) {
        const std::wstring name = L"" ZOR_STATS_NAME_PREFIX + std::to_wstring(pid);
        planted = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, name.c_str());
    };
    ZorInstance zor(o);
    ASSERT_NE(planted, nullptr);
    const std::string line = "ZOR: statistics area 'Local\\ZOR.stats." + std::to_string(zor.Pid()) +
                             "' already exists, not ours to use! Running without it.\n\r";
    EXPECT_TRUE(zor.WaitLog(line));
    std::uint32_t q = 0;
    EXPECT_EQ(zor_irq_query(zor.conn(), &q), ZOR_OK);
    // The planted object's zeros are no statistics area.
    auto r = Ctl(zor.Pid(), {"stats"});
    EXPECT_EQ(r.code, 2u) << r.out;
    EXPECT_NE(r.out.find("has magic 0x00000000, layout 0, 0 bytes"), std::string::npos) << r.out;
    CloseHandle(planted);
}

}  // namespace
}  // namespace zor::e2e
