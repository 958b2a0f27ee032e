// A consistent copy of a host's statistics area: each record guarded by a
// sequence word is copied until the word was even and unchanged around it.
// Every word is loaded with acquire (a plain load on x86-64), so the second
// look at the sequence word cannot move above any of them; the host stores
// with release. No fence, nothing written: the mapping is read-only.
#include <cstddef>
#include <cstdint>

#include "zor/zor_client.h"

namespace {

constexpr int kTries = 100000;

static_assert(sizeof(ZorStatsInfo) % 8 == 0 && sizeof(ZorStatsEvents) % 8 == 0 &&
                  sizeof(ZorStatsSlot) % 8 == 0 && offsetof(ZorStats, info) % 8 == 0,
              "records are copied in 8-byte words");

void CopyWords(const void* src, void* dst, std::size_t n) {
    const auto* s = static_cast<const std::uint64_t*>(src);
    auto* d = static_cast<std::uint64_t*>(dst);
    for (std::size_t i = 0; i < n / 8; ++i) d[i] = __atomic_load_n(s + i, __ATOMIC_ACQUIRE);
}

// A record at `src` of `n` bytes, guarded by the word at `seq`.
bool CopyRecord(const std::uint32_t* seq, const void* src, void* dst, std::size_t n) {
    for (int i = 0; i < kTries; ++i) {
        const std::uint32_t s1 = __atomic_load_n(seq, __ATOMIC_ACQUIRE);
        if (s1 & 1u) continue;
        CopyWords(src, dst, n);
        if (__atomic_load_n(seq, __ATOMIC_ACQUIRE) == s1) return true;
    }
    return false;
}

}  // namespace

extern "C" int zor_stats_copy(const ZorStats* stats, ZorStats* out) {
    if (stats == nullptr || out == nullptr) return ZOR_E_INVALID_ARG;
    CopyWords(stats, out, offsetof(ZorStats, info));
    bool ok = CopyRecord(&stats->info_seq, &stats->info, &out->info, sizeof out->info);
    ok = CopyRecord(&stats->ev.seq, &stats->ev, &out->ev, sizeof out->ev) && ok;
    for (std::uint32_t i = 0; i < ZOR_STATS_SLOTS; ++i)
        ok = CopyRecord(&stats->slots[i].seq, &stats->slots[i], &out->slots[i], sizeof out->slots[i]) && ok;
    return ok ? ZOR_OK : ZOR_E_TIMEOUT;
}
