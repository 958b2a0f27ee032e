/*
 * ZOR module contract: what an ISR module or an IRQ driver exports, the
 * function codes the host sends, the host services a module may call, and
 * the layouts shared with client processes.
 *
 * Plain C, usable from C, C++ and any Windows x64 compiler's DLLs. All
 * integers are little-endian; all structures are packed as declared (every
 * field is naturally aligned, so no packing pragma is needed).
 *
 * An ISR module exports   uint32_t ISR_GetSet(uint32_t code, uintptr_t arg)
 * an IRQ driver exports   uint32_t IRQ_GetSet(uint32_t code, uintptr_t arg)
 * Both are declared with ZOR_EXPORT, e.g.
 *
 *     ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t arg) { ... }
 */
#ifndef ZOR_MODULE_H
#define ZOR_MODULE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define ZOR_EXTERN_C extern "C"
#else
#define ZOR_EXTERN_C
#endif

#if defined(_WIN32)
#define ZOR_EXPORT ZOR_EXTERN_C __declspec(dllexport)
#else
#define ZOR_EXPORT ZOR_EXTERN_C __attribute__((visibility("default")))
#endif

/* ------------------------------------------------------------------ entries */

/* The one export of every module: entry(code, argument) -> result. Numbers
 * are passed zero-extended in `arg`; addresses as they are. */
typedef uint32_t (*ZorGetSetProc)(uint32_t code, uintptr_t arg);

/* The host's interrupt entry, handed to an IRQ driver with GS_SET_INTERRUPT.
 * Called once per event on the driver's interrupt thread with the event's
 * sequence number; returns 0 when the ISRs ran, 1 when dispatch was paused. */
typedef uint32_t (*ZorInterruptProc)(uint32_t sequence);

/* The host's service entry, handed to every module with SetServiceProc. */
typedef int64_t (*ZorServiceProc)(uint32_t code, uintptr_t a1, uintptr_t a2,
                                  uintptr_t a3, uintptr_t a4, uintptr_t a5,
                                  uintptr_t a6);

/* A custom service installed with SERV_InstallService. */
typedef uint32_t (*ZorCustomService)(uint32_t code, uintptr_t a1, uintptr_t a2,
                                     uintptr_t a3, uintptr_t a4, uintptr_t a5,
                                     uintptr_t a6);

/* The host's log: zor.exe exports ZorLogProc under ZOR_LOG_EXPORT_NAME, so a
 * module in the host process may write lines into the host's log:
 *   ZorLogProc log = (ZorLogProc)GetProcAddress(GetModuleHandleW(NULL),
 *                                               ZOR_LOG_EXPORT_NAME);
 * (on Linux the executable `zor` exports it too:
 *   ZorLogProc log = (ZorLogProc)dlsym(RTLD_DEFAULT, ZOR_LOG_EXPORT_NAME);)
 * `text` is a complete UTF-16 line (line end included), written as is with
 * the given level and mask (see docs/configuration.md, "Logging"). Any thread;
 * it never blocks; a line written while the host starts or ends is dropped. */
typedef void (*ZorLogProc)(uint32_t level, uint32_t mask, const uint16_t* text);
#define ZOR_LOG_EXPORT_NAME "ZOR_Log"

#define ZOR_ISR_EXPORT_NAME "ISR_GetSet"
#define ZOR_IRQ_EXPORT_NAME "IRQ_GetSet"

/* Wake-up lateness: an IRQ driver that knows when each event was due may
 * also export
 *     uint32_t IRQ_Lateness(void)
 * answering, for the event being delivered, the nanoseconds from its
 * deadline to the moment the driver's thread woke for it (saturating at
 * 0xFFFFFFFE). The host looks it up when it loads the driver and calls it on
 * the interrupt thread at the start of every event, inside the call of the
 * interrupt entry; it must answer at once (no lock, no system call). The
 * figure goes to the flight recorder (zor_trace.h). A driver without it
 * has its lateness recorded as unknown. timer.irq exports it. */
typedef uint32_t (*ZorLatenessProc)(void);
#define ZOR_LATENESS_EXPORT_NAME "IRQ_Lateness"

/* ------------------------------------------------------------ function codes
 * Sent by the host through the module's GetSet entry.                        */
enum ZorFunctionCode {
    ZOR_FN_INITIALIZE = 1,       /* arg: view of the module's shared memory (ISR) or 0
                                    result: 0 started, 2 start pending (retried
                                    after later registrations), other: error (IRQ) */
    ZOR_FN_SHUTDOWN = 2,         /* arg 0 */
    ZOR_FN_SET_SERVICE_PROC = 3, /* arg: ZorServiceProc */
    ZOR_FN_EDIT_PROPERTIES = 4,  /* arg 0 (IRQ driver only) */
    ZOR_FN_EXEC_ISR_FUNC = 5,    /* arg: ZorExecIsrPacket*; result returned to a waiting caller */
    ZOR_FN_EXEC_REMOTE_FUNC = 6, /* arg: body of a ZorClientRequest; result to the client */
    ZOR_FN_SET_ISR_HANDLE = 7,   /* arg: the module's own module number */
    ZOR_FN_ATTACH = 8,           /* arg: module number of an ISR just registered */
    ZOR_FN_DETACH = 9,           /* arg: module number of an ISR being unregistered */
    ZOR_FN_INTERRUPT = 20,       /* arg: the event's sequence number (ISR modules) */
    /* IRQ driver only */
    ZOR_GS_SET_INTERRUPT = 21,   /* arg: ZorInterruptProc, 0 to withdraw it */
    ZOR_GS_GET_THREAD = 22,      /* arg: ZorServiceProc; result: interrupt thread handle (32 bits;
                                    Linux: its kernel thread id) */
    ZOR_GS_IRQ_QUERY = 23,       /* arg 0; result forwarded to clients (command 6) */
    ZOR_GS_IRQ_CONTROL = 24      /* arg: client's 32-bit value (command 7) */
};

/* Answers to ZOR_FN_INITIALIZE */
#define ZOR_INIT_OK 0u
#define ZOR_INIT_PENDING 2u

/* ------------------------------------------------------------ bundled drivers
 * Three IRQ drivers ship beside zor.exe. What their GS_IRQ_QUERY and
 * GS_IRQ_CONTROL values mean (clients reach them with commands 6 and 7):
 *
 * timer.irq: one event per period from its own thread, on absolute
 *   deadlines (no drift; Linux: clock_nanosleep on CLOCK_MONOTONIC). The sequence number counts periods: a late wake-up
 *   delivers one event and skips the numbers of the periods it missed, it
 *   never delivers a burst. It waits on a high-resolution waitable timer, or
 *   with a fine-grained thread sleep where that wakes closer to the deadline
 *   (measured when it starts; under Wine timers are coarse). On Linux it
 *   exports uint64_t Timer_Deadline(): the CLOCK_MONOTONIC deadline (ns) the
 *   thread waited for before the event being delivered, for ISRs that
 *   measure their wake-up latency. On every platform it exports
 *   IRQ_Lateness() (see ZOR_LATENESS_EXPORT_NAME).
 *     GS_IRQ_QUERY          the period in microseconds; 0 while paused
 *     GS_IRQ_CONTROL(us)    sets the period, answers the previous one;
 *                           0 pauses; below ZOR_TIMER_FLOOR_US (1000 us on
 *                           systems without high-resolution timers) or above
 *                           ZOR_TIMER_CEILING_US it answers ZOR_TIMER_REFUSED
 *                           and keeps the period. The sequence goes on without
 *                           a gap across changes and pauses.
 *     Initialize            0; 1 no timer; 3 no thread
 *
 * trigger.irq (tests, benchmarks): events on demand, back to back, from its
 *   own thread; sequence numbers start at 1.
 *     GS_IRQ_QUERY          events delivered so far
 *     GS_IRQ_CONTROL(v)     answers the number the next event will carry:
 *       1 .. 0x7FFFFFFF     queue v events (answers at once)
 *       ZOR_TRIGGER_STOP    leave free-running, drop queued events
 *       ZOR_TRIGGER_FREE_RUN  events as fast as the host takes them
 *       ZOR_TRIGGER_SKIP|k  skip k numbers before the next event (a gap)
 *   In-process extras: uint32_t Trigger_Fire(n), Trigger_WaitIdle(timeout_ms)
 *   (1 when nothing is queued, delivered or free-running), Trigger_ThreadId().
 *
 * event.irq: one event per signal of a kernel driver, configured in
 *   section [EVENTIRQ] of the ZOR.INI beside zor.exe (docs/modules.md,
 *   "Connecting your kernel driver"). EVENT=<name>: one event per wake-up on
 *   that named event (auto-reset, created when missing), the sequence counts
 *   up by one; signals set faster than the thread wakes coalesce into one.
 *   DEVICE=<path>: PENDING (1..ZOR_EVENT_MAX_PENDING, default 4) overlapped
 *   reads of SIZE (1..ZOR_EVENT_MAX_SIZE, default 4) bytes kept pending; one
 *   event per completed read, the read is reissued; a read of 4 bytes or more
 *   carries the sequence number in its first u32 (else it counts up by one).
 *   A source that fails (a read fails, the event handle is closed) is logged,
 *   counted, and opened again every second. On Linux only DEVICE=<path>
 *   (or uio:<name>, uio:pci:<domain:bus:dev.fn>): one blocking read of SIZE
 *   bytes at a time (a UIO device answers its interrupt count); after each
 *   event's ISRs the line is unmasked: REENABLE=auto (default; a UIO device
 *   as 1), 1 (a u32 1 written, UIO's irqcontrol; on ENOSYS/EINVAL a PCI
 *   device switches to pci), pci (INTx unmasked in the PCI command
 *   register), 0 (never). A device missing at start is counted and waited
 *   for. EVENT is refused.
 *     GS_IRQ_QUERY          events delivered (low 31 bits, wrapping), with
 *                           ZOR_EVENT_FAILED set once any failure happened
 *     GS_IRQ_CONTROL(v)     ZOR_EVENT_PAUSE / ZOR_EVENT_RESUME: answers the
 *                           previous state (1 delivering, 0 paused); while
 *                           paused signals are taken and dropped.
 *                           ZOR_EVENT_FAILURES: answers the failures counted.
 *                           Other values: ZOR_EVENT_REFUSED.
 *     Initialize            0; 1 configuration refused (logged, naming the
 *                           key); 4 the source does not open (Windows); 3
 *                           no thread
 */
#define ZOR_TIMER_DEFAULT_US 1000u
#define ZOR_TIMER_FLOOR_US 250u
#define ZOR_TIMER_CEILING_US 10000000u
#define ZOR_TIMER_REFUSED 0xFFFFFFFFu
#define ZOR_TRIGGER_STOP 0u
#define ZOR_TRIGGER_FREE_RUN 0xFFFFFFFFu
#define ZOR_TRIGGER_SKIP 0x80000000u
#define ZOR_EVENT_PAUSE 0u
#define ZOR_EVENT_RESUME 1u
#define ZOR_EVENT_FAILURES 2u
#define ZOR_EVENT_REFUSED 0xFFFFFFFFu
#define ZOR_EVENT_FAILED 0x80000000u
#define ZOR_EVENT_MAX_PENDING 63u
#define ZOR_EVENT_MAX_SIZE 65536u

/* ------------------------------------------------------------ service codes
 * ServiceProc(code, a1..a6). "DLL handle" = module number (1..99).           */
enum ZorServiceCode {
    SERV_MemLock = 1,        /* a1 handle, a2 address, a3 length -> 1/0 */
    SERV_MemUnlock = 2,      /* a1 handle, a2 address -> 1/0 */
    SERV_ModuleLock = 3,     /* a1 handle, a2 address inside a module -> 1/0 */
    SERV_ModuleUnlock = 4,   /* a1 handle, a2 address -> 1/0 */
    SERV_GetIRQTime = 5,     /* -> sequence number of the latest event */
    SERV_ExecISRFunc = 6,    /* a1 target, a2 function, a3 data, a4 size, a5 wait -> see ExecISRFunc */
    SERV_InstallService = 7, /* a1 owner, a2 code, a3 ZorCustomService -> 0, or 0xFFFFFFFF when full */
    SERV_SetISRPrio = 8,     /* a1 handle, a2 priority (lower runs first) -> 0, 1 invalid handle */
    SERV_IRQQuery = 9,       /* -> the IRQ driver's GS_IRQ_QUERY answer, 1000 without a driver */
    SERV_IsISRThread = 10,   /* -> 1 on the interrupt dispatch thread */
    SERV_BlockISR = 11,      /* a1 handle, a2 block flag -> 0 */
    SERV_ISRBlocked = 12,    /* a1 handle -> the blocked flag */
    SERV_GetISRName = 13,    /* a1 handle -> const uint16_t* name, "UNKNOWN" when invalid */
    SERV_GetCallContext = 14 /* -> context of the current call (client pid or caller tag) */
};

/* Largest packet ExecISRFunc builds on the dispatch thread (header + data). */
#define ISR_MAX_DIRECT_ARG 1200

/* ------------------------------------------------------------ layouts */

/* The block a module receives with ZOR_FN_EXEC_ISR_FUNC. */
typedef struct ZorExecIsrPacket {
    uint32_t func;  /* function code chosen by the caller */
    uint32_t size;  /* bytes of data that follow */
    uint8_t data[]; /* `size` bytes */
} ZorExecIsrPacket;

/* One queued ExecISRFunc request in the deferred list (24 + size bytes). */
typedef struct ZorTdlEntry {
    uint32_t context;      /* process id of the writer: the call's context */
    uint32_t isr_handle;   /* target module number */
    uint32_t reserved;     /* 0 */
    uint32_t result_index; /* async result slot, 0 = none */
    uint32_t func;         /* first word of the packet handed to the module */
    uint32_t size;         /* argument bytes */
    /* uint8_t data[size]; */
} ZorTdlEntry;

/* A request to a module's ExecRemoteFunc: the body of a pipe frame, or the
 * payload of command 5. */
typedef struct ZorClientRequest {
    uint32_t caller_tag;    /* thread context during the call, 0 = none */
    uint32_t module;        /* module number */
    uint32_t reserved;      /* not read */
    /* uint8_t body[]; handed to the module by address */
} ZorClientRequest;

/* Command 5 addressed to module 0 (no module has that number) is a request
 * to the host itself: its body is a ZorHostRequest. Result: 1 done, 0xFFFFFFFF
 * when `module` names no registered module or the request is unknown. Not
 * taken over pipes. */
#define ZOR_HOST_MODULE 0u
enum ZorHostFunction {
    ZOR_HOST_UNBLOCK = 1 /* calls `module` again: clears a block by the
                            watchdog (or by SERV_BlockISR) */
};
typedef struct ZorHostRequest {
    uint32_t function; /* ZorHostFunction */
    uint32_t module;   /* module number */
} ZorHostRequest;

/* Offsets in the system shared area (command 3). */
#define ZOR_SSA_SEQUENCE 0x0000u      /* u32: latest event's sequence number */
#define ZOR_SSA_RESULT_FLAGS 0x0004u  /* u8[1024]: bit 0 = result slot reserved */
#define ZOR_SSA_RESULTS 0x0404u       /* u32[1024]: result words */
#define ZOR_SSA_SLEEPERS 0x0404u      /* u32: result word 0 (no entry uses it): waiters
                                         gone to sleep on the run counter (Linux futex)
                                         since the last run; the run's wake clears it */
#define ZOR_SSA_RUN_COUNTER 0x1404u   /* u32: advanced after every deferred-list run */
#define ZOR_SSA_CAPACITY 0x1408u      /* u32: bytes of the queue = area size - 0x1418 */
#define ZOR_SSA_SYNC_TDL 0x140Cu      /* u32: queue lock word, 0 free, 1 held */
#define ZOR_SSA_ENTRY_COUNT 0x1410u   /* u32: queued entries */
#define ZOR_SSA_BYTES_USED 0x1414u    /* u32: queue bytes in use */
#define ZOR_SSA_QUEUE 0x1418u         /* queue of ZorTdlEntry records */
#define ZOR_SSA_RESULT_SLOTS 1024u
#define ZOR_SSA_MIN_SIZE ZOR_SSA_QUEUE /* smaller areas are not usable */

typedef struct ZorSystemSharedArea {
    uint32_t sequence;
    uint8_t result_flags[1024];
    uint32_t results[1024];
    uint32_t run_counter;
    uint32_t capacity;
    uint32_t sync_tdl;
    uint32_t entry_count;
    uint32_t bytes_used;
    uint8_t queue[]; /* capacity bytes */
} ZorSystemSharedArea;

/* ------------------------------------------------------------ commands
 * WM_COPYDATA dwData values understood by the host window "Usermode ISR". */
enum ZorCommand {
    ZOR_CMD_ISR_REGISTER = 1,
    ZOR_CMD_ISR_UNREGISTER = 2,
    ZOR_CMD_SYSMEM = 3,
    ZOR_CMD_QUIT = 4,
    ZOR_CMD_MODULE_CALL = 5,
    ZOR_CMD_IRQ_QUERY = 6,
    ZOR_CMD_IRQ_CONTROL = 7,
    ZOR_CMD_PIPE_CONNECT = 8,
    ZOR_CMD_PIPE_DISCONNECT = 9,
    ZOR_CMD_CLIENT_ADD = 11,
    ZOR_CMD_CLIENT_REMOVE = 12,
    ZOR_CMD_FIND_MODULE = 13,
    ZOR_CMD_MODULE_INFO = 14,
    ZOR_CMD_GET_ISR_MEM = 15
};

/* Payload of ZOR_CMD_ISR_REGISTER. */
typedef struct ZorRegisterPayload {
    uint32_t pid;          /* receives the shared-memory handle */
    uint32_t shared_size;  /* bytes of private shared memory, 0 = none */
    uint64_t reserved;     /* not read */
    uint16_t name[20];     /* module file name, at most 19 units + 0 */
} ZorRegisterPayload;

/* Payload of ZOR_CMD_ISR_UNREGISTER and ZOR_CMD_MODULE_INFO. */
typedef struct ZorModulePayload {
    uint64_t reserved;     /* not read */
    uint64_t module;       /* module number */
} ZorModulePayload;

/* Payload of ZOR_CMD_SYSMEM. */
typedef struct ZorSysMemPayload {
    uint32_t pid;
    uint32_t size;         /* at least ZOR_SSA_MIN_SIZE */
} ZorSysMemPayload;

/* Payload of ZOR_CMD_GET_ISR_MEM. */
typedef struct ZorIsrMemPayload {
    uint32_t pid;
    uint32_t reserved;
    uint64_t module;
} ZorIsrMemPayload;

/* Payload of ZOR_CMD_PIPE_CONNECT. */
typedef struct ZorPipePayload {
    uint64_t request_pipe; /* handle value in the client: host reads requests here */
    uint64_t reply_pipe;   /* handle value in the client: host writes answers here */
    uint32_t pid;
} ZorPipePayload;

/* The host window's caption, for FindWindowW(L"#32770", caption). */
#define ZOR_WINDOW_CAPTION "Usermode ISR"

/* Size of the pipe thread's request buffer: a frame's length word must not
 * exceed it and must be at least sizeof(ZorClientRequest). */
#define ZOR_PIPE_BUFFER_SIZE 262144u

/* ------------------------------------------------------------ compile-time checks */
#if defined(__cplusplus)
#define ZOR_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define ZOR_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif
ZOR_STATIC_ASSERT(sizeof(ZorExecIsrPacket) == 8, "packet header");
ZOR_STATIC_ASSERT(sizeof(ZorTdlEntry) == 24, "TDL entry header");
ZOR_STATIC_ASSERT(offsetof(ZorTdlEntry, func) == 16, "TDL entry packet");
ZOR_STATIC_ASSERT(sizeof(ZorClientRequest) == 12, "client request header");
ZOR_STATIC_ASSERT(offsetof(ZorSystemSharedArea, result_flags) == ZOR_SSA_RESULT_FLAGS, "flags");
ZOR_STATIC_ASSERT(offsetof(ZorSystemSharedArea, results) == ZOR_SSA_RESULTS, "results");
ZOR_STATIC_ASSERT(offsetof(ZorSystemSharedArea, run_counter) == ZOR_SSA_RUN_COUNTER, "run counter");
ZOR_STATIC_ASSERT(offsetof(ZorSystemSharedArea, capacity) == ZOR_SSA_CAPACITY, "capacity");
ZOR_STATIC_ASSERT(offsetof(ZorSystemSharedArea, sync_tdl) == ZOR_SSA_SYNC_TDL, "SyncTDL");
ZOR_STATIC_ASSERT(offsetof(ZorSystemSharedArea, entry_count) == ZOR_SSA_ENTRY_COUNT, "count");
ZOR_STATIC_ASSERT(offsetof(ZorSystemSharedArea, bytes_used) == ZOR_SSA_BYTES_USED, "used");
ZOR_STATIC_ASSERT(offsetof(ZorSystemSharedArea, queue) == ZOR_SSA_QUEUE, "queue");
ZOR_STATIC_ASSERT(offsetof(ZorRegisterPayload, name) == 16, "register name");
ZOR_STATIC_ASSERT(offsetof(ZorModulePayload, module) == 8, "module number");
ZOR_STATIC_ASSERT(offsetof(ZorIsrMemPayload, module) == 8, "isr mem module");
ZOR_STATIC_ASSERT(offsetof(ZorPipePayload, pid) == 16, "pipe pid");

#endif /* ZOR_MODULE_H */
