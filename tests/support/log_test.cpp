#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/test_log.h"
#include "os/os.h"
#include "support/log.h"

namespace zor {
namespace {

namespace fs = std::filesystem;

struct Captured {
    std::uint32_t level, mask;
    std::string text;
};

// A sink for loggers a test configures itself.
struct Capture {
    std::mutex m;
    std::vector<Captured> got;
    static void Sink(void* ctx, std::uint32_t level, std::uint32_t mask, const char* s, std::size_t n) {
        auto* c = static_cast<Capture*>(ctx);
        std::lock_guard<std::mutex> lk(c->m);
        c->got.push_back({level, mask, std::string(s, n)});
    }
    std::vector<Captured> Take() {
        std::lock_guard<std::mutex> lk(m);
        return got;
    }
};

// Sets an environment variable for the scope and restores the old value.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char16_t* value) : name_(name) {
        char16_t old[1024];
        had_ = os::env_get(name, old, 1024);
        if (had_) old_ = old;
        os::env_set(name, value);
    }
    ~ScopedEnv() { os::env_set(name_, had_ ? old_.c_str() : nullptr); }

private:
    const char* name_;
    bool had_;
    std::u16string old_;
};

fs::path TempDir(const char* leaf) {
    fs::path p = fs::temp_directory_path() / ("zor-log-test-" + std::to_string(os::current_process_id())) / leaf;
    std::error_code ec;
    fs::remove_all(p, ec);
    fs::create_directories(p);
    return p;
}

std::string ReadFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool AllDigits(const std::string& s, std::size_t from, std::size_t n) {
    if (from + n > s.size()) return false;
    for (std::size_t i = from; i < from + n; ++i)
        if (s[i] < '0' || s[i] > '9') return false;
    return true;
}

// "T<thread> #<index> <letters>\n\r" as the writers below make them.
bool ParseEntry(const std::string& s, int* t, int* i, std::size_t* letters) {
    int pos = -1;
    if (std::sscanf(s.c_str(), "T%d #%d%n", t, i, &pos) != 2 || pos < 0 || s[pos] != ' ') return false;
    std::size_t e = static_cast<std::size_t>(++pos);
    while (e < s.size() && s[e] >= 'a' && s[e] <= 'z') ++e;
    *letters = e - static_cast<std::size_t>(pos);
    return s.substr(e) == "\n\r";
}

// "[<seconds with 6 decimals> tid=<n> <level>/<mask>] " at the start of a
// file line; returns the rest, or "" when the stamp is malformed.
std::string AfterStamp(const std::string& line, const char* pair) {
    std::size_t dot = line.find('.');
    if (line.empty() || line[0] != '[' || dot == std::string::npos || !AllDigits(line, 1, dot - 1) ||
        !AllDigits(line, dot + 1, 6) || line.compare(dot + 7, 5, " tid=") != 0)
        return "";
    std::size_t p = dot + 12, d = p;
    while (d < line.size() && line[d] >= '0' && line[d] <= '9') ++d;
    std::string tail = std::string(" ") + pair + "] ";
    if (d == p || line.compare(d, tail.size(), tail) != 0) return "";
    return line.substr(d + tail.size());
}

std::u16string U16(const fs::path& p) {
    std::u16string s = p.u16string();
    return s;
}

TEST(Log, EntriesReachTheSinkExactlyAsFormatted) {
    test::TestLog t;
    t.log().wPrintf(2, 6, u"ZOR: ISR #%ld (%s) loaded\n\r", 3, u"timer");
    t.log().wPrintf(0, 1, u"ZOR: %3.2f ms\r\n", 2.345);
    t.log().wPrintf(2, 0, u"caf\u00E9 %S", "\xE2\x82\xAC");  // no line end added
    auto e = t.Entries();
    ASSERT_EQ(e.size(), 3u);
    EXPECT_EQ(e[0].text, "ZOR: ISR #3 (timer) loaded\n\r");
    EXPECT_EQ(e[0].level, 2u);
    EXPECT_EQ(e[0].mask, 6u);
    EXPECT_EQ(e[1].text, "ZOR: 2.35 ms\r\n");
    EXPECT_EQ(e[1].level, 0u);
    EXPECT_EQ(e[2].text, "caf\xC3\xA9 \xE2\x82\xAC");
    EXPECT_TRUE(t.Contains("ZOR: 2.35 ms\r\n"));
    EXPECT_FALSE(t.Contains("ZOR: 2.35 ms"));
    EXPECT_TRUE(t.ContainsSubstr("(timer)"));
    t.Clear();
    EXPECT_TRUE(t.Lines().empty());
}

TEST(Log, LongEntriesAreCutNotSplit) {
    test::TestLog t;
    std::u16string longText(3000, u'x');
    t.log().wPrintf(2, 6, u"%s", longText.c_str());
    t.log().wPrintf(2, 6, u"next");
    auto lines = t.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], std::string(Logger::kMaxLineUnits - 1, 'x'));
    EXPECT_EQ(lines[1], "next");
}

// Several threads log at once into a file and the sink: every entry arrives
// once, whole, and each thread's entries keep their order.
TEST(Log, ConcurrentWritersLoseAndInterleaveNothing) {
    constexpr int kThreads = 4, kPerThread = 1000;
    fs::path dir = TempDir("concurrent");
    fs::path file = dir / "c.log";
    Capture cap;
    Logger log;
    log.SetDebugOutput(false);
    log.SetSink(&Capture::Sink, &cap);
    ASSERT_TRUE(log.Start(U16(file).c_str()));
    ASSERT_TRUE(log.SetActive("all"));
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ready.fetch_add(1);
            while (ready.load() < kThreads) std::this_thread::yield();
            for (int i = 0; i < kPerThread; ++i)
                log.wPrintf(2, 6, u"T%d #%d %.*s\n\r", t, i, i % 50, u"abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyz");
        });
    }
    for (auto& th : threads) th.join();
    log.Flush();
    EXPECT_EQ(log.Dropped(), 0u);

    std::vector<int> next(kThreads, 0);
    auto got = cap.Take();
    ASSERT_EQ(got.size(), static_cast<std::size_t>(kThreads * kPerThread));
    for (const auto& g : got) {
        int t, i;
        std::size_t letters;
        ASSERT_TRUE(ParseEntry(g.text, &t, &i, &letters)) << g.text;
        ASSERT_TRUE(t >= 0 && t < kThreads) << g.text;
        ASSERT_EQ(i, next[t]++) << "thread " << t << " out of order";
        ASSERT_EQ(letters, static_cast<std::size_t>(i % 50));
    }

    log.End();
    std::istringstream in(ReadFile(file));
    std::string line;
    std::getline(in, line);
    EXPECT_EQ(line.rfind("# ZOR log: process ", 0), 0u) << line;
    int count = 0;
    while (std::getline(in, line)) {
        if (line == "\r") continue;  // the last "\n\r"
        // Each entry ends in "\n\r", so the next line starts with '\r'.
        std::string body = line[0] == '\r' ? line.substr(1) : line;
        std::string text = AfterStamp(body, "2/6") + "\n\r";
        int t, i;
        std::size_t letters;
        ASSERT_TRUE(ParseEntry(text, &t, &i, &letters)) << body;
        ++count;
    }
    EXPECT_EQ(count, kThreads * kPerThread);
}

// While the writer keeps freeing space behind them, callers racing for the
// head must never take a moved tail for a full ring: with room for every
// entry, nothing may be dropped.
TEST(Log, RacingCallersNeverSeeAFalseFull) {
    constexpr int kThreads = 4, kPerThread = 25000;
    Logger log;
    log.SetDebugOutput(false);
    log.SetQueueBytes(std::size_t{16} << 20);  // 100000 entries of at most 64 bytes
    ASSERT_TRUE(log.Start(u""));
    log.SetActive("all");
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) log.wPrintf(2, 6, u"%d:%d", t, i);
        });
    for (auto& th : threads) th.join();
    log.End();
    EXPECT_EQ(log.Dropped(), 0u);
}

// With the writer held the ring fills: later entries are dropped and
// counted, the count is reported once the writer runs again, and logging
// goes on normally afterwards.
TEST(Log, FullQueueDropsCountsAndReports) {
    Capture cap;
    Logger log;
    log.SetDebugOutput(false);
    log.SetSink(&Capture::Sink, &cap);
    log.SetQueueBytes(8192);
    ASSERT_TRUE(log.Start(u""));
    log.SetActive("all");
    log.HoldWriter(true);
    for (int i = 0; i < 200; ++i) log.wPrintf(2, 6, u"entry %03d with some padding text to take room\n", i);
    std::uint64_t dropped = log.Dropped();
    EXPECT_GT(dropped, 100u);
    EXPECT_LT(dropped, 200u);
    log.Flush();  // returns while held
    log.HoldWriter(false);
    log.Flush();
    auto got = cap.Take();
    std::size_t kept = 200 - dropped;
    ASSERT_EQ(got.size(), kept + 1);
    for (std::size_t i = 0; i < kept; ++i) {
        char want[80];
        std::snprintf(want, sizeof want, "entry %03zu with some padding text to take room\n", i);
        EXPECT_EQ(got[i].text, want);
    }
    EXPECT_EQ(got[kept].text, "ZOR: log dropped " + std::to_string(dropped) + " lines\n");
    EXPECT_EQ(got[kept].level, Logger::kSelfLevel);

    // The ring wraps many times over without further loss.
    for (int i = 0; i < 2000; ++i) {
        log.wPrintf(2, 6, u"after %d\n", i);
        if (i % 20 == 19) log.Flush();
    }
    log.Flush();
    EXPECT_EQ(log.Dropped(), dropped);
    EXPECT_EQ(cap.Take().size(), kept + 1 + 2000);
}

TEST(Log, FlushEndAndRestart) {
    Capture cap;
    Logger log;
    log.SetDebugOutput(false);
    log.SetSink(&Capture::Sink, &cap);
    EXPECT_FALSE(log.wPrintf_IsUserLevelActive(2, 6));  // not started
    log.wPrintf(2, 6, u"before start");
    ASSERT_TRUE(log.Start(u""));
    log.SetActive("all");
    EXPECT_FALSE(log.Start(u""));  // already running
    for (int i = 0; i < 100; ++i) log.wPrintf(2, 6, u"%d", i);
    log.Flush();
    EXPECT_EQ(cap.Take().size(), 100u);
    for (int i = 0; i < 50; ++i) log.wPrintf(2, 6, u"%d", i);
    log.End();  // writes what is queued
    EXPECT_EQ(cap.Take().size(), 150u);
    log.wPrintf(2, 6, u"after end");
    EXPECT_FALSE(log.wPrintf_IsUserLevelActive(2, 6));
    log.Flush();
    log.End();
    EXPECT_EQ(cap.Take().size(), 150u);

    ASSERT_TRUE(log.Start(u""));
    log.SetActive("all");
    log.wPrintf(2, 6, u"again");
    log.Flush();
    auto got = cap.Take();
    ASSERT_EQ(got.size(), 151u);
    EXPECT_EQ(got.back().text, "again");
}

TEST(Log, ActivePairsSyntax) {
    Logger log;
    ASSERT_TRUE(log.Start(u""));
    auto on = [&](std::uint32_t l, std::uint32_t m) { return log.wPrintf_IsUserLevelActive(l, m); };
    struct Case {
        const char* spec;
        bool l0m1, l2m6, l2m2, l2m100, l20m6;
    } cases[] = {
        {"", true, true, true, true, true},
        {"all", true, true, true, true, true},
        {"none", false, false, false, false, false},
        {"0:*,2:6", true, true, false, false, false},
        {" 0:1 , 2:6 ", true, true, false, false, false},
        {"-2:6", true, false, true, true, true},
        {"0:*,2:6,-2:2", true, true, false, false, false},
        {"all,-2:*,2:6", true, true, false, false, true},
        {"2", false, true, true, true, false},
        {"*:6", false, true, false, false, true},
        {"none,2:*,-2:6", false, false, true, true, false},
        {"-*:1", false, true, true, true, true},
        {"NONE,+0:1", true, false, false, false, false},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(log.SetActive(c.spec)) << c.spec;
        EXPECT_EQ(on(0, 1), c.l0m1) << c.spec;
        EXPECT_EQ(on(2, 6), c.l2m6) << c.spec;
        EXPECT_EQ(on(2, 2), c.l2m2) << c.spec;
        EXPECT_EQ(on(2, 100), c.l2m100) << c.spec;
        EXPECT_EQ(on(20, 6), c.l20m6) << c.spec;
    }
    ASSERT_TRUE(log.SetActive("2:6"));
    for (const char* bad : {"2:64", "16:1", "2:", ":6", "x", "2:6,", ",", "2:6:1", "2;6", "-", "alll"}) {
        EXPECT_FALSE(log.SetActive(bad)) << bad;
        EXPECT_TRUE(on(2, 6)) << bad;  // unchanged
        EXPECT_FALSE(on(0, 1)) << bad;
    }
}

TEST(Log, InactivePairsAreNotWritten) {
    test::TestLog t;
    ASSERT_TRUE(t.log().SetActive("2:6"));
    t.log().wPrintf(2, 6, u"yes");
    t.log().wPrintf(2, 1, u"no");
    t.log().wPrintf(0, 1, u"no");
    EXPECT_EQ(t.Lines(), std::vector<std::string>{"yes"});
}

TEST(Log, EnvironmentChoosesPairsAndFile) {
    fs::path dir = TempDir("env");
    fs::path file = dir / "sub" / "from-env.log";
    {
        ScopedEnv active("ZOR_LOG_ACTIVE", u"0:1");
        ScopedEnv where("ZOR_LOG_FILE", U16(file).c_str());
        Logger log;
        log.SetDebugOutput(false);
        ASSERT_TRUE(log.Start());
        EXPECT_TRUE(log.wPrintf_IsUserLevelActive(0, 1));
        EXPECT_FALSE(log.wPrintf_IsUserLevelActive(2, 6));
        EXPECT_EQ(fs::path(log.FilePath()), file);  // the missing folder was made
        log.wPrintf(0, 1, u"ZOR: warned\n\r");
        log.wPrintf(2, 6, u"ZOR: not active\n\r");
        log.End();
        EXPECT_STREQ(log.FilePath(), "");
        std::string text = ReadFile(file);
        EXPECT_NE(text.find(" 0/1] ZOR: warned\n\r"), std::string::npos) << text;
        EXPECT_EQ(text.find("not active"), std::string::npos);
    }
    {
        ScopedEnv active("ZOR_LOG_ACTIVE", u"2:99");
        Capture cap;
        Logger log;
        log.SetDebugOutput(false);
        log.SetSink(&Capture::Sink, &cap);
        ASSERT_TRUE(log.Start(u""));
        EXPECT_TRUE(log.wPrintf_IsUserLevelActive(2, 6));  // refused: everything stays active
        log.Flush();
        auto got = cap.Take();
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].text, "ZOR: log: ZOR_LOG_ACTIVE '2:99' not understood, all pairs active\n");
    }
}

TEST(Log, DefaultFileLiesInTheUsersApplicationData) {
    fs::path dir = TempDir("appdata");
    ScopedEnv appdata("APPDATA", U16(dir).c_str());
    ScopedEnv noFile("ZOR_LOG_FILE", nullptr);
    Logger log;
    log.SetDebugOutput(false);
    ASSERT_TRUE(log.Start());
    fs::path p(log.FilePath());
    log.End();
    EXPECT_EQ(p.parent_path(), dir / "ZOR" / "logs");
    std::string name = p.filename().string();
    EXPECT_EQ(name.rfind("zor-", 0), 0u) << name;
    EXPECT_TRUE(AllDigits(name, 4, 8) && name[12] == '-' && AllDigits(name, 13, 6)) << name;
    EXPECT_EQ(name.substr(19), "-" + std::to_string(os::current_process_id()) + ".log");
    EXPECT_TRUE(fs::exists(p));
}

TEST(Log, UnopenableFileStillLogsElsewhere) {
    fs::path dir = TempDir("unopenable");
    Capture cap;
    Logger log;
    log.SetDebugOutput(false);
    log.SetSink(&Capture::Sink, &cap);
    ASSERT_TRUE(log.Start(U16(dir).c_str()));  // a directory cannot be opened as the log
    log.SetActive("all");
    EXPECT_STREQ(log.FilePath(), "");
    log.wPrintf(2, 6, u"still here");
    log.Flush();
    auto got = cap.Take();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].text.rfind("ZOR: log: cannot open '", 0), 0u);
    EXPECT_EQ(got[1].text, "still here");
}

TEST(TestHelpers, ModulePathPointsIntoTheTestBinDir) {
    std::u16string p = test::TestModulePath("isr_ok");
    std::u16string suffix = ZOR_MODULE_SUFFIX;
    ASSERT_GT(p.size(), suffix.size());
    EXPECT_EQ(p.substr(p.size() - suffix.size()), suffix);
    EXPECT_NE(p.find(u"isr_ok"), std::u16string::npos);
    EXPECT_TRUE(p[0] == u'/' || (p[1] == u':' && p[2] == u'\\'));
}

}  // namespace
}  // namespace zor
