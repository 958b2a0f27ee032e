// event.irq's EVENT mode, with a separate process as the hardware.
#include "event_device.h"
#include "win32/host_window.h"

namespace zor::e2e {
namespace {

TEST(EventIrq, EventModeDeliversEachSignalAndDropsThemWhilePaused) {
    const std::string name = "zor_e2e_event" + std::to_string(SelfPid());
    ZorInstance zor(EventIrq("EVENT=" + name + "\r\n"));
    Seen seen(zor);
    auto signal = [&](int n) {
        return RunTool(TestBinFile("event_hardware.exe"), {"event", name, std::to_string(n)}).code;
    };
    EXPECT_EQ(signal(50), 0u);
    EXPECT_TRUE(seen.WaitCount(50));
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_CONTROL, {ZOR_EVENT_PAUSE, 0, 0, 0}), 1u);
    EXPECT_EQ(signal(5), 0u);
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_CONTROL, {ZOR_EVENT_RESUME, 0, 0, 0}), 0u);
    EXPECT_EQ(signal(3), 0u);
    ASSERT_TRUE(seen.WaitCount(53));
    for (std::uint32_t i = 0; i < 53; ++i) EXPECT_EQ(seen.words[1 + i], i + 1);
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_QUERY), 53u);
}

// A source that does not open is refused at start here; on Linux the
// driver waits for it (posix/event_late_test.cpp).
TEST(EventIrq, MissingSourceIsRefusedAndTheFallbackRuns) {
    const std::string missing = EventDevice::Missing();
    ZorInstance zor(EventIrq("DEVICE=" + missing + "\r\n"));
    EXPECT_TRUE(zor.WaitLog("ZOR: event.irq: device '" + missing + "' does not open (error 2)\n\r")) << zor.Log();
    EXPECT_TRUE(zor.WaitLog("ZOR: try to load fallback IRQ driver trigger.irq\n"));
}

}  // namespace

struct EventDevice::Impl {
    std::string name = "zor_e2e_device" + std::to_string(SelfPid());
    Program hardware{TestBinFile("event_hardware.exe"), {"pipe", name}};
};

EventDevice::EventDevice() : impl_(new Impl) {
    path_ = "\\\\.\\pipe\\" + impl_->name;
    EXPECT_TRUE(impl_->hardware.WaitFor("ready"));
}
EventDevice::~EventDevice() = default;

bool EventDevice::Go() {
    HANDLE go = OpenEventW(EVENT_MODIFY_STATE, FALSE, Widen(impl_->name + "_go").c_str());
    const bool set = go && SetEvent(go);
    CloseHandle(go);
    return set;
}
// The hardware ends by itself once its pipe was read.
int EventDevice::End() { return impl_->hardware.Finish() == 0 ? ERROR_BROKEN_PIPE : -1; }
std::string EventDevice::Missing() { return "\\\\.\\pipe\\zor_none"; }

}  // namespace zor::e2e
