// The platform-neutral half of the host runner: the private folder, its
// files, the log, and the tools run against a host.
#include "e2e_support.h"

#include <atomic>
#include <cctype>
#include <filesystem>

namespace zor::e2e {

namespace fs = std::filesystem;

bool Program::WaitFor(const std::string& text) {
    while (out_.find(text) == std::string::npos)
        if (!ReadMore()) return false;
    return true;
}

bool IsJson(const std::string& text) {
    std::string open;
    char last = 0;
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quoted) {
            if (static_cast<unsigned char>(c) < 0x20) return false;
            i += c == '\\';
            quoted = c != '"';
        } else if (c == '"') {
            quoted = true;
        } else if (c == '{' || c == '[') {
            open += c == '{' ? '}' : ']';
        } else if (c == '}' || c == ']') {
            if (open.empty() || open.back() != c || last == ',') return false;
            open.pop_back();
        }
        if (!std::isspace(static_cast<unsigned char>(c))) last = c;
    }
    return open.empty() && !quoted && (last == '}' || last == ']');
}

RunResult RunTool(const std::string& exe, const std::vector<std::string>& args) {
    Program p(exe, args);
    const std::uint32_t code = p.Finish();
    return {code, p.Output()};
}

RunResult Ctl(std::uint32_t pid, std::vector<std::string> args) {
    args.insert(args.begin(), {"--pid", std::to_string(pid)});
    return RunTool(BinFile(Exe("zorctl")), args);
}

ZorInstance::ZorInstance(const Options& o) {
    static std::atomic<int> serial{0};
    dir_ = (fs::temp_directory_path() / ("zor_e2e_" + std::to_string(SelfPid()) + "_" + std::to_string(serial++)))
               .string();
    user_ = dir_ + kSep + "user";
    logFile_ = dir_ + kSep + "zor.log";
    std::error_code ec;
    fs::create_directories(user_ + kSep + "ZOR", ec);
    auto copy = [&](const std::string& from, const std::string& name) {
        return fs::copy_file(from, dir_ + kSep + name, fs::copy_options::overwrite_existing, ec);
    };
    bool ok = copy(BinFile(Exe("zor")), Exe("zor"));
    for (const auto& f : o.binFiles) ok = copy(BinFile(f), f) && ok;
    for (const auto& f : o.testModules) ok = copy(TestBinFile(f), f) && ok;
    std::ofstream(dir_ + kSep + "ZOR.INI", std::ios::binary) << o.ini;
    if (!o.userIni.empty()) std::ofstream(UserIni(), std::ios::binary) << o.userIni;
    EXPECT_TRUE(ok) << "files not copied to " << dir_;
    if (ok) Start(o);
    EXPECT_NE(pid_, 0u) << "host not started";
    if (pid_ && o.connect) {
        EXPECT_TRUE(WaitReady(15000)) << "host not ready";
    }
}

// Ends the host: asked first, killed when it does not go.
void ZorInstance::Stop() {
    if (conn_) {
        if (zor_host_alive(conn_)) zor_quit(conn_);
        zor_disconnect(conn_);
    }
    if (pid_ && !Exited(5000)) Kill();
    std::error_code ec;
    if (!::testing::Test::HasFailure()) fs::remove_all(dir_, ec);  // a failed test keeps its folder to look at
}

std::string ZorInstance::Log() const {
    return FileText(logFile_);
}

bool ZorInstance::WaitLog(const std::string& part, std::size_t count, int ms) const {
    for (int waited = 0; CountOf(Log(), part) < count; waited += 25) {
        if (waited >= ms) return false;
        Pause(25);
    }
    return true;
}

}  // namespace zor::e2e
