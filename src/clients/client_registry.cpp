// The client table: registration, pipe connection and stop.
#include "clients/client_registry.h"

#include "host/host.h"

namespace zor {

ClientRegistry::ClientRegistry(Host& host) : h_(host) {
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
    ZOR_LOCK_FUNCS(h_, __LINE__);
    if (std::uint32_t found = FindClient(pid)) return found;
    for (std::uint32_t i = 1; i < kRecords; ++i) {
        ClientRecord& r = table_[i];
        if (r.inUse.load(std::memory_order_relaxed)) continue;
        r.requestPipe.store(0, std::memory_order_relaxed);
        r.replyPipe.store(0, std::memory_order_relaxed);
        r.stopRequested.store(0, std::memory_order_relaxed);
        r.pipeThread.store(0, std::memory_order_relaxed);
        r.reading.store(0, std::memory_order_relaxed);
        r.pid.store(pid, std::memory_order_relaxed);
        r.inUse.store(1, std::memory_order_release);
        return i;
    }
    h_.log.wPrintf(2, 1, u"ZOR: too many clients\n");
    return 0;
}

std::uint32_t ClientRegistry::ConnectClientPipe(std::uint32_t index, std::uint64_t requestPipe,
                                                std::uint64_t replyPipe, std::uint32_t pid) {
    // An unregistered pid arrives here as index 0, and record 0 serves it.
    if (index >= kRecords) return 0;
    ClientRecord& r = table_[index];
    os::Handle process = os::process_open(pid);
    if (!process) return 0;
    os::Handle request = 0;
    if (!os::handle_dup_from(process, requestPipe, &request)) {
        os::handle_close(process);
        return 0;
    }
    r.requestPipe.store(request, std::memory_order_relaxed);
    os::Handle reply = 0;
    if (!os::handle_dup_from(process, replyPipe, &reply)) {
        // The request end already duplicated stays in the record.
        os::handle_close(process);
        return 0;
    }
    r.replyPipe.store(reply, std::memory_order_relaxed);
    os::handle_close(process);

    r.stopRequested.store(0, std::memory_order_relaxed);
    // A second connect overwrites the handles and the thread handle without
    // stopping the running thread: it takes the new handles on its next pass.
    r.pipeThread.store(os::thread_create(ClientPipeThread, &r), std::memory_order_release);
    return 0;
}

std::uint32_t ClientRegistry::StopClientPipe(std::uint32_t index) {
    if (index >= kRecords) return 0;
    ClientRecord& r = table_[index];
    os::Thread thread = r.pipeThread.load(std::memory_order_acquire);
    if (!thread) return 0;
    r.stopRequested.store(1, std::memory_order_release);

    // Wait in short slices and cancel the read whenever the thread is
    // blocked waiting for a request: a single cancel could arrive just
    // before the thread enters its read and be lost.
    constexpr std::uint32_t kSliceMs = 20;
    std::uint32_t waited = 0;
    while (waited < kStopWaitMs) {
        if (r.reading.load(std::memory_order_acquire)) os::thread_cancel_io(thread);
        std::uint32_t slice = kStopWaitMs - waited < kSliceMs ? kStopWaitMs - waited : kSliceMs;
        if (os::thread_wait(thread, slice) != os::kWaitTimeout) break;
        waited += slice;
    }

    os::thread_close(thread);
    r.pipeThread.store(0, std::memory_order_release);
    if (os::Handle h = r.requestPipe.exchange(0, std::memory_order_acq_rel)) os::handle_close(h);
    if (os::Handle h = r.replyPipe.exchange(0, std::memory_order_acq_rel)) os::handle_close(h);
    return 0;
}

std::uint32_t ClientRegistry::UnregisterClient(std::uint32_t pid) {
    ZOR_LOCK_FUNCS(h_, __LINE__);
    std::uint32_t index = FindClient(pid);
    if (!index) return 0;
    StopClientPipe(index);
    table_[index].inUse.store(0, std::memory_order_release);
    return 1;
}

void ClientRegistry::StopAll() {
    for (std::uint32_t i = 0; i < kRecords; ++i) StopClientPipe(i);
}

}  // namespace zor
