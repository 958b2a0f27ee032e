// event.irq in the real host, reading a device: the counts it reads become
// the sequence numbers, and a gap among them is logged.
#include "event_device.h"

namespace zor::e2e {
namespace {

TEST(EventIrq, DeviceModeTurnsTheDeviceCountsIntoSequenceNumbers) {
    EventDevice device;
    ZorInstance zor(EventIrq("DEVICE=" + device.Path() + "\r\nPENDING=3\r\n"));
    Seen seen(zor);
    ASSERT_TRUE(device.Go());
    ASSERT_TRUE(seen.WaitCount(1110)) << seen.words[0];
    for (std::uint32_t i = 0; i < 1110; ++i) ASSERT_EQ(seen.words[1 + i], i < 1100 ? i + 1 : i + 101) << i;
    EXPECT_TRUE(zor.WaitLog("ZOR: Time discontinuous! 1100->1201\n\r"));  // the log is written behind
    EXPECT_EQ(CountOf(zor.Log(), "ZOR: Time discontinuous!"), 1u);
    const int error = device.End();
    if (error) {
        EXPECT_TRUE(zor.WaitLog("ZOR: event.irq: device '" + device.Path() + "' failed with error " +
                                std::to_string(error) + " (failure 1), opening it again\n\r"));
    }
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_QUERY), (error ? ZOR_EVENT_FAILED : 0u) | 1110u);
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_CONTROL, {ZOR_EVENT_FAILURES, 0, 0, 0}), error ? 1u : 0u);
}

TEST(EventIrq, RefusedConfigurationNamesTheKeyAndTheFallbackRuns) {
    const struct {
        std::string section, line;
    } cases[] = {
        {"", "neither EVENT nor DEVICE set in [EVENTIRQ] of '"},
        {"EVENT=a\r\nDEVICE=b\r\n", "EVENT and DEVICE both set in [EVENTIRQ] of '"},
        {"DEVICE=b\r\nPENDING=64\r\n", "PENDING=64 in [EVENTIRQ] is not within 1..63\n\r"},
        {"DEVICE=b\r\nSIZE=0\r\n", "SIZE=0 in [EVENTIRQ] is not within 1..65536\n\r"},
    };
    for (const auto& c : cases) {
        ZorInstance zor(EventIrq(c.section));
        EXPECT_TRUE(zor.WaitLog("ZOR: event.irq: " + c.line)) << c.section << zor.Log();
        EXPECT_TRUE(zor.WaitLog("ZOR: try to load fallback IRQ driver trigger.irq\n")) << c.section;
    }
}

}  // namespace
}  // namespace zor::e2e
