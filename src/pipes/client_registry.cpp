// The client table: registration, pipe connection and stop.
#include "pipes/client_registry.h"

#include <new>

#include "modules/slot_table.h"
#include "support/log.h"

namespace zor {

ClientRegistry::ClientRegistry(Logger& log, CCritSec& funcs, SlotTable& slots, Caller& caller)
    : log_(log), funcs_(funcs), slots_(slots), caller_(caller) {
    for (std::uint32_t i = 0; i < kRecords; ++i) {
        table_[i].owner = this;
        table_[i].index = i;
    }
}

ClientRegistry::~ClientRegistry() { StopAll(); }

std::uint32_t ClientRegistry::FindClient(std::uint32_t pid) const {
    for (std::uint32_t i = 1; i < kRecords; ++i) {
        const ClientRecord& r = table_[i];
        if (r.inUse.load(std::memory_order_acquire) && r.pid.load(std::memory_order_relaxed) == pid)
            return i;
    }
    return 0;
}

std::uint32_t ClientRegistry::RegisterClient(std::uint32_t pid) {
    CLock lock(funcs_);
    if (std::uint32_t found = FindClient(pid)) return found;
    for (std::uint32_t i = 1; i < kRecords; ++i) {
        ClientRecord& r = table_[i];
        if (r.inUse.load(std::memory_order_relaxed)) continue;
        r.requestPipe.store(0, std::memory_order_relaxed);
        r.replyPipe.store(0, std::memory_order_relaxed);
        r.stopRequested.store(0, std::memory_order_relaxed);
        r.pipeThread.store(0, std::memory_order_relaxed);
        r.job.store(nullptr, std::memory_order_relaxed);
        r.pid.store(pid, std::memory_order_relaxed);
        r.inUse.store(1, std::memory_order_release);
        return i;
    }
    log_.wPrintf(kLogError, u"ZOR: too many clients\n");
    return 0;
}

std::uint32_t ClientRegistry::ConnectClientPipe(os::Peer& peer, std::uint32_t index, std::uint64_t requestPipe,
                                                std::uint64_t replyPipe, std::uint32_t pid) {
    // An unregistered pid arrives here as index 0, and record 0 serves it.
    if (index >= kRecords) return 0;
    ClientRecord& r = table_[index];
    // A second connect replaces the first: its thread and handles go first,
    // so that no two threads share one record and nothing is left open.
    StopClientPipe(index);
    os::Handle process = peer.Open(pid);
    if (!process) return 0;
    os::Handle request = 0, reply = 0;
    const bool ok = peer.DupFrom(process, requestPipe, &request) &&
                    peer.DupFrom(process, replyPipe, &reply);
    peer.Close(process);
    os::Thread thread = 0;
    PipeJob* job = ok ? new (std::nothrow) PipeJob : nullptr;
    if (job) {
        job->owner = this;
        job->request = request;
        job->reply = reply;
        r.requestPipe.store(request, std::memory_order_relaxed);
        r.replyPipe.store(reply, std::memory_order_relaxed);
        r.stopRequested.store(0, std::memory_order_relaxed);
        r.job.store(job, std::memory_order_release);
        thread = os::thread_create(ClientPipeThread, job);
    }
    if (!thread) {
        // Without a thread no stop would ever close them.
        r.requestPipe.store(0, std::memory_order_relaxed);
        r.replyPipe.store(0, std::memory_order_relaxed);
        r.job.store(nullptr, std::memory_order_relaxed);
        delete job;
        if (request) os::handle_close(request);
        if (reply) os::handle_close(reply);
        return 0;
    }
    r.pipeThread.store(thread, std::memory_order_release);
    return 0;
}

void ClientRegistry::ReleaseJob(PipeJob* job, bool left) {
    if (job->request) os::handle_close(job->request);
    if (job->reply) os::handle_close(job->reply);
    delete job;
    if (left) left_.fetch_sub(1, std::memory_order_acq_rel);  // the thread's last touch of the host
}

// Cancels the pipe thread's read only while it is really in it: the thread
// cannot leave its read (and call a module, or write an answer) while
// `reading` is 2, so the cancel never meets any other I/O of the thread.
void ClientRegistry::CancelRead(PipeJob& r, os::Thread thread) {
    std::uint32_t expected = 1;
    if (!r.reading.compare_exchange_strong(expected, 2, std::memory_order_acq_rel)) return;
    os::thread_cancel_io(thread);
    r.reading.store(1, std::memory_order_release);
}

// Waits up to `budgetMs` more for the thread, adding the time to *spent;
// true when it ended. Waits in short slices and cancels the read whenever
// the thread is blocked waiting for a request: a single cancel could arrive
// just before the thread enters its read and be lost.
bool ClientRegistry::AwaitThread(PipeJob& r, os::Thread thread, std::uint32_t budgetMs,
                                 std::uint32_t* spent) {
    constexpr std::uint32_t kSliceMs = 20;
    for (std::uint32_t waited = 0;;) {
        CancelRead(r, thread);
        const std::uint32_t slice = budgetMs - waited < kSliceMs ? budgetMs - waited : kSliceMs;
        const bool ended = os::thread_wait(thread, slice) != os::kWaitTimeout;
        waited += slice;
        *spent += slice;
        if (ended) return true;
        if (waited >= budgetMs) return false;
    }
}

bool ClientRegistry::StopPipe(std::uint32_t index, std::uint32_t budgetMs, std::uint32_t* spent,
                              bool evenIfRunning) {
    if (index >= kRecords) return true;
    ClientRecord& r = table_[index];
    os::Thread thread = r.pipeThread.load(std::memory_order_acquire);
    if (!thread) return true;
    PipeJob* job = r.job.load(std::memory_order_acquire);
    r.stopRequested.store(1, std::memory_order_release);
    job->stop.store(1, std::memory_order_release);
    const bool ended = AwaitThread(*job, thread, budgetMs, spent);
    // A thread still inside a module keeps its record at shut-down; a
    // command leaves it the job, to release when its module returns.
    if (!ended && !evenIfRunning) return false;
    os::thread_close(thread);
    r.pipeThread.store(0, std::memory_order_release);
    r.job.store(nullptr, std::memory_order_release);
    r.requestPipe.store(0, std::memory_order_relaxed);
    r.replyPipe.store(0, std::memory_order_relaxed);
    if (!ended) left_.fetch_add(1, std::memory_order_acq_rel);
    if (ended || job->state.exchange(2, std::memory_order_acq_rel) == 1) ReleaseJob(job, !ended);
    return ended;
}

std::uint32_t ClientRegistry::StopClientPipe(std::uint32_t index) {
    std::uint32_t spent = 0;
    StopPipe(index, kCommandStopWaitMs, &spent, true);
    return 0;
}

std::uint32_t ClientRegistry::UnregisterClient(std::uint32_t pid) {
    CLock lock(funcs_);
    std::uint32_t index = FindClient(pid);
    if (!index) return 0;
    StopClientPipe(index);
    table_[index].inUse.store(0, std::memory_order_release);
    return 1;
}

bool ClientRegistry::StopAll() {
    // All are asked first and share one wait: a thread stuck in a module
    // costs the whole wait once, not once per client.
    for (ClientRecord& r : table_)
        if (r.pipeThread.load(std::memory_order_acquire)) r.stopRequested.store(1, std::memory_order_release);
    std::uint32_t spent = 0;
    bool all = true;
    for (std::uint32_t i = 0; i < kRecords; ++i)
        all = StopPipe(i, spent < kStopWaitMs ? kStopWaitMs - spent : 0, &spent, false) && all;
    // Threads that commands left behind use this host until they end.
    for (; left_.load(std::memory_order_acquire) != 0 && spent < kStopWaitMs; spent += 20) os::sleep_ms(20);
    return all && left_.load(std::memory_order_acquire) == 0;
}

}  // namespace zor
