// End of every dispatched event: load, long-event warning, the timing table
// every 1024 events, the sequence-gap check and the one-time report of
// locked modules. Runs on the dispatch thread; the table costs one line per
// ISR once every 1024 events, everything else one clock read and one add.
#include "dispatch/dispatcher.h"

#include "dispatch/stats.h"
#include "modules/slot_table.h"
#include "pagelock/page_locker.h"
#include "support/log.h"
#include "support/stopwatch.h"

namespace zor {

namespace {

constexpr double kLongEventMs = 15.0;
constexpr std::uint32_t kReportMask = 1023;      // table when the low 10 bits are 0
constexpr std::uint32_t kSequenceCheckAfter = 1000;
constexpr std::uint32_t kLockReportAt = 6000;
// The long-event warning's TDL figure: the deferred list's time is not
// split out of the total, so the line has always printed 0.00.
constexpr double kTdlShareMs = 0.0;


void PrintRow(Logger& log, const char16_t* who, const CStatistic& s) {
    log.wPrintf(kLogTrace, u"%20s: %7.3lf / %7.3lf / %7.3lf\n", who, s.Min(), s.Avg(), s.Max());
}

}  // namespace

void Dispatcher::EndOfInterrupt(std::uint32_t sequence) { EndOfInterrupt(sequence, ClockMs()); }

void Dispatcher::EndOfInterrupt(std::uint32_t sequence, double now) {
    Logger& log = log_;
    double total = now - wakeTime_;
    double hz = irqFrequencyHz.load(std::memory_order_relaxed);
    if (hz != 0.0) {
        irqLoadPercent.store(total / (1000.0 / hz) * 100.0, std::memory_order_relaxed);
    }
    if (total > kLongEventMs) {
        log.wPrintf(kLogTiming, u"ZOR: total ISR used %3.2f ms (TDL %3.2f ms)\n\r", total, kTdlShareMs);
    }
    totalStat_.Add(total);
    stats_.OnEventEnd(total);

    if ((eventCounter_ & kReportMask) == 0) {
        log.wPrintf(kLogTrace, u"                             Standard ISR                     ExecISRFunc\n");
        log.wPrintf(kLogTrace, u"-------- WHO ---------- MIN ----- AVG ----- MAX ------- MIN ----- AVG ----- MAX --------\n");
        PrintRow(log, u"ZOR WAKEUP", wakeupStat_);
        PrintRow(log, u"ZOR TOTAL", totalStat_);
        wakeupStat_.Reset();
        totalStat_.Reset();
        for (std::uint32_t i = 0; i < dispatchCount_.load(std::memory_order_relaxed); ++i) {
            ModuleSlot& s = slots_[order_[i]];
            log.wPrintf(kLogTrace, u"%20s: %7.3lf / %7.3lf / %7.3lf     %7.3lf / %7.3lf / %7.3lf\n",
                        s.name, s.interruptStat.Min(), s.interruptStat.Avg(),
                        s.interruptStat.Max(), s.execStat.Min(), s.execStat.Avg(),
                        s.execStat.Max());
            s.interruptStat.Reset();
            s.execStat.Reset();
        }
    }

    if (eventCounter_ > kSequenceCheckAfter) {
        if (sequence != lastSequence_ + 1) {
            log.wPrintf(kLogTiming, u"ZOR: Time discontinuous! %ld->%ld\n\r", AsLong(lastSequence_),
                        AsLong(sequence));
        }
        lastSequence_ = sequence;
        if (eventCounter_ == kLockReportAt) ReportLockedModules(log, lockedNames_);
    } else {
        lastSequence_ = sequence;
    }
    ++eventCounter_;
}

}  // namespace zor
