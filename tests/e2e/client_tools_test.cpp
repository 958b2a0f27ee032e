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
    o.binFiles = {"timer.irq", Mod("latency_isr")};
    o.testModules = {};
    return o;
}

TEST(ClientTools, SampleClientThenZorctlCommandsAndTheirExitCodes) {
    ZorInstance zor(TimerHost());
    // Mapping the system area makes this test a live client: the host does
    // not end by itself when a tool that mapped it exits.
    ASSERT_EQ(zor_system_area(zor.conn(), 0, nullptr), ZOR_OK);
    auto ctl = [&](const std::vector<std::string>& args) { return Ctl(zor.Pid(), args); };
    auto r = RunTool(BinFile(Exe("latency_client")), {"--pid", std::to_string(zor.Pid()), "--seconds", "3"});
    ASSERT_EQ(r.code, 0u) << r.out;
    EXPECT_NE(r.out.find("reset #1"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("[  2 s] events"), std::string::npos) << r.out;
    // At most one interval per 1 ms period of the three seconds watched (a
    // loaded machine dispatches fewer; the module counts those as gaps).
    const double got = Field(r.out, "intervals");
    EXPECT_GT(got, 300) << r.out;
    EXPECT_LT(got, 3600) << r.out;
    EXPECT_GE(Field(r.out, "mean_us"), 800) << r.out;
    EXPECT_GE(Field(r.out, "p99_us"), Field(r.out, "p50_us")) << r.out;
    std::uint32_t mod = 0;  // it unregistered its module on the way out
    EXPECT_EQ(zor_find_module(zor.conn(), Mod("latency_isr").c_str(), &mod), ZOR_E_NOT_REGISTERED);

    r = ctl({"status"});
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_NE(r.out.find("host running: pid " + std::to_string(zor.Pid())), std::string::npos) << r.out;
    r = ctl({"register", Mod("latency_isr"), "--shm", "9000"});
    ASSERT_EQ(r.code, 0u) << r.out;
    const auto at = r.out.find("as module ");
    ASSERT_NE(at, std::string::npos) << r.out;
    const std::string n = std::to_string(std::atoi(r.out.c_str() + at + 10));
    EXPECT_NE(ctl({"info", n}).out.find("9000 bytes"), std::string::npos);
    EXPECT_EQ(ctl({"call", n, "0102"}).code, 0u);
    EXPECT_EQ(ctl({"call", n, "0102", "--pipe"}).code, 0u);
    r = ctl({"exec", n, "2", "--wait", "3000"});  // a deferred request answered from the dispatch thread
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_GT(std::atoi(r.out.c_str()), 0) << r.out;
    // Refusals exit 1, bad usage 2.
    r = ctl({"call", "97", "00"});
    EXPECT_EQ(r.code, 1u) << r.out;
    EXPECT_NE(r.out.find("no registered module"), std::string::npos) << r.out;
    EXPECT_EQ(ctl({"call", n, "0g"}).code, 2u);
    EXPECT_EQ(ctl({"unregister", n}).code, 0u);

    // Quit ends the host; then no host is found (exit 3).
    EXPECT_EQ(ctl({"quit"}).code, 0u);
    EXPECT_TRUE(zor.Exited(5000));
    r = ctl({"status"});
    EXPECT_EQ(r.code, 3u) << r.out;
    EXPECT_NE(r.out.find("no host running"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace zor::e2e
