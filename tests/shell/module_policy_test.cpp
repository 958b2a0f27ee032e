// What another user's words may do to the host: name a module (only a
// protected file of the module folder, by name), or reach the terminal
// (escapes are shown, not obeyed).
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "common/test_host.h"
#include "control/module_policy.h"
#include "shell/posix/stderr_log.h"

namespace zor::test {
namespace {

namespace fs = std::filesystem;

class NamedPeer final : public os::Peer {
public:
    explicit NamedPeer(bool trusted) : trusted_(trusted) {}
    os::Handle Open(std::uint32_t) override { return 0; }
    bool DupTo(os::Handle, os::Handle, std::uint64_t*) override { return false; }
    bool DupFrom(os::Handle, std::uint64_t, os::Handle*) override { return false; }
    bool CloseIn(os::Handle, std::uint64_t) override { return false; }
    void Close(os::Handle) override {}
    bool Is(std::uint32_t) override { return false; }
    bool Trusted() const override { return trusted_; }
    std::uint32_t Pid() const override { return 4321; }
    std::uint32_t Uid() const override { return 65534; }

private:
    bool trusted_;
};

class ModulePolicy : public HostTest {
protected:
    void TearDown() override {
        for (os::Module m : loaded_) os::module_free(m);
        fs::remove_all(dir_);
    }
    bool Loads(bool trusted, const fs::path& dir, const std::u16string& name) {
        NamedPeer peer(trusted);
        const std::u16string folder = dir.empty() ? u"" : dir.u16string() + u"/";
        os::Module m = LoadModuleFor(peer, folder.c_str(), name.c_str(), h.log);
        if (m) loaded_.push_back(m);
        return m != nullptr;
    }
    // A copy of the test module in a folder of the test's own.
    fs::path Copy(mode_t folderMode, mode_t fileMode) {
        fs::create_directories(dir_);
        fs::remove(dir_ / file_);  // a loaded copy keeps its own pages
        fs::copy_file(bin_ / file_, dir_ / file_);
        chmod(dir_.c_str(), folderMode);
        chmod((dir_ / file_).c_str(), fileMode);
        return dir_;
    }

    const fs::path bin_ = ZOR_TEST_BIN_DIR;
    const std::u16string file_ = u"test_isr" ZOR_MODULE_SUFFIX;
    const fs::path dir_ = fs::temp_directory_path() / ("zor_modules_" + std::to_string(getpid()));
    std::vector<os::Module> loaded_;
};

TEST_F(ModulePolicy, AnotherUserNamesOnlyAProtectedFileOfTheModuleFolder) {
    EXPECT_TRUE(Loads(false, bin_, file_));
    const std::u16string refused[] = {(bin_ / file_).u16string(), u"../bin/" + file_, u"bin\\" + file_, u"..",
                                      u"/proc/self/fd/3", u"c:" + file_};
    for (const std::u16string& name : refused) {
        EXPECT_FALSE(Loads(false, bin_, name));
        EXPECT_TRUE(log.Contains("ZOR: module '" + Utf8(name) +
                                 "' refused for peer pid 4321 uid 65534: only a protected file of the module "
                                 "folder, by name\n\r"))
            << Utf8(name);
    }
    // The host's own user loads a path as given.
    EXPECT_TRUE(Loads(true, {}, (bin_ / file_).u16string()));
}

TEST_F(ModulePolicy, AFileOrFolderOthersMayWriteOrThatIsALinkIsRefused) {
    EXPECT_FALSE(Loads(false, Copy(0755, 0666), file_));
    EXPECT_FALSE(Loads(false, Copy(0777, 0755), file_));
    EXPECT_TRUE(Loads(false, Copy(0755, 0755), file_));
    fs::remove(dir_ / file_);
    fs::create_symlink(bin_ / file_, dir_ / file_);
    EXPECT_FALSE(Loads(false, dir_, file_));
    if (getuid() != 0) GTEST_SKIP() << "needs root to give the file to another user (uid 65534)";
    fs::remove(dir_ / file_);  // the link, not what it names
    Copy(0755, 0755);
    ASSERT_EQ(chown((dir_ / file_).c_str(), 65534, 65534), 0);
    EXPECT_FALSE(Loads(false, dir_, file_));
}

}  // namespace
}  // namespace zor::test

namespace zor::shell {
namespace {

TEST(TerminalText, ControlCharactersAreShownNotObeyed) {
    const std::pair<std::string, std::string> cases[] = {
        {"ISR 'a\x1b]0;owned\x07' ok\r\n", "ISR 'a\\x1b]0;owned\\x07' ok\n"},
        {"tab\tdel\x7f c1\xc2\x9b" "31m \xc3\xa9", "tab\tdel\\x7f c1\\x9b" "31m \xc3\xa9"},
    };
    for (const auto& [in, shown] : cases) {
        char out[128];
        EXPECT_EQ(std::string(out, TerminalText(in.data(), in.size(), out, sizeof out)), shown);
    }
}

}  // namespace
}  // namespace zor::shell
