/* uio_pci_isr's shared memory, as the module and its clients see it.
 * Register the module with at least sizeof(UioPciShared) bytes; the module
 * writes, clients read. `calls` is stored last in each Interrupt (release):
 * a reader that sees it change sees that call's other fields. */
#ifndef UIO_PCI_SHARED_H
#define UIO_PCI_SHARED_H

#include <stdint.h>

#define UIO_PCI_MAGIC 0x4F495055u /* "UPIO" */
#define UIO_PCI_VERSION 1u

typedef struct UioPciShared {
    uint32_t magic;         /* UIO_PCI_MAGIC once Initialize has run */
    uint32_t version;       /* UIO_PCI_VERSION */
    uint32_t mapped;        /* 1: the card's BAR0 is mapped; 0: not found */
    uint32_t card_id;       /* BAR0 register 0 at Initialize */
    uint32_t calls;         /* Interrupt calls */
    uint32_t acknowledged;  /* calls that found interrupt status and cleared it */
    uint32_t spurious;      /* calls that found none (a shared line, or nothing mapped) */
    uint32_t gaps;          /* calls whose sequence number skipped */
    uint32_t last_status;   /* the status the latest call acknowledged */
    uint32_t last_sequence; /* the latest call's sequence number */
    uint64_t entry_ns;      /* CLOCK_MONOTONIC at the latest call's entry */
} UioPciShared;

#endif
