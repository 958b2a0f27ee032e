// The Linux log file in a folder others may have touched: a planted link is
// not followed, files are not for everyone to read, and rotation deletes
// only the host's own files of its own names.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "common/scoped_env.h"
#include "support/log.h"

namespace zor {
namespace {

namespace fs = std::filesystem;

struct QuietLog : Logger {
    explicit QuietLog(const Settings& s) {
        SetDebugOutput(false);
        Configure(s);
        EXPECT_TRUE(Start(nullptr));
    }
};

class LogFileSafety : public ::testing::Test {
protected:
    void SetUp() override {
        fs::remove_all(dir_);
        fs::create_directories(dir_ / "ZOR" / "logs");
    }
    void TearDown() override { fs::remove_all(dir_); }
    const fs::path dir_ = fs::temp_directory_path() / ("zor_logsafety_" + std::to_string(getpid()));
    const fs::path logs_ = dir_ / "ZOR" / "logs";
    test::ScopedEnv appdata_{"APPDATA", dir_.u16string().c_str()};
};

TEST_F(LogFileSafety, ANamedFileThatIsALinkIsNotFollowedAndNewFilesAreNotForEveryone) {
    const fs::path victim = dir_ / "victim", link = dir_ / "host.log";
    std::ofstream(victim) << "precious\n";
    fs::create_symlink(victim, link);
    test::ScopedEnv where("ZOR_LOG_FILE", link.u16string().c_str());
    {
        QuietLog log(Logger::Settings{});
        log.wPrintf(2, 6, u"entry\n");
    }
    EXPECT_EQ(fs::file_size(victim), 9u);
    for (const auto& e : fs::directory_iterator(logs_)) {  // the default file took over
        struct stat st{};
        ASSERT_EQ(stat(e.path().c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0640u) << e.path();
    }
}

TEST_F(LogFileSafety, RotationDeletesOnlyTheHostsOwnFilesOfItsOwnNames) {
    const char* foreign[] = {"zor-notes.log", "zor-20010101-000000-1.log.keep", "zor-2001010-000000-1.log",
                             "zor-20010101-000000-x.log"};
    for (const char* name : foreign) std::ofstream(logs_ / name) << "theirs\n";
    fs::create_directory(logs_ / "zor-20010101-000000-2.log");
    fs::create_symlink(dir_ / "elsewhere", logs_ / "zor-20010101-000000-3.log");
    std::ofstream(dir_ / "elsewhere") << "theirs\n";
    const fs::path other = logs_ / "zor-20010101-000000-4.log";
    std::ofstream(other) << "another user's\n";
    const bool root = getuid() == 0;
    if (root) ASSERT_EQ(chown(other.c_str(), 65534, 65534), 0);
    const fs::path mine = logs_ / "zor-20010101-000000-5-2.log";
    std::ofstream(mine) << "old\n";
    test::ScopedEnv noFile("ZOR_LOG_FILE", nullptr);
    Logger::Settings s;
    s.keepFiles = 1;
    QuietLog log(s);
    log.End();
    for (const char* name : foreign) EXPECT_TRUE(fs::exists(logs_ / name)) << name;
    EXPECT_TRUE(fs::is_directory(logs_ / "zor-20010101-000000-2.log"));
    EXPECT_TRUE(fs::is_symlink(logs_ / "zor-20010101-000000-3.log"));
    EXPECT_TRUE(fs::exists(dir_ / "elsewhere"));
    EXPECT_FALSE(fs::exists(mine));
    if (!root) GTEST_SKIP() << "another user's file needs root (uid 65534)";
    EXPECT_TRUE(fs::exists(other));
}

}  // namespace
}  // namespace zor
