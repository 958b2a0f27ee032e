// Snapshots and percentiles of the statistics area.
#include "stats_view.h"

#include "platform.h"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace zorctl {

double BucketMidMs(std::uint32_t i) {
    const double lo = static_cast<double>(zor_stats_bucket_low_ns(i));
    const double hi = i + 1 < ZOR_STATS_BUCKETS ? static_cast<double>(zor_stats_bucket_low_ns(i + 1))
                                                 : lo * 9.0 / 8.0;
    return (lo + hi) / 2.0 / 1e6;
}

Summary Summarise(const ZorStatsHistogram& now, const ZorStatsHistogram* before) {
    std::uint64_t c[ZOR_STATS_BUCKETS];
    Summary r;
    for (std::uint32_t i = 0; i < ZOR_STATS_BUCKETS; ++i) {
        c[i] = now.count[i] - (before ? before->count[i] : 0);
        r.n += c[i];
    }
    if (r.n == 0) return r;
    // The smallest value with at least q of the counts at or below it.
    auto at = [&](double q) {
        const double want = q * static_cast<double>(r.n);
        std::uint64_t sum = 0;
        for (std::uint32_t i = 0; i < ZOR_STATS_BUCKETS; ++i) {
            sum += c[i];
            if (c[i] && static_cast<double>(sum) >= want) return BucketMidMs(i);
        }
        return BucketMidMs(ZOR_STATS_BUCKETS - 1);
    };
    r.p50 = at(0.5);
    r.p99 = at(0.99);
    r.p999 = at(0.999);
    r.max = at(1.0);
    return r;
}

StatsReader::~StatsReader() { zor_unmap(&view_); }

int StatsReader::Open(std::uint32_t pid) {
    const int st = zor_stats_map(pid, &area_, &view_);
    if (st == ZOR_E_LAYOUT) {
        // Only these three words are common to every layout.
        std::fprintf(stderr,
                     "zorctl: the statistics area of host %lu has magic 0x%08lx, layout %lu, "
                     "%lu bytes; this zorctl reads layout %u of %u bytes (an older or newer host)\n",
                     static_cast<unsigned long>(pid), static_cast<unsigned long>(area_->magic),
                     static_cast<unsigned long>(area_->layout), static_cast<unsigned long>(area_->size),
                     ZOR_STATS_LAYOUT, static_cast<unsigned>(sizeof(ZorStats)));
        return 2;
    }
    if (st == ZOR_E_UNTRUSTED) {
        std::uint32_t who = 0, uid = 0;
        zor_untrusted_peer(&who, &uid);
        std::fprintf(stderr, "zorctl: the statistics area of host %lu belongs to uid %lu, not the host's user: "
                     "refused\n", static_cast<unsigned long>(pid), static_cast<unsigned long>(uid));
        return 3;
    }
    if (st != ZOR_OK) {
        std::fprintf(stderr, "zorctl: no statistics area for host %lu: %s\n",
                     static_cast<unsigned long>(pid),
                     st == ZOR_E_NO_HOST ? "the host runs without one (see its log) or has ended"
                                         : zor_strerror(st));
        return 3;
    }
    // A host that was killed leaves its area behind with frozen figures.
    if (!ProcessAlive(pid)) {
        std::fprintf(stderr, "zorctl: host %lu is not running (its statistics area is left from a run that "
                             "did not end cleanly)\n", static_cast<unsigned long>(pid));
        return 3;
    }
    return 0;
}

bool StatsReader::Take(Snapshot* out) const {
    out->tickMs = static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                 std::chrono::steady_clock::now().time_since_epoch())
                                                 .count());
    return zor_stats_copy(area_, out->s.get()) == ZOR_OK;
}

std::string Utf8(const std::uint16_t* s, std::size_t cap) {
    std::string out;
    for (std::size_t i = 0; i < cap && s[i]; ++i) {
        std::uint32_t c = s[i];
        // A lone surrogate becomes U+FFFD.
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < cap && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF)
            c = 0x10000 + ((c - 0xD800) << 10) + (s[++i] - 0xDC00);
        else if (c >= 0xD800 && c <= 0xDFFF)
            c = 0xFFFD;
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | c >> 6);
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | c >> 12);
            out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | c >> 18);
            out += static_cast<char>(0x80 | (c >> 12 & 0x3F));
            out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::string Duration(double ms, int width) {
    char buf[32];
    if (ms <= 0) std::snprintf(buf, sizeof buf, "-");
    else if (ms < 0.001) std::snprintf(buf, sizeof buf, "%.0f ns", ms * 1e6);
    else if (ms < 1.0) std::snprintf(buf, sizeof buf, "%.1f us", ms * 1e3);
    else if (ms < 1000.0) std::snprintf(buf, sizeof buf, "%.2f ms", ms);
    else std::snprintf(buf, sizeof buf, "%.2f s", ms / 1e3);
    std::string s = buf;
    if (static_cast<int>(s.size()) < width) s.insert(0, width - s.size(), ' ');
    return s;
}

std::string Uptime(std::uint64_t startMs) {
    // Milliseconds since 1970, as the host writes its start time.
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    const auto now = static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count());
    const std::uint64_t s = now > startMs ? (now - startMs) / 1000 : 0;
    char buf[32];
    std::snprintf(buf, sizeof buf, "%llu:%02llu:%02llu", static_cast<unsigned long long>(s / 3600),
                  static_cast<unsigned long long>(s / 60 % 60), static_cast<unsigned long long>(s % 60));
    return buf;
}

std::string Version(const ZorStats& s) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%lu.%lu.%lu", static_cast<unsigned long>(s.version_major),
                  static_cast<unsigned long>(s.version_minor), static_cast<unsigned long>(s.version_patch));
    return buf;
}

}  // namespace zorctl
