// Client processes: ten records (record 0 never handed out), their pipes and
// one pipe thread per connected client.
//
// Choices where the behaviour was open:
// - Stopping a pipe also cancels a read blocked on a silent client, and a
//   write blocked on a client that does not read its answers
//   (os::thread_cancel_io, repeated while the thread is in that I/O), so a
//   stop is quick. A request inside a module is waited for 250 ms by a
//   command, 10,000 ms at shut-down; a command then leaves the thread to
//   finish by itself with its own handles (a PipeJob), which it closes
//   when it ends, and the record is free for a new pipe at once.
//   A pass that fails once a stop was requested ends the thread without the
//   "Pipe-Communication failed" line: a stop is not a communication fault.
// - The pipe thread's 256 KiB request buffer is its job's, allocated at
//   connect, so that the thread's stack stays small: nothing is allocated
//   per request, and two threads that serve one record after a second
//   connect never share a buffer.
// - A frame whose length is below 12 or above 262,144 bytes is a failed pass
//   ("ZOR: Pipe-Communication failed!\n\r"); its declared bytes are read and
//   dropped through the request buffer, so the next frame is served.
// - Short reads are completed: the thread reads until the 4 length bytes or
//   the L request bytes have all arrived; a failed read, or one that moves no
//   bytes (end of pipe), fails the pass. Writes are completed the same way.
// - A failed duplication (or thread start) in ConnectClientPipe closes
//   every handle it made: the record keeps no pipe without a thread. A
//   second connect for a running pipe stops it first, as command 9 does.
// - At host shut-down every pipe thread is stopped (StopAll) before the
//   modules are unloaded, so that no thread is inside a module being freed.
//   All threads share one wait of 10,000 ms; a thread stuck in a module
//   keeps its record, its handles, the host and the module (which then
//   stays loaded), and the process ends without freeing them.
#pragma once

#include <atomic>
#include <cstdint>

#include "os/os.h"
#include "os/peer.h"
#include "support/critsec.h"
#include "zor/zor_module.h"

namespace zor {

class Caller;
class ClientRegistry;
class Logger;
class SlotTable;

// What one pipe thread owns: its handles (the host's duplicates), its stop
// and its I/O word. A thread that outlives its stop (a request stuck in a
// module) keeps them and never sees the record's next pipe.
struct PipeJob {
    ClientRegistry* owner = nullptr;
    os::Handle request = 0, reply = 0;
    std::atomic<std::uint32_t> stop{0};
    // 1 while the pipe thread waits for (or reads) a request or writes its
    // answer: only then may a stop cancel its I/O, and it holds the word at
    // 2 while it cancels. Never while a module runs.
    std::atomic<std::uint32_t> reading{0};
    // 0 running; 1 once the thread is done; 2 once a stop gave up waiting.
    // Whoever comes second releases the job.
    std::atomic<std::uint32_t> state{0};
    // Reused for every request and never cleared.
    alignas(16) unsigned char buffer[ZOR_PIPE_BUFFER_SIZE];
};

struct ClientRecord {
    std::atomic<std::uint32_t> inUse{0};
    std::atomic<std::uint32_t> pid{0};
    // The current job's handles (0 without a pipe), for the table's readers.
    std::atomic<os::Handle> requestPipe{0};
    std::atomic<os::Handle> replyPipe{0};
    std::atomic<std::uint32_t> stopRequested{0};
    std::atomic<os::Thread> pipeThread{0};
    std::atomic<PipeJob*> job{nullptr};
    // Fixed at construction: what the pipe thread needs to find its host.
    ClientRegistry* owner = nullptr;
    std::uint32_t index = 0;
};

class ClientRegistry {
public:
    static constexpr std::uint32_t kRecords = 10;
    static constexpr std::uint32_t kStopWaitMs = 10000;
    // What a command (8, 9, 12) waits for a pipe thread inside a module
    // before it leaves the thread to end by itself.
    static constexpr std::uint32_t kCommandStopWaitMs = 250;
    static constexpr std::uint32_t kMaxFailures = 10;

    ClientRegistry(Logger& log, CCritSec& funcs, SlotTable& slots, Caller& caller);
    // Stops every pipe thread still running (they use this host).
    ~ClientRegistry();
    ClientRegistry(const ClientRegistry&) = delete;
    ClientRegistry& operator=(const ClientRegistry&) = delete;

    // Index 1..9 of the record in use with this pid, 0 when none. No lock.
    std::uint32_t FindClient(std::uint32_t pid) const;
    // Command 11: the record index, 0 when all nine are in use.
    std::uint32_t RegisterClient(std::uint32_t pid);
    // Command 8 (index = FindClient(pid), 0 for an unregistered pid). Always 0.
    std::uint32_t ConnectClientPipe(os::Peer& peer, std::uint32_t index, std::uint64_t requestPipe,
                                    std::uint64_t replyPipe, std::uint32_t pid);
    // Command 9 (and UnregisterClient). Always 0.
    std::uint32_t StopClientPipe(std::uint32_t index);
    // Command 12: 1 when a record was freed, 0 when the pid is unknown.
    std::uint32_t UnregisterClient(std::uint32_t pid);
    // Stops the pipe thread of every record (0..9); used at shut-down. The
    // threads share one wait of kStopWaitMs. False when a thread is still
    // running (inside a module): its record and handles are then left as
    // they are, and the host must not be freed.
    bool StopAll();

    // The table, for the pipe threads and for tests. index < kRecords.
    ClientRecord& Record(std::uint32_t index) { return table_[index]; }
    const ClientRecord& Record(std::uint32_t index) const { return table_[index]; }
    // What a pipe thread uses.
    Logger& log() { return log_; }
    SlotTable& slots() { return slots_; }
    Caller& caller() { return caller_; }

    // A job ends: its handles close; one left by its stop is counted out.
    void ReleaseJob(PipeJob* job, bool left);

private:
    static void CancelRead(PipeJob& job, os::Thread thread);
    static bool AwaitThread(PipeJob& job, os::Thread thread, std::uint32_t budgetMs,
                            std::uint32_t* spent);
    bool StopPipe(std::uint32_t index, std::uint32_t budgetMs, std::uint32_t* spent,
                  bool evenIfRunning);

    Logger& log_;
    CCritSec& funcs_;
    SlotTable& slots_;
    Caller& caller_;
    ClientRecord table_[kRecords];
    std::atomic<std::uint32_t> left_{0};  // threads left running by a stop
};

// The pipe thread of one job (argument: its PipeJob*). Returns 0.
std::uint32_t ClientPipeThread(void* record);

// One request for a module's ExecRemoteFunc: `request` points to at least 12
// bytes (caller tag, module number, reserved) followed by the body, which the
// module may write into. -1 when the module number is not a registered slot,
// else the low 32 bits of the module's answer (0 when it faulted).
std::int32_t HandleClientRequest(SlotTable& slots, Caller& caller, void* request);

}  // namespace zor
