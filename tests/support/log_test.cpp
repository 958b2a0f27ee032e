#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/scoped_env.h"
#include "common/test_log.h"
#include "os/os.h"
#include "support/log.h"

namespace zor {
namespace {

namespace fs = std::filesystem;
using test::ScopedEnv;
using test::TestLog;

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

bool Digits(const std::string& s, std::size_t from, std::size_t n) {
    if (from + n > s.size() || n == 0) return false;
    for (std::size_t i = from; i < from + n; ++i)
        if (s[i] < '0' || s[i] > '9') return false;
    return true;
}

// "T<thread> #<index> <index % 50 letters>\n\r" as the writers below make
// them; false for anything else (a cut or mixed entry).
bool ParseEntry(const std::string& s, int* t, int* i) {
    int pos = -1;
    if (std::sscanf(s.c_str(), "T%d #%d%n", t, i, &pos) != 2 || pos < 0 || s[pos] != ' ') return false;
    std::size_t e = static_cast<std::size_t>(++pos);
    while (e < s.size() && s[e] >= 'a' && s[e] <= 'z') ++e;
    return e - pos == static_cast<std::size_t>(*i % 50) && s.substr(e) == "\n\r";
}

// The text after a file line's "[<local time>.<ms> <s>.<6 digits> tid=<n> 2/6] ",
// "" when the stamp is malformed.
std::string AfterStamp(std::string line) {
    if (line.size() < 25 || line[20] != '.' || !Digits(line, 21, 3) || line[24] != ' ') return "";
    line = "[" + line.substr(25);
    std::size_t dot = line.find('.'), tid = line.find(" tid=");
    if (line.empty() || line[0] != '[' || !Digits(line, 1, dot - 1) || tid != dot + 7 || !Digits(line, dot + 1, 6))
        return "";
    std::size_t end = line.find(" 2/6] ");
    if (end == std::string::npos || !Digits(line, tid + 5, end - tid - 5)) return "";
    return line.substr(end + 6);
}

TEST(Log, EntriesReachTheSinkExactlyAsFormatted) {
    TestLog t;
    t.log().wPrintf(2, 6, u"ZOR: ISR #%ld (%s) loaded\n\r", 3, u"timer");
    t.log().wPrintf(0, 1, u"ZOR: %3.2f ms\r\n", 2.345);
    t.log().wPrintf(2, 0, u"caf\u00E9 %S", "\xE2\x82\xAC");  // no line end added
    std::u16string longText(3000, u'x');
    t.log().wPrintf(2, 6, u"%s", longText.c_str());
    auto e = t.Entries();
    ASSERT_EQ(e.size(), 4u);
    EXPECT_EQ(e[0].text, "ZOR: ISR #3 (timer) loaded\n\r");
    EXPECT_EQ(e[0].level, 2u);
    EXPECT_EQ(e[0].mask, 6u);
    EXPECT_EQ(e[1].text, "ZOR: 2.35 ms\r\n");
    EXPECT_EQ(e[1].level, 0u);
    EXPECT_EQ(e[2].text, "caf\xC3\xA9 \xE2\x82\xAC");
    EXPECT_EQ(e[3].text, std::string(Logger::kMaxLineUnits - 1, 'x'));  // cut, not split
}

// Several threads log at once into a file and the sink: every entry arrives
// once, whole, and each thread's entries keep their order.
TEST(Log, ConcurrentWritersLoseAndInterleaveNothing) {
    constexpr int kThreads = 4, kPerThread = 1000;
    fs::path file = TempDir("concurrent") / "c.log";
    std::vector<TestLog::Entry> got;
    {
        TestLog t(file.u16string().c_str());
        std::vector<std::thread> threads;
        for (int n = 0; n < kThreads; ++n)
            threads.emplace_back([&, n] {
                for (int i = 0; i < kPerThread; ++i)
                    t.log().wPrintf(2, 6, u"T%d #%d %.*s\n\r", n, i, i % 50,
                                    u"abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyz");
            });
        for (auto& th : threads) th.join();
        got = t.Entries();
        EXPECT_EQ(t.log().Dropped(), 0u);
    }
    std::vector<int> next(kThreads, 0);
    ASSERT_EQ(got.size(), static_cast<std::size_t>(kThreads * kPerThread));
    for (const auto& g : got) {
        int n, i;
        ASSERT_TRUE(ParseEntry(g.text, &n, &i)) << g.text;
        ASSERT_EQ(i, next.at(n)++) << "thread " << n << " out of order";
    }

    std::istringstream in(ReadFile(file));
    std::string line;
    std::getline(in, line);
    EXPECT_NE(line.find("log] ZOR: log file '"), std::string::npos) << line;
    int count = 0;
    while (std::getline(in, line)) {
        if (line == "\r") continue;  // the last entry's "\n\r"
        // Each entry ends in "\n\r", so the next line starts with '\r'.
        std::string body = line[0] == '\r' ? line.substr(1) : line;
        int n, i;
        ASSERT_TRUE(ParseEntry(AfterStamp(body) + "\n\r", &n, &i)) << body;
        ++count;
    }
    EXPECT_EQ(count, kThreads * kPerThread);
}

// While the writer keeps freeing space behind them, callers racing for the
// head must never take a moved tail for a full ring: with room for every
// entry, nothing may be dropped.
TEST(Log, RacingCallersNeverSeeAFalseFull) {
    constexpr int kThreads = 4, kPerThread = 25000;
    TestLog t(u"", std::size_t{16} << 20);  // 100000 entries of at most 64 bytes
    std::vector<std::thread> threads;
    for (int n = 0; n < kThreads; ++n)
        threads.emplace_back([&, n] {
            for (int i = 0; i < kPerThread; ++i) t.log().wPrintf(2, 6, u"%d:%d", n, i);
        });
    for (auto& th : threads) th.join();
    t.log().End();
    EXPECT_EQ(t.log().Dropped(), 0u);
}

// With the writer held the ring fills: later entries are dropped and
// counted, the count is reported once the writer runs again, and logging
// goes on normally afterwards.
TEST(Log, FullQueueDropsCountsAndReports) {
    TestLog t(u"", 8192);
    Logger& log = t.log();
    log.HoldWriter(true);
    for (int i = 0; i < 200; ++i) log.wPrintf(2, 6, u"entry %03d with some padding text to take room\n", i);
    std::uint64_t dropped = log.Dropped();
    EXPECT_GT(dropped, 100u);
    EXPECT_LT(dropped, 200u);
    log.Flush();  // returns while held
    log.HoldWriter(false);
    auto got = t.Entries();
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
    EXPECT_EQ(t.Lines().size(), kept + 1 + 2000);
    EXPECT_EQ(log.Dropped(), dropped);
}

TEST(Log, FlushEndAndRestart) {
    TestLog t;
    Logger& log = t.log();
    EXPECT_FALSE(log.Start(u""));  // already running
    for (int i = 0; i < 100; ++i) log.wPrintf(2, 6, u"%d", i);
    EXPECT_EQ(t.Lines().size(), 100u);
    for (int i = 0; i < 50; ++i) log.wPrintf(2, 6, u"%d", i);
    log.End();  // writes what is queued
    EXPECT_EQ(t.Lines().size(), 150u);
    log.wPrintf(2, 6, u"after end");
    EXPECT_FALSE(log.wPrintf_IsUserLevelActive(2, 6));
    log.End();
    EXPECT_EQ(t.Lines().size(), 150u);

    ASSERT_TRUE(log.Start(u""));
    log.SetActive("all");
    log.wPrintf(2, 6, u"again");
    auto lines = t.Lines();
    ASSERT_EQ(lines.size(), 151u);
    EXPECT_EQ(lines.back(), "again");
}

TEST(Log, ActivePairsSyntax) {
    TestLog t;
    Logger& log = t.log();
    auto on = [&](std::uint32_t l, std::uint32_t m) { return log.wPrintf_IsUserLevelActive(l, m); };
    struct Case {
        const char* list;
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
        ASSERT_TRUE(log.SetActive(c.list)) << c.list;
        EXPECT_EQ(on(0, 1), c.l0m1) << c.list;
        EXPECT_EQ(on(2, 6), c.l2m6) << c.list;
        EXPECT_EQ(on(2, 2), c.l2m2) << c.list;
        EXPECT_EQ(on(2, 100), c.l2m100) << c.list;
        EXPECT_EQ(on(20, 6), c.l20m6) << c.list;
    }
    ASSERT_TRUE(log.SetActive("2:6"));
    for (const char* bad : {"2:64", "16:1", "2:", ":6", "x", "2:6,", ",", "2:6:1", "2;6", "-", "alll"}) {
        EXPECT_FALSE(log.SetActive(bad)) << bad;
        EXPECT_TRUE(on(2, 6)) << bad;  // unchanged
        EXPECT_FALSE(on(0, 1)) << bad;
    }
    log.wPrintf(2, 6, u"yes");
    log.wPrintf(2, 1, u"no");
    log.wPrintf(0, 1, u"no");
    EXPECT_EQ(t.Lines(), std::vector<std::string>{"yes"});
}

TEST(Log, EnvironmentChoosesPairsAndFile) {
    fs::path file = TempDir("env") / "sub" / "from-env.log";
    {
        ScopedEnv active("ZOR_LOG_ACTIVE", u"0:1");
        ScopedEnv where("ZOR_LOG_FILE", file.u16string().c_str());
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
    ScopedEnv active("ZOR_LOG_ACTIVE", u"2:99");
    TestLog t;
    EXPECT_EQ(t.Lines(), std::vector<std::string>{"ZOR: log: ZOR_LOG_ACTIVE '2:99' not understood, all pairs active\n"});
}

TEST(Log, DefaultFileLiesInTheUsersApplicationData) {
    fs::path dir = TempDir("appdata");
    ScopedEnv appdata("APPDATA", dir.u16string().c_str());
    ScopedEnv noFile("ZOR_LOG_FILE", nullptr);
    Logger log;
    log.SetDebugOutput(false);
    ASSERT_TRUE(log.Start());
    fs::path p(log.FilePath());
    log.End();
    EXPECT_EQ(p.parent_path(), dir / "ZOR" / "logs");
    std::string name = p.filename().string();  // zor-YYYYMMDD-HHMMSS-<pid>.log
    EXPECT_TRUE(name.rfind("zor-", 0) == 0 && Digits(name, 4, 8) && name[12] == '-' && Digits(name, 13, 6)) << name;
    EXPECT_EQ(name.substr(19), "-" + std::to_string(os::current_process_id()) + ".log");
    EXPECT_TRUE(fs::exists(p));
}

TEST(Log, UnopenableFileStillLogsElsewhere) {
    fs::path dir = TempDir("unopenable");
    TestLog t(dir.u16string().c_str());  // a folder cannot be opened as the log
    EXPECT_STREQ(t.log().FilePath(), "");
    t.log().wPrintf(2, 6, u"still here");
    auto lines = t.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("ZOR: log: cannot open '", 0), 0u);
    EXPECT_EQ(lines[1], "still here");
}

}  // namespace
}  // namespace zor
