#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "common/test_log.h"
#include "os/os.h"
#include "support/log.h"

namespace zor {
namespace {

using test::TestLog;

// "T<thread> #<index> <index % 50 letters>\n\r" as the writers below make
// them; false for anything else (a cut or mixed entry).
bool ParseEntry(const std::string& s, int* t, int* i) {
    int pos = -1;
    if (std::sscanf(s.c_str(), "T%d #%d%n", t, i, &pos) != 2 || pos < 0 || s[pos] != ' ') return false;
    std::size_t e = static_cast<std::size_t>(++pos);
    while (e < s.size() && s[e] >= 'a' && s[e] <= 'z') ++e;
    return e - pos == static_cast<std::size_t>(*i % 50) && s.substr(e) == "\n\r";
}

// Level and mask travel with each entry; an overlong one is cut, not split.
TEST(Log, EntriesReachTheSinkExactlyAsFormatted) {
    TestLog t;
    t.log().wPrintf(2, 6, u"caf\u00E9 %S\n\r", "\xE2\x82\xAC");
    t.log().wPrintf(0, 1, u"%s", std::u16string(3000, u'x').c_str());
    auto e = t.Entries();
    ASSERT_EQ(e.size(), 2u);
    EXPECT_EQ(e[0].text, "caf\xC3\xA9 \xE2\x82\xAC\n\r");
    EXPECT_EQ(e[0].level, 2u);
    EXPECT_EQ(e[0].mask, 6u);
    EXPECT_EQ(e[1].text, std::string(Logger::kMaxLineUnits - 1, 'x'));
    EXPECT_EQ(e[1].level, 0u);
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

TEST(Log, ActivePairsSyntax) {
    TestLog t;
    Logger& log = t.log();
    auto on = [&](std::uint32_t l, std::uint32_t m) { return log.wPrintf_IsUserLevelActive(l, m); };
    // Whether 0:1, 2:6, 2:2, 2:100 and 20:6 are active after each list.
    const std::pair<std::uint32_t, std::uint32_t> kPairs[] = {{0, 1}, {2, 6}, {2, 2}, {2, 100}, {20, 6}};
    const char* cases[][2] = {
        {"", "11111"},         {"all", "11111"},          {"none", "00000"},          {"0:*,2:6", "11000"},
        {"0:*,2:6,-2:2", "11000"}, {"all,-2:*,2:6", "11001"}, {"none,2:*,-2:6", "00110"}, {"NONE,+0:1", "10000"},
    };
    for (const auto& [list, want] : cases) {
        ASSERT_TRUE(log.SetActive(list)) << list;
        std::string got;
        for (auto [l, m] : kPairs) got += on(l, m) ? '1' : '0';
        EXPECT_EQ(got, want) << list;
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

}  // namespace
}  // namespace zor
