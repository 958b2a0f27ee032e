// zorctl and the sample client as a user runs them against a host with the
// timer driver: output, exit codes, and the histogram filling at the
// timer's rate.
#include <cstdlib>

#include "e2e_support.h"

namespace zor::e2e {
namespace {

// The number after `key=` in the sample's summary line, -1 when absent.
double Field(const std::string& out, const std::string& key) {
    const auto at = out.find(key + "=");
    return at == std::string::npos ? -1 : std::atof(out.c_str() + at + key.size() + 1);
}

ZorInstance::Options TimerHost() {
    ZorInstance::Options o;
    o.ini = "[INIT]\r\nLASTIRQ=timer.irq\r\n";
    o.binFiles = {"timer.irq", "latency_isr.dll"};
    o.testModules = {};
    return o;
}

class ClientTools : public ::testing::Test {
protected:
    // Mapping the system area makes this test a live client: the host does
    // not end by itself when a tool that mapped it exits.
    void SetUp() override { ASSERT_EQ(zor_system_area(zor_.conn(), 0, nullptr), ZOR_OK); }
    RunResult Ctl(const std::wstring& args) { return e2e::Ctl(zor_.Pid(), args); }
    ZorInstance zor_{TimerHost()};
};

TEST_F(ClientTools, ZorctlCommandsAndTheirExitCodes) {
    auto r = Ctl(L"status");
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_NE(r.out.find("host running: pid " + std::to_string(zor_.Pid())), std::string::npos) << r.out;
    r = Ctl(L"register latency_isr.dll --shm 9000");
    ASSERT_EQ(r.code, 0u) << r.out;
    const auto at = r.out.find("as module ");
    ASSERT_NE(at, std::string::npos) << r.out;
    const std::wstring n = std::to_wstring(std::atoi(r.out.c_str() + at + 10));
    EXPECT_NE(Ctl(L"info " + n).out.find("9000 bytes"), std::string::npos);
    for (const wchar_t* ok : {L" 0102", L" 0102 --pipe"}) EXPECT_EQ(Ctl(L"call " + n + ok).code, 0u) << ok;
    r = Ctl(L"exec " + n + L" 2 --wait 3000");  // a deferred request answered from the dispatch thread
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_GT(std::atoi(r.out.c_str()), 0) << r.out;

    // Refusals exit 1, bad usage 2.
    r = Ctl(L"call 97 00");
    EXPECT_EQ(r.code, 1u) << r.out;
    EXPECT_NE(r.out.find("no registered module"), std::string::npos) << r.out;
    EXPECT_EQ(Ctl(L"register a_name_far_too_long.dll").code, 1u);
    EXPECT_EQ(Ctl(L"call " + n + L" 0g").code, 2u);
    EXPECT_EQ(Ctl(L"unregister " + n).code, 0u);
    EXPECT_EQ(Ctl(L"find latency_isr.dll").code, 1u);

    // Quit ends the host; then no host is found (exit 3).
    EXPECT_EQ(Ctl(L"quit").code, 0u);
    EXPECT_TRUE(zor_.Exited(5000));
    r = Ctl(L"status");
    EXPECT_EQ(r.code, 3u) << r.out;
    EXPECT_NE(r.out.find("no host running"), std::string::npos) << r.out;
}

TEST_F(ClientTools, SampleClientFillsTheHistogramAtTheTimersRate) {
    auto r = RunTool(BinFile("latency_client.exe"), L"--pid " + std::to_wstring(zor_.Pid()) + L" --seconds 3");
    ASSERT_EQ(r.code, 0u) << r.out;
    EXPECT_NE(r.out.find("reset #1"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("[  2 s] events"), std::string::npos) << r.out;
    // The intervals add up to about the three seconds watched, at most one
    // per 1 ms period (a loaded machine dispatches fewer; the module counts
    // the skipped sequence numbers as gaps).
    const double n = Field(r.out, "intervals"), mean = Field(r.out, "mean_us");
    EXPECT_GT(n, 300) << r.out;
    EXPECT_LT(n, 3600) << r.out;
    EXPECT_GT(n * mean, 2.0e6) << r.out;
    EXPECT_LT(n * mean, 4.0e6) << r.out;
    EXPECT_GE(mean, 800) << r.out;
    EXPECT_GE(Field(r.out, "p99_us"), Field(r.out, "p50_us")) << r.out;
    std::uint32_t mod = 0;  // it unregistered its module on the way out
    EXPECT_EQ(zor_find_module(zor_.conn(), "latency_isr.dll", &mod), ZOR_E_NOT_REGISTERED);
}

}  // namespace
}  // namespace zor::e2e
