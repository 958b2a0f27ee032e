// The exit's deadline thread.
#include "host/exit_deadline.h"

#include "host/host.h"

namespace zor {

ExitDeadline::ExitDeadline(Host& host, std::uint32_t boundMs) : host_(host), boundMs_(boundMs) {
    thread_ = os::thread_create(Watch, this);
}

ExitDeadline::~ExitDeadline() {
    if (thread_ == 0) return;
    done_.store(true, std::memory_order_release);
    os::thread_wait(thread_, 0xFFFFFFFFu);
    os::thread_close(thread_);
}

std::uint32_t ExitDeadline::Watch(void* p) {
    auto* self = static_cast<ExitDeadline*>(p);
    const double until = os::now_ms() + self->boundMs_;
    while (!self->done_.load(std::memory_order_acquire)) {
        if (os::now_ms() >= until) self->Expire();
        os::sleep_ms(10);
    }
    return 0;
}

void ExitDeadline::Expire() {
    RunningCall::View v{};
    Logger& log = host_.log;
    if (host_.caller.Running().Read(&v) && v.slot != 0) {
        log.wPrintf(kLogFault, u"ZOR: exit: ISR '%s' did not return from %s: process ends without clean-up\n\r",
                    host_.slots[v.slot].name, Caller::FunctionCodeName(v.code));
    } else {
        log.wPrintf(kLogFault, u"ZOR: exit did not finish within %u ms: process ends without clean-up\n\r",
                    static_cast<unsigned>(boundMs_));
    }
    log.Flush();
    os::process_end_now(0);
}

}  // namespace zor
