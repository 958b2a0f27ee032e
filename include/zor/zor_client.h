/*
 * ZOR client library: drive a running ZOR host from another process.
 *
 * Instead of hand-built WM_COPYDATA payloads, mapped handles, hand-written
 * deferred-list entries and hand-framed pipe requests, a client calls:
 *
 *     ZorConnection* c;
 *     if (zor_connect(&c, 2000) != ZOR_OK) ...        // find a running host
 *     uint32_t mod; ZorView shm;
 *     zor_register_module(c, "latency_isr.dll", 4096, &mod, &shm); // .so on Linux
 *     zor_exec_isr_func(c, mod, 1, NULL, 0, 1000, &result);   // waited
 *     zor_unregister_module(c, mod);
 *     zor_unmap(&shm);
 *     zor_disconnect(c);
 *
 * Every function returns a ZorStatus (0 = ZOR_OK, negative = failure) and
 * never blocks longer than the connection's timeout (or the wait the caller
 * passes): a hung or vanished host gives ZOR_E_TIMEOUT / ZOR_E_HOST_GONE,
 * never a hang. zor_strerror() turns a status into a sentence.
 *
 * Threads: one ZorConnection may be used from several threads at once. Pipe
 * requests are serialised per connection (one request in flight at a time);
 * commands and ExecISRFunc calls run concurrently (on Linux the commands of
 * one connection take turns on its socket). zor_disconnect() must not race
 * with other calls on the same connection.
 *
 * Windows and Linux: the API is the same on both. On Windows a host is found
 * by its window and commands are WM_COPYDATA messages. On Linux a host is
 * the socket "zor-<pid>.sock" in the runtime folder ($ZOR_RUNTIME_DIR, else
 * $XDG_RUNTIME_DIR/zor, else /run/zor for root, else /tmp/zor-<uid>) whose
 * process still runs; each connection holds one socket to it, and a command
 * is one datagram with its answer. Where this header says handle, Linux has
 * a file descriptor (close-on-exec), owned by the caller as the handle is
 * on Windows. A command that times out on Linux drops the socket (a late
 * answer must not be taken for the next command's); the next command
 * connects anew. One command carries at most 65536 payload bytes on Linux,
 * so zor_module_call() takes bodies of up to 65524 bytes there (the pipe
 * takes ZOR_CLIENT_MAX_BODY everywhere). On Linux a pipe write to a host
 * that has gone gives ZOR_E_HOST_GONE or ZOR_E_PIPE, never SIGPIPE.
 *
 * The system area: a process that maps the system shared area (command 3;
 * zor_system_area(), zor_exec_isr_func()) is recorded by the host as a client
 * process, and the host ends by itself a few seconds after the last such
 * process has exited. Tools that only ask questions therefore avoid it.
 *
 * The statistics area: every host publishes its live figures (zor_stats.h)
 * in a named mapping, "Local\ZOR.stats.<host pid>", that any process of the
 * session may open for reading (OpenFileMappingW with FILE_MAP_READ) and no
 * other process may write. On Linux it is the shared-memory object
 * "/ZOR.stats.<host pid>" (/dev/shm), mode 0644, owned by the host. Reading it is not command 3: the host records
 * nothing and its automatic shut-down is not affected. zor_stats_map()
 * opens it; zor_stats_copy() takes a consistent copy.
 *
 * Names are UTF-8 here and UTF-16 on the wire; a module file name is at most
 * 19 UTF-16 units (the host's limit) and is looked up by the host's own
 * module search (its executable directory first).
 *
 * Link the static library `zorclient` or the DLL `zorclient.dll` (import
 * library libzorclient.dll.a); on Linux libzorclient.so, or libzorclient.a
 * (holds all of ours; a C program links it with -lstdc++).
 */
#ifndef ZOR_CLIENT_H
#define ZOR_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#include "zor/zor_module.h"
#include "zor/zor_stats.h"
#include "zor/zor_trace.h"

#if defined(_WIN32) && defined(ZORCLIENT_BUILD_DLL)
#define ZOR_CLIENT_API ZOR_EXTERN_C __declspec(dllexport)
#else
#define ZOR_CLIENT_API ZOR_EXTERN_C
#endif

/* Results of every call. */
typedef enum ZorStatus {
    ZOR_OK = 0,
    ZOR_E_NO_HOST = -1,        /* no host running (no window "Usermode ISR", no live socket) */
    ZOR_E_TIMEOUT = -2,        /* the host did not answer within the timeout */
    ZOR_E_HOST_GONE = -3,      /* the host ended during or before the call */
    ZOR_E_INVALID_ARG = -4,    /* null pointer, empty name, bad number */
    ZOR_E_TOO_LARGE = -5,      /* data does not fit the channel it travels on */
    ZOR_E_REFUSED = -6,        /* the host answered with its failure value */
    ZOR_E_NOT_REGISTERED = -7, /* the module number names no registered module */
    ZOR_E_SYSTEM = -8,         /* an operating-system call failed in the client */
    ZOR_E_QUEUE_FULL = -9,     /* the deferred list has no room (or stays locked) */
    ZOR_E_NOT_CONNECTED = -10, /* no pipe open on this connection */
    ZOR_E_PIPE = -11,          /* the pipe broke or lost step; reopen it */
    ZOR_E_NAME_TOO_LONG = -12, /* module name over 19 UTF-16 units or bad UTF-8 */
    ZOR_E_NO_SLOT = -13,       /* every async result slot is taken */
    ZOR_E_LAYOUT = -14,        /* the statistics area has another layout */
    ZOR_E_UNTRUSTED = -15,     /* Linux: what answered is not the host's own (another user's
                                  socket or statistics object): see zor_untrusted_peer() */
    ZOR_E_OVERWRITTEN = -16    /* the flight recorder's record is gone or was
                                  overwritten while it was read */
} ZorStatus;

/* A sentence for a status (English, static storage, never null). */
ZOR_CLIENT_API const char* zor_strerror(int status);

/* Default time a command may take before ZOR_E_TIMEOUT. */
#define ZOR_CLIENT_DEFAULT_TIMEOUT_MS 5000u
/* Size of the system area this library asks for when it creates it. */
#define ZOR_CLIENT_DEFAULT_AREA_SIZE 65536u
/* Largest request body on the pipe and (Windows) through zor_module_call(). */
#define ZOR_CLIENT_MAX_BODY (ZOR_PIPE_BUFFER_SIZE - 12u)

typedef struct ZorConnection ZorConnection;

/* A mapped shared-memory view owned by the caller. */
typedef struct ZorView {
    void* base;       /* first byte, null when none */
    uint32_t size;    /* bytes usable */
    uint64_t handle;  /* mapping handle in this process (Linux: descriptor, 0 = none) */
} ZorView;

/* -------------------------------------------------------------- connection */

/* Finds a running host (Linux: the newest one). `timeout_ms` bounds every
 * later command (0 = ZOR_CLIENT_DEFAULT_TIMEOUT_MS). ZOR_E_NO_HOST when
 * none runs.
 * Linux: before anything is sent the library checks whom it reached: the
 * socket's folder must be writable by its owner only, the process at the
 * other end (SO_PEERCRED) must run as that owner, and the owner must be
 * this process's user, root or a system account (uid below 1000).
 * Otherwise the host is skipped, and ZOR_E_UNTRUSTED when no other
 * answers. */
ZOR_CLIENT_API int zor_connect(ZorConnection** out, uint32_t timeout_ms);
/* The same, for the host of process `host_pid` (several hosts in one
 * session, tests). */
ZOR_CLIENT_API int zor_connect_pid(ZorConnection** out, uint32_t host_pid,
                                   uint32_t timeout_ms);
/* Closes the pipe (command 9 + 12 when opened), unmaps the system area and
 * frees the connection. Views returned to the caller stay mapped. */
ZOR_CLIENT_API void zor_disconnect(ZorConnection* c);
/* Process ids of every running host (several hosts may run in one
 * session); *count gets the total, of which at most `cap` are stored. */
ZOR_CLIENT_API int zor_list_hosts(uint32_t* pids, uint32_t cap, uint32_t* count);
ZOR_CLIENT_API int zor_set_timeout(ZorConnection* c, uint32_t timeout_ms);
/* 1 while the host process runs, 0 otherwise. */
ZOR_CLIENT_API int zor_host_alive(ZorConnection* c);
ZOR_CLIENT_API uint32_t zor_host_pid(ZorConnection* c);

/* ---------------------------------------------------------------- modules */

/* Command 1 (+13 to learn the number): loads and registers an ISR module.
 * With shm_size > 0 the module gets that much private shared memory, mapped
 * here into *shm (may be null: then it is not mapped). A module of the same
 * name is replaced by the host. ZOR_E_REFUSED when the host could not load
 * it (its log says why). */
ZOR_CLIENT_API int zor_register_module(ZorConnection* c, const char* name,
                                       uint32_t shm_size, uint32_t* module,
                                       ZorView* shm);
/* Command 2. The host answers nothing useful; ZOR_OK once delivered. */
ZOR_CLIENT_API int zor_unregister_module(ZorConnection* c, uint32_t module);
/* Command 13: *module = number of the registered module with this file
 * name (case-insensitive); ZOR_E_NOT_REGISTERED when none. */
ZOR_CLIENT_API int zor_find_module(ZorConnection* c, const char* name,
                                   uint32_t* module);
/* Command 14: bytes of private shared memory the module was registered with
 * (the host also answers for a slot that was released since). */
ZOR_CLIENT_API int zor_module_info(ZorConnection* c, uint32_t module,
                                   uint32_t* shared_size);
/* Command 15: maps a registered module's private shared memory. `size` is
 * the number of bytes to map, 0 = as registered (asks command 14). */
ZOR_CLIENT_API int zor_module_memory(ZorConnection* c, uint32_t module,
                                     uint32_t size, ZorView* out);
/* Unmaps a view and closes its handle; the view is zeroed. */
ZOR_CLIENT_API void zor_unmap(ZorView* view);

/* ------------------------------------------------------------ system area */

/* Command 3: maps the system shared area (created with `size` bytes when it
 * does not exist yet, 0 = ZOR_CLIENT_DEFAULT_AREA_SIZE) and keeps it for the
 * connection's life. *area points into it. Only the sequence word, the run
 * counter and capacity are meant for reading; the rest belongs to
 * zor_exec_isr_func(). */
ZOR_CLIENT_API int zor_system_area(ZorConnection* c, uint32_t size,
                                   const ZorSystemSharedArea** area);
/* Sequence number of the latest event and the deferred-list run counter
 * (maps the area on first use). */
ZOR_CLIENT_API int zor_read_counters(ZorConnection* c, uint32_t* sequence,
                                     uint32_t* run_counter);

/* After ZOR_E_UNTRUSTED on this thread: the process that answered and its
 * user, or the owner of a refused statistics object (pid 0). Windows: 0, 0. */
ZOR_CLIENT_API void zor_untrusted_peer(uint32_t* pid, uint32_t* uid);

/* ------------------------------------------------------- statistics area */

/* Maps the statistics area of host `host_pid` for reading into *view;
 * *stats points at it. ZOR_E_NO_HOST when there is none (no such host, or
 * one running without the area). ZOR_E_UNTRUSTED (Linux) when the object's
 * owner is not the user the host runs as: anyone may make one under the
 * host's name. ZOR_E_LAYOUT when its magic, layout or
 * size are not this header's, or it claims more bytes than are mapped:
 * then only magic, layout and size may be read, and the view is still
 * mapped (zor_unmap it). Needs no connection. */
ZOR_CLIENT_API int zor_stats_map(uint32_t host_pid, const ZorStats** stats,
                                 ZorView* view);
/* Copies the area into *out, each guarded record (event figures, every
 * slot, the texts) taken whole under its sequence word. ZOR_E_TIMEOUT when
 * a record kept changing for a second (the host writes each within
 * microseconds; the copy yields between tries). */
ZOR_CLIENT_API int zor_stats_copy(const ZorStats* stats, ZorStats* out);

/* ------------------------------------------------------- flight recorder */

/* Maps the flight recorder of host `host_pid` (zor_trace.h) for reading,
 * like zor_stats_map(). ZOR_E_NO_HOST when there is none (no such host, or
 * one running without it); ZOR_E_LAYOUT when its magic, layout or bounds are
 * not this header's or reach past the mapping (the view is still mapped). */
ZOR_CLIENT_API int zor_trace_map(uint32_t host_pid, const ZorTrace** trace,
                                 ZorView* view);
/* Copies record `number` (0 for the first the host wrote) into *out.
 * ZOR_E_INVALID_ARG when it is not written yet (number >= written);
 * ZOR_E_OVERWRITTEN when the ring no longer holds it or it was overwritten
 * during the copy: a torn record is never handed out. ZOR_E_LAYOUT when the
 * header or the record do not lie within `view`. Nothing is written to the
 * mapping. */
ZOR_CLIENT_API int zor_trace_copy(const ZorTrace* trace, const ZorView* view,
                                  uint64_t number, ZorTraceEvent* out);

/* ----------------------------------------------------------- ExecISRFunc */

/* Queues func(data) for module `module`'s ExecISRFunc, run on the host's
 * dispatch thread at its next event. wait_ms = 0: returns once queued
 * (*result = 1). wait_ms > 0: waits up to wait_ms for the module's answer
 * in *result: it spins for 50 us, then sleeps until the host's next run
 * of the list wakes it (Linux; Windows: 1 ms naps), so a waiting thread
 * costs no processor while the answer is an event away. On a loaded
 * machine, give the waiting thread a real-time priority to get its answer
 * within the event period. The entry carries this process id as the call
 * context. */
ZOR_CLIENT_API int zor_exec_isr_func(ZorConnection* c, uint32_t module,
                                     uint32_t func, const void* data,
                                     uint32_t size, uint32_t wait_ms,
                                     uint32_t* result);

/* ------------------------------------------------- requests to a module */

/* Command 5: hands body[0..size) to the module's ExecRemoteFunc on the
 * host's window thread (Linux: its command thread); *result gets its answer. caller_tag is the call's
 * context (0 = none). ZOR_E_NOT_REGISTERED when the host answers
 * 0xFFFFFFFF, its "no such module" value: modules should not use it. */
ZOR_CLIENT_API int zor_module_call(ZorConnection* c, uint32_t module,
                                   uint32_t caller_tag, const void* body,
                                   uint32_t size, uint32_t* result);

/* Registers this process as a client (command 11), creates the two pipes
 * and hands their host ends over (command 8; Linux: as descriptors). The host serves the pipe on
 * its own thread. ZOR_E_REFUSED when the host's client table is full. */
ZOR_CLIENT_API int zor_pipe_open(ZorConnection* c);
/* One request over the pipe, answered within the connection's timeout.
 * Same meaning as zor_module_call(). After ZOR_E_TIMEOUT the pipe is out of
 * step and later calls give ZOR_E_PIPE until it is reopened. */
ZOR_CLIENT_API int zor_pipe_call(ZorConnection* c, uint32_t module,
                                 uint32_t caller_tag, const void* body,
                                 uint32_t size, uint32_t* result);
/* Stops the pipe (command 9), unregisters the client (command 12). */
ZOR_CLIENT_API int zor_pipe_close(ZorConnection* c);

/* ------------------------------------------------------------- the host */

/* Lets module `module` be called again after the watchdog (or SERV_BlockISR)
 * blocked it: command 5 addressed to the host (ZorHostRequest).
 * ZOR_E_NOT_REGISTERED when no such module is registered. */
ZOR_CLIENT_API int zor_unblock_module(ZorConnection* c, uint32_t module);
/* Command 6: the IRQ driver's query answer (1000 without a driver). */
ZOR_CLIENT_API int zor_irq_query(ZorConnection* c, uint32_t* value);
/* Command 7: forwards `value` to the IRQ driver; its answer in *answer. */
ZOR_CLIENT_API int zor_irq_control(ZorConnection* c, uint32_t value,
                                   uint32_t* answer);
/* Command 4: ends the host: it stops the client pipes, then unregisters
   every ISR module (Detach, Shutdown) and the IRQ driver, and unloads them. */
ZOR_CLIENT_API int zor_quit(ZorConnection* c);
/* Commands 11 and 12 on their own (zor_pipe_open/close use them). */
ZOR_CLIENT_API int zor_client_add(ZorConnection* c, uint32_t* index);
ZOR_CLIENT_API int zor_client_remove(ZorConnection* c);

/* Any command with a raw payload, for tools; *result is the host's answer. */
ZOR_CLIENT_API int zor_send_command(ZorConnection* c, uint32_t command,
                                    const void* payload, uint32_t size,
                                    uint32_t* result);

#endif /* ZOR_CLIENT_H */
