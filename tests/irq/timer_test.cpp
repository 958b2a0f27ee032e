// The bundled periodic driver timer.irq (Windows builds only), driven
// directly: its period control. Its event stream is checked end to end
// (the sample client) and measured in bench/.
#include <gtest/gtest.h>

#include "irq/irq_files.h"
#include "zor/zor_module.h"

namespace zor::test {
namespace {

class TimerTest : public testing::Test {
protected:
    void SetUp() override {
        if (!file.Loaded()) GTEST_SKIP() << "timer.irq is built for Windows only";
        getSet = file.Fn<ZorGetSetProc>(ZOR_IRQ_EXPORT_NAME);
        ASSERT_TRUE(getSet);
    }
    void TearDown() override {
        if (getSet) getSet(ZOR_GS_IRQ_CONTROL, 1000);
    }
    DriverFile file{ProductDir(), u"timer.irq"};
    ZorGetSetProc getSet = nullptr;
};

TEST_F(TimerTest, PeriodIsQueriedSetAndRefusedBelowTheFloor) {
    EXPECT_EQ(getSet(ZOR_GS_IRQ_QUERY, 0), 1000u);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_CONTROL, 500), 1000u);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_QUERY, 0), 500u);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_CONTROL, ZOR_TIMER_FLOOR_US - 1), ZOR_TIMER_REFUSED);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_CONTROL, ZOR_TIMER_CEILING_US + 1), ZOR_TIMER_REFUSED);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_QUERY, 0), 500u);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_CONTROL, ZOR_TIMER_FLOOR_US), 500u);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_CONTROL, 1000), ZOR_TIMER_FLOOR_US);
}

}  // namespace
}  // namespace zor::test
