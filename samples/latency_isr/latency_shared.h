/*
 * Shared between the latency_isr module and its clients: the layout of the
 * module's private shared memory and its ExecISRFunc function codes.
 *
 * The module writes this block on the host's dispatch thread; clients map
 * it (zor_register_module / zor_module_memory) and only read it. Counters
 * are 32-bit words written with plain stores (whole words are never torn on
 * x86-64), so a reader sees each word either before or after an event. A
 * reader that wants a consistent histogram compares `generation` before and
 * after copying it.
 */
#ifndef LATENCY_SHARED_H
#define LATENCY_SHARED_H

#include <stdint.h>

#define LATENCY_MAGIC 0x4C41544Eu /* "LATN" */
#define LATENCY_VERSION 1u

/* Interval histogram: 10 microseconds per bucket up to 20 ms; longer
 * intervals land in the last bucket (and in max_interval_ns). */
#define LATENCY_BUCKET_NS 10000u
#define LATENCY_BUCKETS 2000u

/* ExecISRFunc function codes understood by the module. */
#define LATENCY_FN_RESET 1u     /* clear the histogram; answers the reset count */
#define LATENCY_FN_EVENTS 2u    /* answers the number of intervals recorded */

typedef struct LatencyShared {
    uint32_t magic;            /* LATENCY_MAGIC once the module started */
    uint32_t version;          /* LATENCY_VERSION */
    uint32_t generation;       /* odd while the module updates the block */
    uint32_t resets;           /* how many times LATENCY_FN_RESET ran */
    uint32_t events;           /* Interrupt calls since the last reset */
    uint32_t intervals;        /* intervals recorded (events - 1, or so) */
    uint32_t sequence_gaps;    /* events whose sequence number skipped ahead */
    uint32_t last_sequence;    /* sequence number of the latest event */
    uint64_t sum_interval_ns;  /* sum of all recorded intervals */
    uint64_t min_interval_ns;
    uint64_t max_interval_ns;
    uint32_t load_permille;    /* dispatch thread's CPU use, per mille, last second */
    uint32_t reserved;
    uint32_t buckets[LATENCY_BUCKETS];
} LatencyShared;

#endif /* LATENCY_SHARED_H */
