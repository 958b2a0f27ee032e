// The system shared area as the deferred-list run walks it. The input gives
// the queue size, the header words (capacity, SyncTDL, entry count, bytes
// used) and the queue bytes; with flag bit 0 a second thread keeps rewriting
// words of the area while the host walks it. busy_isr (module 1, which
// leaves its packet unread: a module trusting a size the racer rewrites
// would overrun by its own fault) and rewriting_isr (module 2, which
// rewrites its own entry during its call) are registered. The area is a heap block of exactly its size, so that any
// access outside it is an AddressSanitizer error.
#include <atomic>
#include <thread>

#include "common/heap_area_os.h"
#include "common/fuzz_host.h"
#include "common/test_host.h"
#include "modules/deferred_list_writer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zor::test::FuzzBytes in{data, size};
    const auto flags = in.Take<std::uint8_t>();
    const std::uint32_t queueBytes = in.Take<std::uint16_t>() % 8192;
    zor::test::HeapAreaOs os;
    zor::test::FuzzHost fh;
    zor::Host& h = fh.host;
    zor::test::RegisterIsr(h, "busy_isr");
    zor::test::RegisterIsr(h, "rewriting_isr");
    if (h.shm.SysMem(zor::os::process_peer(), zor::os::current_process_id(), ZOR_SSA_QUEUE + queueBytes) == 0) return 0;
    unsigned char* area = h.shm.Area();
    for (std::uint32_t at : {ZOR_SSA_CAPACITY, ZOR_SSA_SYNC_TDL, ZOR_SSA_ENTRY_COUNT, ZOR_SSA_BYTES_USED})
        zor::TdlWord(area, at).store(in.Take<std::uint32_t>());
    std::memcpy(area + ZOR_SSA_QUEUE, in.p, in.n < queueBytes ? in.n : queueBytes);

    std::atomic<bool> stop{false};
    std::thread racer;
    if (flags & 1) {
        // Words the input names, rewritten over and over.
        const std::uint32_t seed = in.Take<std::uint32_t>();
        racer = std::thread([&, seed] {
            std::uint32_t x = seed | 1;
            const std::uint32_t words = (ZOR_SSA_QUEUE + queueBytes) / 4;
            while (!stop.load(std::memory_order_relaxed)) {
                x ^= x << 13, x ^= x >> 17, x ^= x << 5;
                const std::uint32_t at = x % 3 ? ZOR_SSA_QUEUE / 4 + x % (queueBytes / 4 + 1) : x % words;
                if (at < words) zor::TdlWord(area, 4 * at).store(x, std::memory_order_relaxed);
            }
        });
    }
    h.deferredList.Run();
    h.deferredList.Run();
    stop = true;
    if (racer.joinable()) racer.join();
    return 0;
}
