/*
 * ZOR flight recorder: the host's record of its last events, kept always
 * and published read-only like the statistics area (zor_stats.h), as the
 * named mapping "Local\ZOR.trace.<host pid>" (Linux: the shared-memory
 * object "/ZOR.trace.<host pid>", mode 0644). The key TRACEEVENTS of the
 * per-installation ZOR.INI sets how many events it keeps (default 4096; 0:
 * no recorder). zor_trace_map() opens it, zor_trace_copy() copies one
 * record out of it; zorctl trace builds on them.
 *
 * Per dispatched event the host records its sequence number, its arrival
 * (the host's clock when the dispatch began), the wake-up lateness where the
 * IRQ driver knows its deadline (ZOR_LATENESS_EXPORT_NAME in zor_module.h),
 * the deferred list's time, and per ISR call the module number, the call's
 * start within the event, its duration and whether it faulted or was
 * aborted. Paused events are not recorded.
 *
 * The ring keeps each call as the host's clock readings themselves (a
 * ZorTraceRingCall: converting them would cost the dispatch more than
 * storing them); zor_trace_copy() hands out starts and durations in
 * nanoseconds. A call ends when the module's code returns: the host's own
 * report of a slow call comes after it and counts as the host's time.
 *
 * Records have variable length (ZOR_TRACE_RECORD_BYTES + 24 bytes per call,
 * at most ZOR_TRACE_MAX_CALLS calls) and lie in a ring of `data_bytes`
 * bytes, never split at its end. `index[n % capacity]` holds the absolute
 * byte position of record n (positions only grow; the record lies at
 * position % data_bytes). The ring holds at least the last `capacity`
 * records of up to ZOR_TRACE_TYPICAL_CALLS calls each.
 *
 * Reading record n, n < `written`: load `written` (acquire), the index
 * entry, then the record word by word (acquire); its `generation` must be
 * n + 1. Then load `claimed` again: the writer claims the bytes of a record
 * before it writes any of them, so when `claimed` > position + data_bytes
 * the record was overwritten while it was read and the copy is not to be
 * used. The host is the only writer; a record is written with plain stores
 * on the dispatch thread.
 */
#ifndef ZOR_TRACE_H
#define ZOR_TRACE_H

#include <stdint.h>

#define ZOR_TRACE_MAGIC 0x4352545Au /* "ZTRC" in memory order */
#define ZOR_TRACE_LAYOUT 1u
#define ZOR_TRACE_NAME_PREFIX "Local\\ZOR.trace." /* + host pid in decimal */
#define ZOR_TRACE_DEFAULT_EVENTS 4096u
#define ZOR_TRACE_MIN_EVENTS 64u
#define ZOR_TRACE_MAX_EVENTS 65536u
#define ZOR_TRACE_MAX_CALLS 99u     /* every ISR the dispatch may call */
#define ZOR_TRACE_TYPICAL_CALLS 16u /* the ring is sized for this many per event */
#define ZOR_TRACE_RECORD_BYTES 40u
#define ZOR_TRACE_LATE_UNKNOWN 0xFFFFFFFFu

/* ZorTraceCall.flags */
#define ZOR_TRACE_CALL_FAULT 1u   /* the call faulted; the host caught it */
#define ZOR_TRACE_CALL_ABORTED 2u /* the call was abandoned by the dispatch watchdog */

/* A call as the ring holds it. */
typedef struct ZorTraceRingCall {
    double start_ms;      /* the host's clock when it began: arrival_ns / 1e6
                             is the same clock at the event's arrival */
    double end_ms;        /* ... and when it ended */
    uint16_t slot;        /* module number */
    uint16_t flags;       /* ZOR_TRACE_CALL_* */
    uint32_t reserved;
} ZorTraceRingCall;

/* A call as zor_trace_copy() hands it out. */
typedef struct ZorTraceCall {
    uint16_t slot;        /* module number */
    uint16_t flags;       /* ZOR_TRACE_CALL_* */
    uint32_t start_ns;    /* start, from the event's arrival */
    uint32_t duration_ns; /* saturates at 0xFFFFFFFF */
    uint32_t reserved;
} ZorTraceCall;

typedef struct ZorTraceRecord {
    uint64_t generation;  /* record number + 1 */
    uint32_t sequence;    /* the driver's sequence number */
    uint16_t calls;       /* ZorTraceCall entries that follow */
    uint16_t reserved;
    uint64_t arrival_ns;  /* host clock when the dispatch began */
    uint32_t late_ns;     /* wake-up lateness, ZOR_TRACE_LATE_UNKNOWN when the
                             driver does not know its deadline */
    uint32_t deferred_ns; /* arrival to the first ISR call: the deferred list
                             (and the host's few stores before it) */
    uint32_t event_ns;    /* arrival to the end of the last call */
    uint32_t reserved2;
    /* ZorTraceRingCall call[calls]; */
} ZorTraceRecord;

typedef struct ZorTrace {
    uint32_t magic;        /* ZOR_TRACE_MAGIC */
    uint32_t layout;       /* ZOR_TRACE_LAYOUT */
    uint32_t size;         /* bytes of the mapping as the host built it */
    uint32_t host_pid;
    uint32_t capacity;     /* TRACEEVENTS: entries of the index */
    uint32_t data_bytes;   /* bytes of the record ring, a multiple of 8 */
    uint32_t index_offset; /* from the start of this header */
    uint32_t data_offset;
    uint64_t written;      /* records completed */
    uint64_t claimed;      /* ring position the writer may have written up to */
    uint64_t reserved[4];
    /* uint64_t index[capacity]; uint8_t data[data_bytes]; */
} ZorTrace;

/* One record as zor_trace_copy() hands it out. */
typedef struct ZorTraceEvent {
    ZorTraceRecord head;
    ZorTraceCall call[ZOR_TRACE_MAX_CALLS];
} ZorTraceEvent;

#endif /* ZOR_TRACE_H */
