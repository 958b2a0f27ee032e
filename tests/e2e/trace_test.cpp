// The flight recorder of the real host as a user reads it with zorctl: a
// module that stalls 3 ms on every 500th event (longer when the system
// preempts it: it reports each stall's own measure), caught by threshold
// captures whose cause names it with that time; trace files that parse, in
// time order, each ISR call within its event.
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "e2e_support.h"

namespace zor::e2e {
namespace {

// The number after `key` in a line of a trace file.
double After(const std::string& line, const std::string& key) {
    const auto at = line.find(key);
    return at == std::string::npos ? -1 : std::atof(line.c_str() + at + key.size());
}

// Every timed entry follows the one before; each ISR call (tid >= 100) lies
// within the dispatch's latest event. Empty when so, else the first fault.
std::string OrderProblem(const std::string& json) {
    std::istringstream in(json);
    std::string line;
    double lastTs = -1, eventStart = -1, eventEnd = -1;
    std::size_t calls = 0;
    while (std::getline(in, line)) {
        const double ts = After(line, "\"ts\": ");
        if (ts < 0) continue;
        if (ts < lastTs) return "out of order: " + line;
        lastTs = ts;
        if (line.find("\"ph\": \"X\"") == std::string::npos) continue;
        const double end = ts + After(line, "\"dur\": ");
        if (line.find("{\"name\": \"event ") == 0) {
            eventStart = ts, eventEnd = end;
        } else if (After(line, "\"tid\": ") >= 100) {
            ++calls;
            if (ts < eventStart - 0.002 || end > eventEnd + 0.002) return "outside its event: " + line;
        }
    }
    return calls ? "" : "no ISR calls";
}

TEST(FlightRecorder, ThresholdCapturesNameTheStallingIsr) {
    ZorInstance::Options o;
    o.ini = "[INIT]\r\nLASTIRQ=timer.irq\r\n";
    o.binFiles = {"timer.irq"};
    o.testModules = {Mod("stall_isr"), Mod("test_isr")};
    ZorInstance zor(o);
    std::uint32_t stall = 0, other = 0;
    ZorView shared{};
    ASSERT_EQ(zor_register_module(zor.conn(), Mod("stall_isr").c_str(), 512, &stall, &shared), ZOR_OK);
    ASSERT_NE(shared.base, nullptr);
    ASSERT_EQ(zor_register_module(zor.conn(), Mod("test_isr").c_str(), 0, &other, nullptr), ZOR_OK);
    const std::string dir = zor.Dir() + kSep + "captures";
    auto r = Ctl(zor.Pid(), {"trace", "--threshold", "1500us", "--on", "isr:" + std::to_string(stall), "--before",
                             "300ms", "--after", "50ms", "--count", "2", "-o", dir, "--svg"});
    ASSERT_EQ(r.code, 0u) << r.out;
    EXPECT_EQ(CountOf(r.out, "capture "), 2u) << r.out;
    // "capture 1: event N took X ms: ISR #n stall_isr.so 3.03 ms (99%), ..."
    // Each names the module with the time of one of its stalls, within 20 %.
    const std::string part = "ISR #" + std::to_string(stall) + " " + Mod("stall_isr") + " ";
    const auto* stalls = static_cast<const double*>(shared.base);
    const std::string cause = " ms: " + part;
    for (auto at = r.out.find(cause); at != std::string::npos; at = r.out.find(cause, at + 1)) {
        const double ms = std::atof(r.out.c_str() + at + cause.size());
        bool matched = false;
        for (int k = 1; k <= static_cast<int>(stalls[0]) && k < 64; ++k)
            matched = matched || (stalls[k] >= 3.0 && ms > stalls[k] * 0.8 && ms < stalls[k] * 1.2);
        EXPECT_TRUE(matched) << ms << " ms matches no stall; first stall " << stalls[1] << " ms\n" << r.out;
    }
    EXPECT_EQ(CountOf(r.out, cause), 2u) << r.out;
    zor_unmap(&shared);
    EXPECT_NE(r.out.find("before it: " + part.substr(0, part.size() - 1) + " was not slow"), std::string::npos) << r.out;
    std::size_t files = 0;
    for (const auto& f : std::filesystem::directory_iterator(dir)) {
        const std::string text = FileText(f.path().string());
        if (f.path().extension() == ".svg") {
            EXPECT_NE(text.find("</svg>"), std::string::npos);
            continue;
        }
        ++files;
        EXPECT_TRUE(IsJson(text)) << f.path();
        EXPECT_EQ(OrderProblem(text), "") << f.path();
        EXPECT_NE(text.find("\"name\": \"late event\""), std::string::npos);
    }
    EXPECT_EQ(files, 2u);

    // The last second as one file; bad durations are usage errors.
    const std::string last = zor.Dir() + kSep + "last.json";
    r = Ctl(zor.Pid(), {"trace", "--seconds", "1", "-o", last});
    ASSERT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(IsJson(FileText(last)));
    EXPECT_NE(FileText(last).find("\"wake-up lateness\""), std::string::npos);  // timer.irq knows its deadline
    EXPECT_EQ(Ctl(zor.Pid(), {"trace", "--threshold", "2", "-o", dir}).code, 2u);
}

}  // namespace
}  // namespace zor::e2e
