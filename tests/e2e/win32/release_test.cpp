// The one version of the build as a user sees it: the version resource of
// every shipped file (Explorer's Details tab) and zorctl --version.
#include "win32/host_window.h"
#include "zor/zor_version.h"

namespace zor::e2e {
namespace {

TEST(Release, EveryShippedFileCarriesTheBuildsVersion) {
    for (const char* file : {"zor.exe", "timer.irq", "trigger.irq", "event.irq", "zorclient.dll", "zorctl.exe"}) {
        const std::wstring path = Widen(BinFile(file));
        DWORD unused = 0;
        const DWORD size = GetFileVersionInfoSizeW(path.c_str(), &unused);
        std::vector<unsigned char> block(size);
        VS_FIXEDFILEINFO* info = nullptr;
        UINT len = 0;
        ASSERT_TRUE(size && GetFileVersionInfoW(path.c_str(), 0, size, block.data()) &&
                    VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&info), &len))
            << file;
        EXPECT_EQ(info->dwFileVersionMS, static_cast<DWORD>(MAKELONG(ZOR_VERSION_MINOR, ZOR_VERSION_MAJOR))) << file;
        EXPECT_EQ(info->dwFileVersionLS, static_cast<DWORD>(MAKELONG(0, ZOR_VERSION_PATCH))) << file;
    }
    const RunResult r = RunTool(BinFile("zorctl.exe"), {"--version"});
    EXPECT_EQ(r.code, 0u);
    EXPECT_EQ(r.out.substr(0, r.out.find_first_of("\r\n")), std::string("zorctl ") + ZOR_VERSION_STRING);
}

}  // namespace
}  // namespace zor::e2e
