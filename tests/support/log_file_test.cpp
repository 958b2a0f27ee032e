#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/scoped_env.h"
#include "common/test_log.h"
#include "os/os.h"
#include "support/log.h"

namespace zor {
namespace {

namespace fs = std::filesystem;
using test::ScopedEnv;

fs::path FreshDir(const char* leaf) {
    fs::path p = fs::temp_directory_path() / ("zor-logfile-" + std::to_string(os::current_process_id())) / leaf;
    std::error_code ec;
    fs::remove_all(p, ec);
    fs::create_directories(p);
    return p;
}

// The entries of a log file, each without its stamp.
std::vector<std::string> Texts(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) {
        std::size_t k = line[0] == '[' ? line.find("] ") : std::string::npos;
        out.push_back(k == std::string::npos ? line : line.substr(k + 2));
    }
    return out;
}

// A started logger without debugger output.
struct QuietLog : Logger {
    explicit QuietLog(const Settings& s = {}, const char16_t* file = nullptr) {
        SetDebugOutput(false);
        Configure(s);
        EXPECT_TRUE(Start(file));
    }
};

// Fail as the system does, with its own error code.
bool FailWrite(os::Handle, const void* b, std::uint32_t n) { return os::native_calls().file_write(0, b, n); }
os::Handle FailOpen(const char16_t*) { return os::native_calls().file_open_append(u""); }

// Entries that miss the file are counted and announced once, in the file,
// when writing works again; reopening is part of the recovery.
TEST(LogFile, FailedWritesAreCountedAndAnnouncedOnce) {
    struct Case {
        bool openFails;
        const char* reason;
    } cases[] = {{false, "(write failed: "}, {true, "(cannot open: "}};
    for (const Case& c : cases) {
        fs::path file = FreshDir("fail") / "f.log";
        QuietLog log({}, file.u16string().c_str());
        os::calls.file_write = FailWrite;
        for (int i = 0; i < 3; ++i) log.wPrintf(2, 6, u"lost %d\n", i);
        log.Flush();
        if (c.openFails) os::calls.file_open_append = FailOpen;
        log.wPrintf(2, 6, u"lost too\n");
        log.Flush();
        os::calls = os::native_calls();
        log.wPrintf(2, 6, u"back\n");
        log.End();
        auto t = Texts(file);
        ASSERT_EQ(t.size(), 3u) << c.reason;
        EXPECT_EQ(t[1].rfind(std::string("ZOR: log file: 4 entries lost ") + c.reason, 0), 0u) << t[1];
        EXPECT_EQ(t[2], "back");
    }
}

// Per-run files: old ones beyond the number kept go at start, the run's own
// parts stay under the cap, each names itself first, and other files stay.
TEST(LogFile, PerRunFilesRotateAndOldOnesGo) {
    fs::path app = FreshDir("appdata"), logs = app / "ZOR" / "logs";
    fs::create_directories(logs);
    for (int i = 0; i < 5; ++i) {
        fs::path old = logs / ("zor-2001010" + std::to_string(i) + "-000000-1.log");
        std::ofstream(old) << "old\n";
        fs::last_write_time(old, fs::file_time_type::clock::now() - std::chrono::hours(10 - i));
    }
    std::ofstream(logs / "notes.txt") << "mine\n";
    ScopedEnv appdata("APPDATA", app.u16string().c_str());
    ScopedEnv noFile("ZOR_LOG_FILE", nullptr);
    Logger::Settings s{.maxFileBytes = 4096, .keepFiles = 3};
    QuietLog log(s);
    EXPECT_TRUE(fs::exists(logs / "zor-20010104-000000-1.log") && fs::exists(logs / "zor-20010103-000000-1.log"));
    EXPECT_FALSE(fs::exists(logs / "zor-20010102-000000-1.log"));
    for (int i = 0; i < 100; ++i) log.wPrintf(2, 6, u"entry %03d of about a hundred bytes .........................\n", i);
    log.End();
    std::vector<fs::path> kept;
    for (auto& e : fs::directory_iterator(logs))
        if (e.path().extension() == ".log") kept.push_back(e.path());
    ASSERT_EQ(kept.size(), 3u);
    EXPECT_TRUE(fs::exists(logs / "notes.txt"));
    int last = 0;
    for (const fs::path& p : kept) {
        EXPECT_LE(fs::file_size(p), 4096u) << p;
        auto t = Texts(p);
        EXPECT_EQ(t.at(0).rfind("ZOR: log file '" + p.generic_string() + "', ZOR ", 0), 0u) << t[0];
        last += t.back() == "entry 099 of about a hundred bytes .........................";
    }
    EXPECT_EQ(last, 1);
}

// A fixed file keeps what an earlier run (or crash) left, with a start
// marker per run; when full it is renamed aside and the kept number holds.
TEST(LogFile, FixedFileIsAppendedAndRotatesAside) {
    fs::path dir = FreshDir("fixed"), file = dir / "host.log";
    std::ofstream(file, std::ios::binary) << "before the crash\n";
    ScopedEnv where("ZOR_LOG_FILE", file.u16string().c_str());
    Logger::Settings s{.maxFileBytes = 2048, .keepFiles = 2};
    for (int run = 0; run < 2; ++run) QuietLog(s).wPrintf(2, 6, u"run %d\n", run);
    auto t = Texts(file);
    ASSERT_EQ(t.size(), 5u);
    EXPECT_EQ(t[0], "before the crash");
    EXPECT_EQ(t[1].rfind("ZOR: log file '", 0), 0u);
    EXPECT_EQ(t[3].rfind("ZOR: log file '", 0), 0u);
    EXPECT_EQ(t[4], "run 1");
    QuietLog log(s);
    for (int i = 0; i < 100; ++i) log.wPrintf(2, 6, u"filler %03d ........................................\n", i);
    log.End();
    int archives = 0;
    for (auto& e : fs::directory_iterator(dir)) archives += e.path().filename().string().rfind("host-", 0) == 0;
    EXPECT_EQ(archives, 1);
    EXPECT_LE(fs::file_size(file), 2048u);
    EXPECT_EQ(Texts(file).back(), "filler 099 ........................................");
}

// A named file that cannot be opened: the default file takes over and says why.
TEST(LogFile, UnopenableNamedFileIsReportedInTheDefaultFile) {
    fs::path app = FreshDir("fallback");
    ScopedEnv appdata("APPDATA", app.u16string().c_str());
    ScopedEnv where("ZOR_LOG_FILE", app.u16string().c_str());  // a folder
    QuietLog log;
    fs::path p(log.FilePath());
    log.End();
    EXPECT_EQ(p.parent_path(), app / "ZOR" / "logs");
    auto t = Texts(p);
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(t[1].rfind("ZOR: log: cannot open '" + app.string() + "' (", 0), 0u) << t[1];
    std::string first;
    std::getline(std::ifstream(p) >> std::ws, first);
    os::LocalTime now{};
    os::local_time(os::wall_ms() / 1000, &now);
    char date[16];
    std::snprintf(date, sizeof date, "[%04d-%02d-%02d ", now.year, now.month, now.day);
    EXPECT_EQ(first.rfind(date, 0), 0u) << first;  // local wall-clock stamp
}

// A module's own thread faults outside any guard: the process dies, and
// every entry still queued reaches the file first.
TEST(LogFileDeathTest, FaultOutsideTheGuardFlushesTheQueue) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    fs::path file = test::HostDir(ZOR_TEST_BIN_DIR) + u"log-crash.log";  // the child has its own pid
    std::error_code ec;
    fs::remove(file, ec);
    EXPECT_DEATH(
        {
            QuietLog log({}, file.u16string().c_str());
            log.FlushAtCrash();
            log.HoldWriter(true);
            for (int i = 0; i < 100; ++i) log.wPrintf(2, 6, u"queued %d\n", i);
            os::Module m = os::module_load(test::TestModulePath("fault_thread_lib").c_str());
            reinterpret_cast<void (*)()>(os::module_symbol(m, "fault_thread_start"))();
            os::sleep_ms(20000);
        },
        "");
    auto t = Texts(file);
    ASSERT_EQ(t.size(), 101u);
    EXPECT_EQ(t[100], "queued 99");
}

}  // namespace
}  // namespace zor
