// CallModule: the timed, fault-guarded call into a module, and the table of
// thread contexts that tells a called module on whose behalf it runs.
#include "dispatch/caller.h"

#include <cstring>

#include "dispatch/dispatch_thread.h"
#include "dispatch/stats.h"
#include "modules/shared_mem.h"
#include "modules/slot_table.h"
#include "support/log.h"
#include "os/os.h"
#include "support/stopwatch.h"
#include "support/wformat.h"
#include "support/wstr.h"
#include "zor/zor_trace.h"

namespace zor {

namespace {

// Everything the guarded body needs; lives on the caller's stack.
struct CallFrame {
    Caller* caller;
    ModuleSlot* slot;
    std::uint32_t slotNumber;
    std::uint32_t code;
    std::uint64_t arg;
    std::uint32_t flags;
    std::uint32_t context;
    std::uint32_t threadId;
    std::uint32_t result;
    bool nullEntry;
};

void GuardedCall(void* p) {
    CallFrame& f = *static_cast<CallFrame*>(p);
    if (f.context != 0) {
        f.threadId = os::current_thread_id();
        f.caller->AddThreadContext(f.threadId, f.context);
    }
    const ZorGetSetProc entry = f.slot->entry.load(std::memory_order_acquire);
    if (entry == nullptr) {
        f.nullEntry = true;
        return;
    }
    const double t0 = ClockMs();
    f.result = entry(f.code, static_cast<std::uintptr_t>(f.arg));
    f.caller->ReportCall(f.slotNumber, ClockMs() - t0, f.code, f.arg, f.flags);
}


// The timing line of a slow call, built from pieces into one entry. Kept out
// of line so that its buffer costs nothing on the fast path. Argument words
// stop where the line would no longer fit one log entry, so the line always
// keeps its end.
[[gnu::noinline]] void LogSlowCall(Logger& log, const char16_t* name, double elapsed,
                                   std::uint32_t code, std::uint64_t arg,
                                   const char16_t* suffix, std::size_t blockBytes) {
    char16_t tail[64];
    const std::size_t tailLen = wformat(tail, 64, u") used %3.2f ms%s\n\r", elapsed, suffix);
    char16_t line[Logger::kMaxLineUnits];
    const std::size_t cap = Logger::kMaxLineUnits;
    std::size_t n = wformat(line, cap, u"ZOR: %s: %s(", name, Caller::FunctionCodeName(code));
    if (code == ZOR_FN_INITIALIZE || code == ZOR_FN_SET_SERVICE_PROC || code == ZOR_FN_SET_ISR_HANDLE ||
        code == ZOR_FN_ATTACH || code == ZOR_FN_DETACH || code == ZOR_FN_INTERRUPT) {
        n += wformat(line + n, cap - n, u"%p", reinterpret_cast<void*>(arg));
    } else if ((code == ZOR_FN_EXEC_ISR_FUNC || code == ZOR_FN_EXEC_REMOTE_FUNC) && arg != 0 &&
               blockBytes >= 8) {
        // The word count is the module's or client's: read no further than
        // the bytes the block really has (blockBytes) and the largest packet.
        // Deferred entries follow each other unaligned: read words bytewise.
        const auto* block = reinterpret_cast<const unsigned char*>(arg);
        auto word = [block](std::uint32_t i) {
            std::uint32_t w;
            std::memcpy(&w, block + 4 * i, 4);
            return static_cast<unsigned>(w);
        };
        n += wformat(line + n, cap - n, u"Func=0x%x", word(0));
        std::uint32_t words = word(1) >> 2;
        if (words > Caller::kMaxLoggedWords) words = Caller::kMaxLoggedWords;
        if (words > (blockBytes - 8) / 4) words = static_cast<std::uint32_t>((blockBytes - 8) / 4);
        constexpr std::size_t kWordUnits = 11;  // ",0xffffffff"
        for (std::uint32_t i = 0; i < words && n + kWordUnits + tailLen < cap; ++i) {
            n += wformat(line + n, cap - n, u",0x%x", word(2 + i));
        }
    }
    wcopy(line + n, cap - n, tail);
    log.wPrintf(kLogTiming, u"%s", line);
}

}  // namespace

void ModuleNameOfAddress(const void* address, char16_t* buf, unsigned size) {
    if (size == 0) return;
    wcopy(buf, size, u"unknown");
    char16_t path[260] = {};
    if (os::module_name_of(address, path, 260) == 0) return;
    wcopy(buf, size, wfile_part(path, true));
}

std::uint32_t Caller::CallModule(std::uint32_t slot, std::uint32_t code, std::uint64_t arg,
                                 std::uint32_t flags, std::uint32_t context, bool* gone) {
    ModuleSlot& s = slots_[slot];
    if (!s.EnterCall()) {
        if (gone) *gone = true;
        return 0;
    }
    CallFrame f{this, &s, slot, code, arg, flags, context, 0, 0, false};
    // What the dispatch thread runs is published for the watchdog.
    const bool watched = code == ZOR_FN_EXEC_ISR_FUNC && thread_.IsCurrent();
    RunningCall::Saved outer{};
    if (watched) outer = running_.Enter(slot, code, ClockMs());
    os::Fault fault{};
    const bool returned = os::guarded_run(GuardedCall, &f, &fault);
    if (watched) running_.Leave(outer);
    if (!returned) {
        if (code == ZOR_FN_INTERRUPT) InterruptFailed(slot, fault);
        else if (fault.code == os::kFaultAborted) ReportAbort(slot, code);
        else ReportFault(slot, fault.address);
    } else if (f.nullEntry) {
        // Cleared by an unloading, or not yet set by a registration.
        if (gone && ((s.calls.load(std::memory_order_acquire) & ModuleSlot::kClosing) ||
                     !s.inUse.load(std::memory_order_acquire))) {
            *gone = true;
        } else {
            ReportNullCall(slot);
        }
    }
    if (context != 0) RemoveThreadContext(f.threadId);
    s.LeaveCall();
    return f.result;
}

void Caller::InterruptFailed(std::uint32_t slot, const os::Fault& fault) {
    if (fault.code == os::kFaultAborted) {
        ReportAbort(slot, ZOR_FN_INTERRUPT);
    } else {
        ReportFault(slot, fault.address);
        stats_.OnIsrFault(slot, faultModuleName_);
    }
}

void Caller::ReportNullCall(std::uint32_t slot) { ReportFault(slot, reinterpret_cast<const void*>(&GuardedCall)); }

bool Caller::CloseSlot(std::uint32_t slot, std::uint32_t waitMs) {
    ModuleSlot& s = slots_[slot];
    s.calls.fetch_or(ModuleSlot::kClosing, std::memory_order_seq_cst);
    s.entry.store(nullptr, std::memory_order_seq_cst);
    // This thread's own calls into the slot (a module that asked for its own
    // unloading) stay inside until this returns.
    struct Own {
        std::uint32_t slot;
        std::uint32_t count;
    } own{slot, 0};
    os::guarded_visit(
        GuardedCall,
        [](void* ctx, void* arg) {
            auto* o = static_cast<Own*>(arg);
            if (static_cast<CallFrame*>(ctx)->slotNumber == o->slot) ++o->count;
        },
        &own);
    // The dispatch loop does not count its calls: an event that may have
    // found the slot open must end first, unless it is this thread's own.
    const std::uint32_t event = thread_.Events();
    bool eventOver = (event & 1) == 0 || thread_.IsCurrent();
    const double until = os::now_ms() + waitMs;
    for (;;) {
        eventOver = eventOver || thread_.Events() != event;
        if (eventOver && (s.calls.load(std::memory_order_acquire) & ~ModuleSlot::kClosing) <= own.count)
            return true;
        if (os::now_ms() >= until) return false;
        os::sleep_ms(1);
    }
}

void Caller::ReportFault(std::uint32_t slot, const void* address) {
    char16_t name[260];
    ModuleNameOfAddress(address, name, 260);
    // The shared buffer is only a record of the last fault; a second fault at
    // the same moment leaves it to the first.
    if (!faultNameBusy_.exchange(true, std::memory_order_acquire)) {
        wcopy(faultModuleName_, 260, name);
        faultNameBusy_.store(false, std::memory_order_release);
    }
    log_.wPrintf(kLogFault, u"ZOR: ISR '%s' caused exception in '%s'!\n\r", slots_[slot].name,
                   name);
}

// The watchdog cut the call short: the module is blocked as SERV_BlockISR
// blocks it, until a client unblocks or unregisters it.
void Caller::ReportAbort(std::uint32_t slot, std::uint32_t code) {
    ModuleSlot& s = slots_[slot];
    s.blocked.store(1, std::memory_order_release);
    stats_.OnBlocked(slot, 1);
    stats_.OnIsrAbort(slot);
    log_.wPrintf(kLogFault, u"ZOR: ISR '%s' did not return from %s within %u ms: call aborted, ISR blocked\n\r",
                 s.name, FunctionCodeName(code),
                 static_cast<unsigned>(running_.budgetMs.load(std::memory_order_relaxed)));
}

// Bytes a call block may span: at most a packet. A block inside the shared
// area (a queued call) may be rewritten by a client during the call, so it
// also ends where the host's mapping ends.
std::size_t Caller::BlockBytes(std::uint32_t flags, std::uint64_t arg) const {
    const unsigned char* area = shm_.Area();
    const auto* block = reinterpret_cast<const unsigned char*>(arg);
    if (!(flags & kFlagTdl) || area == nullptr || block < area ||
        block >= area + shm_.AreaSize()) {
        return ISR_MAX_DIRECT_ARG;
    }
    const auto left = static_cast<std::size_t>(area + shm_.AreaSize() - block);
    return left < ISR_MAX_DIRECT_ARG ? left : ISR_MAX_DIRECT_ARG;
}

void Caller::ReportCall(std::uint32_t slot, double elapsed, std::uint32_t code,
                        std::uint64_t arg, std::uint32_t flags) {
    ModuleSlot& s = slots_[slot];
    const char16_t* suffix = (flags & kFlagTdl) ? u" (TDL)" : u"";
    if (elapsed > kSlowCallMs && thread_.IsCurrent() &&
        log_.IsActive(kLogTiming)) {
        if (code > ZOR_GS_SET_INTERRUPT) {
            log_.wPrintf(kLogTiming, u"ZOR: %s used %3.2f ms (unknown func=%ld)%s\n\r", s.name,
                           elapsed, static_cast<long>(static_cast<std::int32_t>(code)), suffix);
            return;
        }
        LogSlowCall(log_, s.name, elapsed, code, arg, suffix, BlockBytes(flags, arg));
    }
    if (code == ZOR_FN_INTERRUPT) {
        s.interruptStat.Add(elapsed);
        stats_.OnIsrCall(slot, elapsed, (flags & kFlagInEvent) != 0);
    }
    if (code == ZOR_FN_EXEC_ISR_FUNC) {
        s.execStat.Add(elapsed);
        stats_.OnExecCall();
    }
}

void Caller::AddThreadContext(std::uint32_t threadId, std::uint32_t context) {
    for (Context& c : contexts_) {
        std::uint32_t expected = 0;
        if (c.threadId.compare_exchange_strong(expected, threadId, std::memory_order_acq_rel)) {
            c.context.store(context, std::memory_order_relaxed);
            return;
        }
    }
    log_.wPrintf(kLogFault, u"ZOR: Out of thread contexts!\n");
}

void Caller::RemoveThreadContext(std::uint32_t threadId) {
    for (Context& c : contexts_) {
        if (c.threadId.load(std::memory_order_relaxed) == threadId) {
            c.threadId.store(0, std::memory_order_release);
            return;
        }
    }
}

std::uint32_t Caller::GetThreadContext(std::uint32_t threadId) {
    for (Context& c : contexts_) {
        if (c.threadId.load(std::memory_order_acquire) == threadId) {
            return c.context.load(std::memory_order_relaxed);
        }
    }
    log_.wPrintf(kLogFault, u"ZOR: context for thread %x not found!\n", static_cast<unsigned>(threadId));
    return 0;
}

const char16_t* Caller::FunctionCodeName(std::uint32_t code) {
    static constexpr char16_t kNames[ZOR_GS_SET_INTERRUPT][20] = {
        u"?? (0)",      u"Initialize",     u"Shutdown",      u"SetServiceProc",
        u"EditProperties", u"ExecISRFunc", u"ExecRemoteFunc", u"SetISRHandle",
        u"Attach",      u"Detach",         u"?? (10)",       u"?? (11)",
        u"?? (12)",     u"?? (13)",        u"?? (14)",       u"?? (15)",
        u"?? (16)",     u"?? (17)",        u"?? (18)",       u"?? (19)",
        u"Interrupt"};
    return code < ZOR_GS_SET_INTERRUPT ? kNames[code] : u"";
}

}  // namespace zor
