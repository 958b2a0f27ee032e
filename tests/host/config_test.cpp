// Start-up: the hide switch, both configuration files and their precedence,
// and the client process-id list.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "common/test_log.h"
#include "host/config.h"
#include "host/host.h"
#include "os/os.h"
#include "support/wstr.h"

namespace fs = std::filesystem;
using zor::FindSwitch;
using zor::test::Utf8;

namespace {

// Only lower case after '/' or '-'; longer words match; a partial match does
// not swallow the next switch; the first one wins. Offset just after it.
TEST(SwitchFinder, WhereTheHideSwitchIsFound) {
    const struct {
        const char16_t* line;
        long at;
    } cases[] = {{u"-hide", 5},    {u"/hide", 5},     {u"  -hide  ", 7},      {u"/HIDE", -1},
                 {u"-Hide", -1},   {u"hide", -1},     {u"", -1},              {u"x/hideout", 6},
                 {u"--hide", 6},   {u"/h-hide", 7},   {u"-hid", -1},          {u"-hid /x -hIde", -1},
                 {u"/x -hide /hide", 8}};
    for (const auto& c : cases) {
        const char16_t* p = FindSwitch(c.line, u"HIDE");
        EXPECT_EQ(p ? static_cast<long>(p - c.line) : -1, c.at);
    }
    EXPECT_EQ(FindSwitch(nullptr, u"HIDE"), nullptr);
}

class ConfigFiles : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() /
               ("zor_config_" + std::to_string(zor::os::current_process_id()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir_);
        host_ = std::make_unique<zor::Host>(log_.log());
        Path(host_->config.szIni, dir_ / "install.ini");
        Path(host_->config.szIniW, dir_ / "user.ini");
        zor::wcopy(host_->config.szExe, 260, u"C:\\zor\\");
    }
    void TearDown() override {
        host_.reset();
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    static void Path(char16_t* out, const fs::path& p) { zor::wcopy(out, 260, p.u16string().c_str()); }
    void Write(const char* file, const std::string& text) {
        std::ofstream(dir_ / file, std::ios::binary) << "[INIT]\r\n" << text;
    }
    zor::Config& config() { return host_->config; }

    fs::path dir_;
    zor::test::TestLog log_;
    std::unique_ptr<zor::Host> host_;
};

// The per-user file is read for LASTIRQ only (TRACEEVENTS there is not
// the installation's); DLLDIR is taken as it stands (no backslash is added).
TEST_F(ConfigFiles, UserFileWinsForLastIrqOnly) {
    Write("install.ini", "DLLDIR=D:\\drivers\r\nLASTIRQ=timer.irq\r\nFALLBACKIRQ=trigger.irq\r\nWATCHDOGMS=30\r\n"
                         "TRACEEVENTS=100\r\n");
    Write("user.ini",
          "LASTIRQ=mine.irq\r\nFALLBACKIRQ=user.irq\r\nDLLDIR=E:\\elsewhere\\\r\n"
          "ALLOWLOWINTEGRITY=1\r\nWATCHDOGMS=7\r\nTRACEEVENTS=0\r\n");
    zor::ReadConfigFiles(*host_);
    EXPECT_EQ(config().traceEvents, 100u);
    EXPECT_EQ(Utf8(config().lastIrqName), "mine.irq");
    EXPECT_EQ(Utf8(config().fallbackIrqName), "trigger.irq");
    EXPECT_EQ(Utf8(config().szExe), "D:\\drivers");
    EXPECT_EQ(config().allowLowIntegrity, 0u);
    EXPECT_EQ(host_->watchdog.BudgetMs(), 30u);
}

TEST_F(ConfigFiles, OverlongValuesAreCutToTheBuffer) {
    std::string longName(400, 'a');
    Write("install.ini", "LASTIRQ=" + longName + "\r\nDLLDIR=" + std::string(300, 'd') + "\r\n");
    zor::ReadConfigFiles(*host_);
    EXPECT_EQ(Utf8(config().lastIrqName), std::string(259, 'a'));
    EXPECT_EQ(Utf8(config().szExe), std::string(259, 'd'));
}

// A pid that no process has (above every platform's limit).
constexpr std::uint32_t kDeadPid = 0x3FFFFFF0u;

class ClientPids : public ::testing::Test {
protected:
    zor::test::TestLog log_;
    std::unique_ptr<zor::Host> host_ = std::make_unique<zor::Host>(log_.log());
    zor::Config& c = host_->config;
};

TEST_F(ClientPids, LivenessLooksAtRecordedEntriesOnly) {
    EXPECT_TRUE(zor::IsNoClientAlive(*host_));  // nobody recorded

    zor::AppendClientPid(*host_, kDeadPid);
    EXPECT_TRUE(zor::IsNoClientAlive(*host_));
    zor::AppendClientPid(*host_, zor::os::current_process_id());
    EXPECT_FALSE(zor::IsNoClientAlive(*host_));

    // A 0 entry is skipped, not taken for a live process.
    c.clientPids[1].store(0);
    EXPECT_TRUE(zor::IsNoClientAlive(*host_));

    // Entry 9, where the tenth and later clients go, is never examined.
    for (int i = 0; i < 8; ++i) zor::AppendClientPid(*host_, kDeadPid);
    ASSERT_EQ(c.clientCount.load(), 9u);
    c.clientPids[1].store(kDeadPid);
    EXPECT_TRUE(zor::IsNoClientAlive(*host_));
    zor::AppendClientPid(*host_, zor::os::current_process_id());
    EXPECT_EQ(c.clientPids[9].load(), zor::os::current_process_id());
    EXPECT_TRUE(zor::IsNoClientAlive(*host_));
}

}  // namespace
