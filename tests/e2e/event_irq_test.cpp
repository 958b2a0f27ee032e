// event.irq in the real zor.exe, with a separate process as the hardware.
#include "e2e_support.h"

namespace zor::e2e {
namespace {

std::wstring Hardware() { return TestBinFile("event_hardware.exe"); }
std::string Unique(const char* what) { return std::string("zor_e2e_") + what + std::to_string(GetCurrentProcessId()); }

ZorInstance::Options EventIrq(const std::string& section) {
    ZorInstance::Options o;
    o.ini = "[INIT]\r\nLASTIRQ=event.irq\r\nFALLBACKIRQ=trigger.irq\r\n[EVENTIRQ]\r\n" + section;
    o.binFiles = {"event.irq", "trigger.irq"};
    o.testModules = {"sequence_isr.dll"};
    return o;
}

// The recording ISR's words: [0] events seen, [1 + i] the i-th sequence number.
struct Seen {
    explicit Seen(ZorInstance& zor) {
        std::uint32_t module = 0;
        EXPECT_EQ(zor_register_module(zor.conn(), "sequence_isr.dll", 4 * 4096, &module, &view), ZOR_OK);
        words = static_cast<const std::uint32_t*>(view.base);
    }
    ~Seen() { zor_unmap(&view); }
    bool WaitCount(std::uint32_t n) const {
        for (int waited = 0; words && __atomic_load_n(&words[0], __ATOMIC_ACQUIRE) != n; waited += 20) {
            if (waited > 10000) return false;
            Sleep(20);
        }
        return words != nullptr;
    }
    ZorView view{};
    const std::uint32_t* words = nullptr;
};

TEST(EventIrq, EventModeDeliversEachSignalAndDropsThemWhilePaused) {
    const std::string name = Unique("event");
    ZorInstance zor(EventIrq("EVENT=" + name + "\r\n"));
    Seen seen(zor);
    const std::wstring signal = L"event " + Widen(name) + L" ";
    EXPECT_EQ(RunTool(Hardware(), signal + L"50").code, 0u);
    EXPECT_TRUE(seen.WaitCount(50));
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_CONTROL, {ZOR_EVENT_PAUSE, 0, 0, 0}), 1u);
    EXPECT_EQ(RunTool(Hardware(), signal + L"5").code, 0u);
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_CONTROL, {ZOR_EVENT_RESUME, 0, 0, 0}), 0u);
    EXPECT_EQ(RunTool(Hardware(), signal + L"3").code, 0u);
    ASSERT_TRUE(seen.WaitCount(53));
    for (std::uint32_t i = 0; i < 53; ++i) EXPECT_EQ(seen.words[1 + i], i + 1);
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_QUERY), 53u);
}

TEST(EventIrq, DeviceModeDeliversTheDeviceCountsAndOutlivesTheDevice) {
    const std::string name = Unique("device"), path = "\\\\.\\pipe\\" + name;
    Program device(Hardware(), L"pipe " + Widen(name));
    ASSERT_TRUE(device.WaitFor("ready"));
    ZorInstance zor(EventIrq("DEVICE=" + path + "\r\nPENDING=3\r\n"));
    Seen seen(zor);
    HANDLE go = OpenEventW(EVENT_MODIFY_STATE, FALSE, Widen(name + "_go").c_str());
    ASSERT_NE(go, nullptr);
    SetEvent(go);
    CloseHandle(go);
    EXPECT_EQ(device.Finish(), 0u);
    ASSERT_TRUE(seen.WaitCount(1110)) << seen.words[0];
    for (std::uint32_t i = 0; i < 1110; ++i) ASSERT_EQ(seen.words[1 + i], i < 1100 ? i + 1 : i + 101) << i;
    EXPECT_TRUE(zor.WaitLog("ZOR: event.irq: device '" + path +
                            "' failed with error 109 (failure 1), opening it again\n\r"));
    EXPECT_EQ(CountOf(zor.Log(), "ZOR: Time discontinuous! 1100->1201\n\r"), 1u);
    EXPECT_EQ(CountOf(zor.Log(), "ZOR: Time discontinuous!"), 1u);
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_QUERY), ZOR_EVENT_FAILED | 1110u);
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_CONTROL, {ZOR_EVENT_FAILURES, 0, 0, 0}), 1u);
}

TEST(EventIrq, RefusedConfigurationNamesTheKeyAndTheFallbackRuns) {
    const struct {
        const char* section;
        const char* line;
    } cases[] = {
        {"", "neither EVENT nor DEVICE set in [EVENTIRQ] of '"},
        {"EVENT=a\r\nDEVICE=b\r\n", "EVENT and DEVICE both set in [EVENTIRQ] of '"},
        {"DEVICE=b\r\nPENDING=64\r\n", "PENDING=64 in [EVENTIRQ] is not within 1..63\n\r"},
        {"DEVICE=b\r\nSIZE=0\r\n", "SIZE=0 in [EVENTIRQ] is not within 1..65536\n\r"},
        {"DEVICE=\\\\.\\pipe\\zor_none\r\n", "device '\\\\.\\pipe\\zor_none' does not open (error 2)\n\r"},
    };
    for (const auto& c : cases) {
        ZorInstance zor(EventIrq(c.section));
        EXPECT_TRUE(zor.WaitLog(std::string("ZOR: event.irq: ") + c.line)) << c.section << zor.Log();
        EXPECT_TRUE(zor.WaitLog("ZOR: try to load fallback IRQ driver trigger.irq\n")) << c.section;
    }
}

}  // namespace
}  // namespace zor::e2e
