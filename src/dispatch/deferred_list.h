// The deferred list's runner: the requests queued in the system shared area,
// run on the dispatch thread at the start of every dispatched event.
#pragma once

#include <cstdint>

namespace zor {

class Caller;
class Logger;
class SharedMemory;
class SlotTable;
class StatsArea;

class DeferredList {
public:
    DeferredList(Logger& log, SharedMemory& shm, SlotTable& slots, Caller& caller, StatsArea& stats)
        : log_(log), shm_(shm), slots_(slots), caller_(caller), stats_(stats) {}

    // DoTDL: one pass over the queue, then the queue is emptied and the run
    // counter moves. Skipped (counted, logged) while a writer holds SyncTDL.
    void Run();

private:
    void RunEntries(unsigned char* area, std::uint32_t areaSize);

    Logger& log_;
    SharedMemory& shm_;
    SlotTable& slots_;
    Caller& caller_;
    StatsArea& stats_;
};

}  // namespace zor
