// An ISR module that writes each event's sequence number into its shared
// memory, for tests that watch a host from another process: word 0 counts
// the events, words 1..kMax hold their sequence numbers in order.
#include <atomic>
#include <cstdint>

#include "zor/zor_module.h"

namespace {
constexpr std::uint32_t kMax = 4095;  // the view is (1 + kMax) words
std::atomic<std::uint32_t*> g_words{nullptr};
}  // namespace

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t arg) {
    if (code == ZOR_FN_INITIALIZE) g_words.store(reinterpret_cast<std::uint32_t*>(arg));
    if (code == ZOR_FN_SHUTDOWN) g_words.store(nullptr);
    std::uint32_t* words = g_words.load();
    if (code == ZOR_FN_INTERRUPT && words) {
        const std::uint32_t n = words[0];
        if (n < kMax) words[1 + n] = static_cast<std::uint32_t>(arg);
        std::atomic_ref<std::uint32_t>(words[0]).store(n + 1, std::memory_order_release);
    }
    return 0;
}
