// The watchdog thread and its look at the dispatch thread's running call.
#include "dispatch/watchdog.h"

#include "dispatch/caller.h"
#include "dispatch/dispatch_thread.h"
#include "dispatch/stats.h"
#include "modules/slot_table.h"
#include "support/log.h"

namespace zor {

namespace {

// How often the thread looks: a quarter of the budget, at most every 5 ms,
// so that an overrun is seen within a few ms of the budget's end.
std::uint32_t PeriodMs(std::uint32_t budget) {
    const std::uint32_t p = budget / 4;
    return p < 1 ? 1 : p > 5 ? 5 : p;
}

}  // namespace

bool RunningCall::Read(View* v) const {
    for (int i = 0; i < 100; ++i) {
        const std::uint64_t s = state_.load(std::memory_order_acquire);
        const double since = since_.load(std::memory_order_relaxed);
        if (state_.load(std::memory_order_acquire) != s) continue;
        *v = View{s, static_cast<std::uint32_t>(s & 0xFFFF),
                  static_cast<std::uint32_t>((s >> 16) & 0xFFFF), since};
        return true;
    }
    return false;
}

void Watchdog::SetBudget(std::uint32_t ms) { caller_.Running().budgetMs.store(ms, std::memory_order_relaxed); }

std::uint32_t Watchdog::BudgetMs() const {
    return caller_.Running().budgetMs.load(std::memory_order_relaxed);
}

void Watchdog::Start() {
    if (thread_handle_ != 0 || BudgetMs() == 0) return;
    stop_.store(false, std::memory_order_relaxed);
    thread_handle_ = os::thread_create(ThreadMain, this);
    if (thread_handle_ == 0)
        log_.wPrintf(kLogFault, u"ZOR: watchdog thread not started (%08x)\n\r",
                     static_cast<unsigned>(os::last_error()));
}

void Watchdog::Stop() {
    if (thread_handle_ == 0) return;
    stop_.store(true, std::memory_order_release);
    os::thread_wait(thread_handle_, 0xFFFFFFFFu);
    os::thread_close(thread_handle_);
    thread_handle_ = 0;
}

std::uint32_t Watchdog::ThreadMain(void* p) {
    auto* self = static_cast<Watchdog*>(p);
    // It must get the processor while a time-critical dispatch thread spins.
    if (!os::thread_priority_top_self())
        self->log_.wPrintf(kLogError, u"ZOR: watchdog priority not raised (%08x)\n\r",
                           static_cast<unsigned>(os::last_error()));
    while (!self->stop_.load(std::memory_order_acquire)) {
        os::sleep_ms(PeriodMs(self->BudgetMs()));
        self->Check();
    }
    return 0;
}

bool Watchdog::DispatchHealthy() const {
    if (stuckSlot_.load(std::memory_order_acquire) != 0) return false;
    RunningCall::View v;
    if (!caller_.Running().Read(&v)) return true;  // changing fast: progress
    const std::uint32_t budget = BudgetMs();
    return v.slot == 0 || os::now_ms() - v.since <= (budget ? budget : kHealthDefaultMs);
}

void Watchdog::Check() {
    const std::uint32_t budget = BudgetMs();
    RunningCall::View v;
    if (budget == 0 || !caller_.Running().Read(&v)) return;
    if (stuckState_ != 0 && v.state != stuckState_) {  // the stuck call came back after all
        stats_.OnIsrStuck(stuckSlot_.load(std::memory_order_relaxed), 0);
        stuckSlot_.store(0, std::memory_order_release);
        stuckState_ = 0;
    }
    const std::uint32_t threadId = thread_.Id();
    if (v.slot == 0 || threadId == 0) return;
    if (v.state == stuckState_) {
        // Asked again now and then, quietly: a call stuck in one of the
        // host's services or in a wait may come back to code that can be
        // aborted.
        if (os::now_ms() - lastRetry_ >= kComeBackMs) {
            lastRetry_ = os::now_ms();
            os::guard_abort(threadId, caller_.Running().StateWord(), v.state);
        }
        return;
    }
    if (v.state == handled_ || os::now_ms() - v.since <= budget) return;
    handled_ = v.state;
    Abort(v, threadId);
}

// Asks until the call is gone or the abort is on its way, then gives it
// kComeBackMs to come back.
void Watchdog::Abort(const RunningCall::View& v, std::uint32_t threadId) {
    const std::atomic<std::uint64_t>* word = caller_.Running().StateWord();
    const double until = os::now_ms() + kComeBackMs;
    for (;;) {
        switch (os::guard_abort(threadId, word, v.state)) {
            case os::AbortResult::kGone:
                return;
            case os::AbortResult::kSent:
                if (WaitForChange(v.state, until)) return;
                return ReportStuck(v);
            case os::AbortResult::kFailed:
                return ReportStuck(v);
            case os::AbortResult::kDeferred:  // in the host's code: a service call
                if (os::now_ms() >= until) return ReportStuck(v);
                os::sleep_ms(1);
                break;
        }
    }
}

bool Watchdog::WaitForChange(std::uint64_t state, double until) const {
    const std::atomic<std::uint64_t>* word = caller_.Running().StateWord();
    while (word->load(std::memory_order_acquire) == state) {
        if (os::now_ms() >= until) return false;
        os::sleep_ms(1);
    }
    return true;
}

void Watchdog::ReportStuck(const RunningCall::View& v) {
    stuckState_ = v.state;
    stuckSlot_.store(v.slot, std::memory_order_release);
    stats_.OnIsrStuck(v.slot, 1);
    log_.wPrintf(kLogFault,
                 u"ZOR: ISR '%s' did not return from %s within %u ms and cannot be aborted\n\r",
                 slots_[v.slot].name, Caller::FunctionCodeName(v.code),
                 static_cast<unsigned>(BudgetMs()));
}

}  // namespace zor
