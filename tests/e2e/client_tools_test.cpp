// zorctl and the sample client as a user runs them: output, exit codes, and
// the histogram filling at the timer's rate.
#include <cstdlib>
#include <cstring>
#include <string>

#include "client_support.h"

using zor::clienttest::Host;
using zor::clienttest::RunProgram;

namespace {

// The number after `key=` in the sample's summary line, -1 when absent.
double Field(const std::string& out, const std::string& key) {
    const auto at = out.find(key + "=");
    return at == std::string::npos ? -1 : std::atof(out.c_str() + at + key.size() + 1);
}

class ClientTools : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(host_.Start(L"client_tools_e2e.log"));
        // Map the system area ourselves: the host then counts this test as a
        // live client and does not end by itself when a tool that mapped it
        // exits.
        ASSERT_EQ(zor_system_area(host_.conn(), 0, nullptr), ZOR_OK);
    }
    zor::clienttest::RunResult Ctl(const std::wstring& args) {
        return RunProgram(L"zorctl.exe", host_.PidArg() + args);
    }
    Host host_;
};

TEST_F(ClientTools, ZorctlCommandsAndTheirExitCodes) {
    auto r = Ctl(L"status");
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_NE(r.out.find("host running: pid " + std::to_string(host_.pid())), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("irq driver query"), std::string::npos) << r.out;

    r = Ctl(L"register latency_isr.dll --shm 9000");
    ASSERT_EQ(r.code, 0u) << r.out;
    const auto at = r.out.find("as module ");
    ASSERT_NE(at, std::string::npos) << r.out;
    const std::wstring n = std::to_wstring(std::atoi(r.out.c_str() + at + 10));

    r = Ctl(L"find LATENCY_ISR.dll");
    EXPECT_EQ(r.code, 0u);
    EXPECT_EQ(std::to_wstring(std::atoi(r.out.c_str())), n);
    r = Ctl(L"info " + n);
    EXPECT_NE(r.out.find("9000 bytes"), std::string::npos) << r.out;
    r = Ctl(L"call " + n + L" 0102");
    EXPECT_EQ(r.code, 0u) << r.out;
    r = Ctl(L"call " + n + L" 0102 --pipe");
    EXPECT_EQ(r.code, 0u) << r.out;
    r = Ctl(L"exec " + n + L" 2 --wait 3000");
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_GT(std::atoi(r.out.c_str()), 0) << r.out;
    r = Ctl(L"irq-query");
    EXPECT_EQ(r.code, 0u) << r.out;

    // Refusals: unknown module, unknown name, bad usage.
    r = Ctl(L"call 97 00");
    EXPECT_EQ(r.code, 1u) << r.out;
    EXPECT_NE(r.out.find("no registered module"), std::string::npos) << r.out;
    EXPECT_EQ(Ctl(L"find nothing_here.dll").code, 1u);
    EXPECT_EQ(Ctl(L"register a_name_far_too_long.dll").code, 1u);
    EXPECT_EQ(Ctl(L"call " + n + L" 0g").code, 2u);
    EXPECT_EQ(Ctl(L"frobnicate").code, 2u);
    EXPECT_EQ(Ctl(L"info").code, 2u);
    EXPECT_EQ(RunProgram(L"zorctl.exe", L"--help").code, 0u);

    r = Ctl(L"unregister " + n);
    EXPECT_EQ(r.code, 0u);
    EXPECT_EQ(Ctl(L"find latency_isr.dll").code, 1u);
}

TEST_F(ClientTools, WatchShowsTheTimersRate) {
    auto r = Ctl(L"watch --seconds 3");
    ASSERT_EQ(r.code, 0u) << r.out;
    // Not a console: one line a second; the later ones show the steady rate.
    const auto last = r.out.rfind("rate ");
    ASSERT_NE(last, std::string::npos) << r.out;
    const double rate = std::atof(r.out.c_str() + last + 5);
    EXPECT_GT(rate, 700.0) << r.out;
    EXPECT_LT(rate, 1300.0) << r.out;
}

TEST_F(ClientTools, SampleClientFillsTheHistogramAtTheTimersRate) {
    auto r = RunProgram(L"latency_client.exe", host_.PidArg() + L"--seconds 3", 60000);
    ASSERT_EQ(r.code, 0u) << r.out;
    EXPECT_NE(r.out.find("reset #1"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("[  2 s] events"), std::string::npos) << r.out;
    // The histogram covers the whole run: its intervals add up to about the
    // three seconds watched, at most one per 1 ms timer period. (A loaded
    // machine dispatches fewer events; the timer then skips sequence
    // numbers, which the module counts as gaps.)
    const double n = Field(r.out, "intervals"), mean = Field(r.out, "mean_us");
    EXPECT_GT(n, 300) << r.out;
    EXPECT_LT(n, 3600) << r.out;
    EXPECT_GT(n * mean, 2.0e6) << r.out;
    EXPECT_LT(n * mean, 4.0e6) << r.out;
    EXPECT_GE(mean, 800) << r.out;
    EXPECT_GE(Field(r.out, "p99_us"), Field(r.out, "p50_us")) << r.out;
    // It unregistered its module on the way out.
    std::uint32_t mod = 0;
    EXPECT_EQ(zor_find_module(host_.conn(), "latency_isr.dll", &mod), ZOR_E_NOT_REGISTERED);
}

TEST_F(ClientTools, QuitEndsTheHostAndLaterCommandsFindNone) {
    auto r = Ctl(L"quit");
    EXPECT_EQ(r.code, 0u) << r.out;
    for (int i = 0; i < 50 && zor_host_alive(host_.conn()); ++i) Sleep(100);
    EXPECT_EQ(zor_host_alive(host_.conn()), 0);
    r = Ctl(L"status");
    EXPECT_EQ(r.code, 3u) << r.out;
    EXPECT_NE(r.out.find("no host running"), std::string::npos) << r.out;
}

}  // namespace
