// A consistent copy of a host's statistics area: each record guarded by a
// sequence word is copied until the word was even and unchanged around it.
// Every word is loaded with acquire (a plain load on x86-64), so the second
// look at the sequence word cannot move above any of them; the host stores
// with release. No fence, nothing written: the mapping is read-only.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <thread>

#include "zor/zor_client.h"

namespace {

using Clock = std::chrono::steady_clock;

// A record that keeps changing this long means a host stuck inside a write.
// Between tries the thread yields: a writer preempted in the middle of a
// record on a loaded machine needs the processor to finish it.
constexpr auto kGiveUpAfter = std::chrono::seconds(1);

static_assert(sizeof(ZorStatsInfo) % 8 == 0 && sizeof(ZorStatsEvents) % 8 == 0 &&
                  sizeof(ZorStatsSlot) % 8 == 0 && offsetof(ZorStats, info) % 8 == 0,
              "records are copied in 8-byte words");

void CopyWords(const void* src, void* dst, std::size_t n) {
    const auto* s = static_cast<const std::uint64_t*>(src);
    auto* d = static_cast<std::uint64_t*>(dst);
    for (std::size_t i = 0; i < n / 8; ++i) d[i] = __atomic_load_n(s + i, __ATOMIC_ACQUIRE);
}

// A record at `src` of `n` bytes, guarded by the word at `seq`.
bool CopyRecord(const std::uint32_t* seq, const void* src, void* dst, std::size_t n,
                Clock::time_point until) {
    for (;;) {
        const std::uint32_t s1 = __atomic_load_n(seq, __ATOMIC_ACQUIRE);
        if (!(s1 & 1u)) {
            CopyWords(src, dst, n);
            if (__atomic_load_n(seq, __ATOMIC_ACQUIRE) == s1) return true;
        }
        if (Clock::now() >= until) return false;
        std::this_thread::yield();
    }
}

}  // namespace

extern "C" int zor_stats_copy(const ZorStats* stats, ZorStats* out) {
    if (stats == nullptr || out == nullptr) return ZOR_E_INVALID_ARG;
    CopyWords(stats, out, offsetof(ZorStats, info));
    const Clock::time_point until = Clock::now() + kGiveUpAfter;
    bool ok = CopyRecord(&stats->info_seq, &stats->info, &out->info, sizeof out->info, until);
    ok = CopyRecord(&stats->ev.seq, &stats->ev, &out->ev, sizeof out->ev, until) && ok;
    for (std::uint32_t i = 0; i < ZOR_STATS_SLOTS; ++i)
        ok = CopyRecord(&stats->slots[i].seq, &stats->slots[i], &out->slots[i], sizeof out->slots[i],
                        until) && ok;
    return ok ? ZOR_OK : ZOR_E_TIMEOUT;
}
