/*
 * ZOR statistics area: live figures of a running host that any process may
 * read without becoming a client.
 *
 * The host creates the area at start-up as a named mapping, read-only for
 * everybody else (Windows: "Local\ZOR.stats.<host pid>", opened with
 * FILE_MAP_READ; see zor_stats_map() in zor_client.h). Reading it records
 * nothing in the host: it does not count as a client and has no effect on
 * the host ending by itself. When an object of that name already exists at
 * start-up the host refuses to use it, logs why and runs without the area.
 *
 * Check `magic`, `layout` and `size` before reading anything else, and read
 * no further than both `size` and the bytes really mapped.
 *
 * Consistency: the host is the only writer. The event figures and each slot
 * are guarded by a sequence word: odd while the host writes, even when
 * done. Copy the record, then read the word again; when it is odd or
 * changed, copy again. Counters only grow: rates are the difference of two
 * copies divided by the time between them. The header's texts (`info`) are
 * guarded the same way by `info_seq`.
 *
 * Histograms count durations in log-spaced buckets, ZOR_STATS_SUB per power
 * of two (each bucket's upper bound is 1/8 octave, about 9 %, above its
 * lower bound, so the middle of a bucket is within 5 % of any value in it):
 *   bucket 0          below 16 ns
 *   bucket i >= 1     octave o = 4 + (i - 1) / 8, step s = (i - 1) % 8:
 *                     from (8 + s) << (o - 3) ns up to the next bucket
 *   the last bucket   also holds everything longer (it starts at about 32 s)
 * zor_stats_bucket_low_ns() gives a bucket's lower bound.
 */
#ifndef ZOR_STATS_H
#define ZOR_STATS_H

#include <stdint.h>

#define ZOR_STATS_MAGIC 0x5354535Au /* "ZSTS" in memory order */
#define ZOR_STATS_LAYOUT 2u
#define ZOR_STATS_NAME_PREFIX "Local\\ZOR.stats." /* + host pid in decimal */
#define ZOR_STATS_SLOTS 100u
#define ZOR_STATS_SUB 8u
#define ZOR_STATS_BUCKETS 249u
#define ZOR_STATS_SLOW_MS 2.0 /* a call above this counts as slow */

typedef struct ZorStatsHistogram {
    uint64_t count[ZOR_STATS_BUCKETS];
} ZorStatsHistogram;

/* Texts of the header, written at start-up and when the IRQ driver is
 * loaded (UTF-16, zero-terminated). */
typedef struct ZorStatsInfo {
    uint16_t log_file[260];   /* path of the host's log file; empty: none */
    uint16_t irq_driver[20];  /* name of the loaded IRQ driver; empty: none */
    uint32_t irq_priority;    /* priority stage the driver thread was last raised
                                 to, 0..2; 0xFFFFFFFF: none (no driver, or the
                                 system refused every stage) */
    uint32_t reserved;
} ZorStatsInfo;

/* Everything per event. Written on the dispatch thread. */
typedef struct ZorStatsEvents {
    uint32_t seq;               /* odd while written */
    uint32_t sequence;          /* the driver's latest sequence number */
    uint64_t events;            /* events dispatched */
    uint64_t paused_events;     /* events that arrived while paused */
    uint64_t sequence_gaps;     /* dispatched events whose sequence number was
                                   not the previous one + 1 */
    double interval_ms;         /* the last wake-up interval: the dialog's
                                   rate is 1000 / interval_ms (Hz) */
    double event_ms;            /* the last dispatched event's time: the
                                   dialog's load is event_ms / interval_ms
                                   * 100 (%) */
    uint64_t log_dropped;       /* log lines dropped (queue full), brought
                                   up to date every 64 events */
    uint64_t tdl_entries_run;   /* deferred entries run */
    uint64_t tdl_skipped;       /* deferred-list passes skipped: SyncTDL held */
    ZorStatsHistogram wakeup;   /* interval between events */
    ZorStatsHistogram event;    /* whole event: arrival to end of accounting */
} ZorStatsEvents;

/* One module slot; number 0 = empty. Written on the dispatch thread, except
 * `blocked`, a flag of its own that follows SERV_BlockISR at once, and
 * `stuck`, set by the watchdog. */
typedef struct ZorStatsSlot {
    uint32_t seq;               /* odd while written */
    uint32_t number;            /* module number (slot index) or 0 */
    uint32_t kind;              /* 1 IRQ driver, 2 ISR module */
    uint32_t priority;          /* dispatch order key, lower first */
    uint32_t blocked;           /* 1 while SERV_BlockISR (or the watchdog) holds it off */
    uint32_t stuck;             /* 1 while a call of it overran the watchdog's
                                   budget and could not be aborted */
    uint64_t calls;             /* Interrupt calls completed */
    uint64_t faults;            /* faults caught in Interrupt calls */
    uint64_t slow_calls;        /* Interrupt calls above ZOR_STATS_SLOW_MS */
    uint64_t aborted;           /* calls (Interrupt, ExecISRFunc) the watchdog
                                   aborted */
    uint16_t name[20];          /* module name */
    uint16_t fault_module[40];  /* file in which the last fault happened */
    ZorStatsHistogram call;     /* Interrupt call time */
} ZorStatsSlot;

typedef struct ZorStats {
    uint32_t magic;             /* ZOR_STATS_MAGIC */
    uint32_t layout;            /* ZOR_STATS_LAYOUT */
    uint32_t size;              /* sizeof(ZorStats) as the host built it */
    uint32_t host_pid;
    uint32_t version_major, version_minor, version_patch;
    uint32_t info_seq;          /* guards `info`, odd while written */
    uint64_t start_ms;          /* wall clock at start-up, ms since 1970 UTC */
    uint32_t generation;        /* bumped when the slot table is republished
                                   (registration, unregistration, priority) */
    uint32_t reserved;
    uint64_t exec_calls;        /* ExecISRFunc calls completed, any thread */
    ZorStatsInfo info;
    ZorStatsEvents ev;
    ZorStatsSlot slots[ZOR_STATS_SLOTS]; /* indexed by module number */
} ZorStats;

/* Lower bound of bucket `i` in nanoseconds. */
static inline uint64_t zor_stats_bucket_low_ns(uint32_t i) {
    if (i == 0) return 0;
    uint32_t o = 4 + (i - 1) / ZOR_STATS_SUB, s = (i - 1) % ZOR_STATS_SUB;
    return (uint64_t)(ZOR_STATS_SUB + s) << (o - 3);
}

/* Bucket of a duration in nanoseconds. */
static inline uint32_t zor_stats_bucket_of_ns(uint64_t ns) {
    if (ns < 16) return 0;
    uint32_t o = 4; /* the highest set bit; a loop, so that every C compiler takes it */
    while (o < 63u && (ns >> (o + 1)) != 0) ++o;
    uint32_t i = (o - 4) * ZOR_STATS_SUB + (uint32_t)((ns >> (o - 3)) & 7u) + 1;
    return i < ZOR_STATS_BUCKETS ? i : ZOR_STATS_BUCKETS - 1;
}

#endif /* ZOR_STATS_H */
