// The log's keys in ZOR.INI, and the environment winning over them.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "common/scoped_env.h"
#include "host/config.h"
#include "os/os.h"

namespace zor {
namespace {

namespace fs = std::filesystem;

TEST(LogSettings, ReadFromTheInstallationFile) {
    fs::path dir = fs::temp_directory_path() / ("zor-logini-" + std::to_string(os::current_process_id()));
    fs::create_directories(dir);
    fs::path ini = dir / "ZOR.INI";
    std::ofstream(ini, std::ios::binary) << "[INIT]\r\nLOGFILE=" << (dir / "a.log").string()
                                         << "\r\nLOGACTIVE=0:1\r\nLOGMAXMB=2\r\nLOGFILES=4\r\n";
    Logger::Settings s;
    ReadLogSettings(ini.u16string().c_str(), &s);
    EXPECT_TRUE(s.hasFile && s.hasActive && s.maxFileBytes == 2u << 20 && s.keepFiles == 4u);
    EXPECT_EQ(fs::path(s.file), dir / "a.log");

    {
        test::ScopedEnv noActive("ZOR_LOG_ACTIVE", nullptr);
        test::ScopedEnv where("ZOR_LOG_FILE", (dir / "b.log").u16string().c_str());
        Logger log;
        log.SetDebugOutput(false);
        log.Configure(s);
        ASSERT_TRUE(log.Start());
        EXPECT_EQ(fs::path(log.FilePath()), dir / "b.log");  // the environment wins
        EXPECT_TRUE(log.wPrintf_IsUserLevelActive(0, 1));
        EXPECT_FALSE(log.wPrintf_IsUserLevelActive(2, 6));  // LOGACTIVE applies
        log.End();
    }

    ReadLogSettings((dir / "missing.ini").u16string().c_str(), &s);
    EXPECT_TRUE(!s.hasFile && !s.hasActive && s.maxFileBytes == 16u << 20 && s.keepFiles == 10u);
}

}  // namespace
}  // namespace zor
