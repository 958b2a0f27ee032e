// What the control dialog shows and decides: the status texts, Stats
// zeroing, the automatic shut-down and when Cancel asks first.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "common/test_log.h"
#include "host/dialog_logic.h"
#include "host/host.h"

using zor::test::Utf8;

namespace {

class Dialog : public ::testing::Test {
protected:
    std::string Stats() {
        char16_t text[100];
        zor::TakeStats(*host_, text, 100);
        return Utf8(text);
    }
    zor::test::TestLog log_;
    std::unique_ptr<zor::Host> host_ = std::make_unique<zor::Host>(log_.log());
};

TEST_F(Dialog, StatsShowsRoundedFrequencyAndTruncatedLoadThenZeroes) {
    EXPECT_EQ(Stats(), "IRQ freq. 50 Hz,  time  0%");  // before the first event
    EXPECT_EQ(Stats(), "IRQ freq.  0 Hz,  time  0%");
    EXPECT_EQ(host_->dispatcher.irqFrequencyHz.load(), 0.0);

    host_->dispatcher.irqFrequencyHz = 999.5;
    host_->dispatcher.irqLoadPercent = 7.99;
    EXPECT_EQ(Stats(), "IRQ freq. 1000 Hz,  time  7%");
    host_->dispatcher.irqFrequencyHz = 4.49;
    host_->dispatcher.irqLoadPercent = 100.0;
    EXPECT_EQ(Stats(), "IRQ freq.  4 Hz,  time 100%");
    // Values no integer holds show as 0 instead of being undefined.
    host_->dispatcher.irqFrequencyHz = 1e300;
    EXPECT_EQ(Stats(), "IRQ freq.  0 Hz,  time  0%");
}

}  // namespace
