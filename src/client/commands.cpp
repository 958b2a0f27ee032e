// The commands of the client API: each builds its payload, sends it with a
// bounded wait and turns the host's answer into a status.
#include <cstring>
#include <new>

#include "client/payloads.h"
#include "client/connection.h"

using namespace zor::client;

namespace {

int Open(ZorConnection** out, std::uint32_t host_pid, bool by_pid, std::uint32_t timeout_ms) {
    if (out == nullptr) return ZOR_E_INVALID_ARG;
    *out = nullptr;
    auto* c = new (std::nothrow) ZorConnection();
    if (c == nullptr) return ZOR_E_SYSTEM;
    c->timeout_ms = timeout_ms ? timeout_ms : ZOR_CLIENT_DEFAULT_TIMEOUT_MS;
    int st = Attach(c, host_pid, by_pid);
    if (st != ZOR_OK) {
        delete c;
        return st;
    }
    *out = c;
    return ZOR_OK;
}

}  // namespace

extern "C" {

int zor_connect(ZorConnection** out, uint32_t timeout_ms) {
    return Open(out, 0, false, timeout_ms);
}

int zor_connect_pid(ZorConnection** out, uint32_t host_pid, uint32_t timeout_ms) {
    if (host_pid == 0) return ZOR_E_INVALID_ARG;
    return Open(out, host_pid, true, timeout_ms);
}

void zor_disconnect(ZorConnection* c) {
    if (c == nullptr) return;
    if (c->request_write || c->client_added) zor_pipe_close(c);
    Unmap(&c->area);
    Detach(c);
    delete[] c->frame;
    delete c;
}

int zor_list_hosts(uint32_t* pids, uint32_t cap, uint32_t* count) {
    if (count == nullptr) return ZOR_E_INVALID_ARG;
    return ListHosts(pids, cap, count);
}

int zor_set_timeout(ZorConnection* c, uint32_t timeout_ms) {
    if (c == nullptr || timeout_ms == 0) return ZOR_E_INVALID_ARG;
    c->timeout_ms = timeout_ms;
    return ZOR_OK;
}

int zor_host_alive(ZorConnection* c) { return c != nullptr && HostAlive(c) ? 1 : 0; }

uint32_t zor_host_pid(ZorConnection* c) { return c ? c->host_pid : 0; }

int zor_send_command(ZorConnection* c, uint32_t command, const void* payload, uint32_t size,
                     uint32_t* result) {
    if (c == nullptr || (size > 0 && payload == nullptr)) return ZOR_E_INVALID_ARG;
    return Send(c, command, payload, size, result);
}

int zor_register_module(ZorConnection* c, const char* name, uint32_t shm_size,
                        uint32_t* module, ZorView* shm) {
    if (shm) std::memset(shm, 0, sizeof *shm);
    if (c == nullptr || module == nullptr) return ZOR_E_INVALID_ARG;
    *module = 0;
    ZorRegisterPayload p;
    int st = build_register(SelfPid(), shm_size, name, &p);
    if (st != ZOR_OK) return st;
    Handle handle = 0;
    // Loading a module runs its start-up code: allow it more than a query.
    std::uint32_t wait = c->timeout_ms < 10000 ? 10000 : c->timeout_ms;
    st = SendForHandle(c, ZOR_CMD_ISR_REGISTER, &p, sizeof p, &handle, wait);
    if (st != ZOR_OK) return st;
    // The answer is only the memory handle; the number comes from a lookup.
    std::uint32_t number = 0;
    st = Send(c, ZOR_CMD_FIND_MODULE, &p, sizeof p, &number);
    ZorView view{};
    if (handle != 0) {
        int mst = MapWhole(handle, shm_size, &view);
        if (mst != ZOR_OK && st == ZOR_OK) st = mst;
    }
    if (st == ZOR_OK && number == 0) st = ZOR_E_REFUSED;
    if (st == ZOR_OK && shm_size != 0 && view.base == nullptr) st = ZOR_E_REFUSED;
    if (st != ZOR_OK) {
        Unmap(&view);
        return st;
    }
    *module = number;
    if (shm) *shm = view;
    else Unmap(&view);
    return ZOR_OK;
}

int zor_unregister_module(ZorConnection* c, uint32_t module) {
    if (c == nullptr) return ZOR_E_INVALID_ARG;
    ZorModulePayload p;
    int st = build_module(module, &p);
    if (st != ZOR_OK) return st;
    // Unloading calls the module's shutdown code; give it time.
    std::uint32_t wait = c->timeout_ms < 10000 ? 10000 : c->timeout_ms;
    return Send(c, ZOR_CMD_ISR_UNREGISTER, &p, sizeof p, nullptr, wait);
}

int zor_find_module(ZorConnection* c, const char* name, uint32_t* module) {
    if (c == nullptr || module == nullptr) return ZOR_E_INVALID_ARG;
    *module = 0;
    ZorRegisterPayload p;
    int st = build_find(name, &p);
    if (st != ZOR_OK) return st;
    st = Send(c, ZOR_CMD_FIND_MODULE, &p, sizeof p, module);
    if (st == ZOR_OK && *module == 0) st = ZOR_E_NOT_REGISTERED;
    return st;
}

int zor_module_info(ZorConnection* c, uint32_t module, uint32_t* shared_size) {
    if (c == nullptr || shared_size == nullptr) return ZOR_E_INVALID_ARG;
    *shared_size = 0;
    ZorModulePayload p;
    int st = build_module(module, &p);
    if (st != ZOR_OK) return st;
    return Send(c, ZOR_CMD_MODULE_INFO, &p, sizeof p, shared_size);
}

int zor_module_memory(ZorConnection* c, uint32_t module, uint32_t size, ZorView* out) {
    if (out) std::memset(out, 0, sizeof *out);
    if (c == nullptr || out == nullptr) return ZOR_E_INVALID_ARG;
    if (size == 0) {
        int st = zor_module_info(c, module, &size);
        if (st != ZOR_OK) return st;
        if (size == 0) return ZOR_E_REFUSED;  // registered without memory, or unknown
    }
    ZorIsrMemPayload p;
    int st = build_isr_mem(SelfPid(), module, &p);
    if (st != ZOR_OK) return st;
    Handle handle = 0;
    st = SendForHandle(c, ZOR_CMD_GET_ISR_MEM, &p, sizeof p, &handle);
    if (st != ZOR_OK) return st;
    return MapWhole(handle, size, out);
}

void zor_unmap(ZorView* view) { Unmap(view); }

int zor_system_area(ZorConnection* c, uint32_t size, const ZorSystemSharedArea** area) {
    if (c == nullptr) return ZOR_E_INVALID_ARG;
    if (size == 0) size = ZOR_CLIENT_DEFAULT_AREA_SIZE;
    std::unique_lock hold(c->lock);
    int st = ZOR_OK;
    if (c->area.base == nullptr) {
        ZorSysMemPayload p;
        st = build_sysmem(SelfPid(), size, &p);
        Handle handle = 0;
        if (st == ZOR_OK) st = SendForHandle(c, ZOR_CMD_SYSMEM, &p, sizeof p, &handle);
        ZorView v{};
        if (st == ZOR_OK) st = MapWhole(handle, 0, &v);
        if (st == ZOR_OK && v.size < ZOR_SSA_MIN_SIZE) {
            Unmap(&v);
            st = ZOR_E_REFUSED;
        }
        if (st == ZOR_OK) {
            // The area may be one created earlier with another size: trust
            // the capacity word only where it is smaller than the mapping.
            auto* a = static_cast<const ZorSystemSharedArea*>(v.base);
            std::uint64_t claimed = static_cast<std::uint64_t>(a->capacity) + ZOR_SSA_QUEUE;
            c->area_bytes = claimed < v.size ? static_cast<std::uint32_t>(claimed) : v.size;
            c->area = v;
        }
    }
    hold.unlock();
    if (st == ZOR_OK && area) *area = static_cast<const ZorSystemSharedArea*>(c->area.base);
    return st;
}

int zor_read_counters(ZorConnection* c, uint32_t* sequence, uint32_t* run_counter) {
    const ZorSystemSharedArea* a = nullptr;
    int st = zor_system_area(c, 0, &a);
    if (st != ZOR_OK) return st;
    auto* base = static_cast<unsigned char*>(c->area.base);
    if (sequence) *sequence = __atomic_load_n(reinterpret_cast<std::uint32_t*>(base + ZOR_SSA_SEQUENCE), __ATOMIC_ACQUIRE);
    if (run_counter) *run_counter = __atomic_load_n(reinterpret_cast<std::uint32_t*>(base + ZOR_SSA_RUN_COUNTER), __ATOMIC_ACQUIRE);
    return ZOR_OK;
}

int zor_module_call(ZorConnection* c, uint32_t module, uint32_t caller_tag, const void* body,
                    uint32_t size, uint32_t* result) {
    if (c == nullptr || result == nullptr) return ZOR_E_INVALID_ARG;
    *result = 0;
    const std::size_t n = request_bytes(size);
    if (size > ZOR_CLIENT_MAX_BODY) return ZOR_E_TOO_LARGE;
    auto* buf = new (std::nothrow) unsigned char[n];
    if (buf == nullptr) return ZOR_E_SYSTEM;
    int st = build_request(module, caller_tag, body, size, buf, n);
    if (st == ZOR_OK) st = Send(c, ZOR_CMD_MODULE_CALL, buf, static_cast<std::uint32_t>(n), result);
    delete[] buf;
    if (st == ZOR_OK) st = request_status(*result);
    return st;
}

int zor_unblock_module(ZorConnection* c, uint32_t module) {
    if (c == nullptr || module == ZOR_HOST_MODULE) return ZOR_E_INVALID_ARG;
    const ZorHostRequest body{ZOR_HOST_UNBLOCK, module};
    std::uint32_t r = 0;
    return zor_module_call(c, ZOR_HOST_MODULE, 0, &body, sizeof body, &r);
}

int zor_irq_query(ZorConnection* c, uint32_t* value) {
    if (c == nullptr || value == nullptr) return ZOR_E_INVALID_ARG;
    return Send(c, ZOR_CMD_IRQ_QUERY, nullptr, 0, value);
}

int zor_irq_control(ZorConnection* c, uint32_t value, uint32_t* answer) {
    if (c == nullptr) return ZOR_E_INVALID_ARG;
    std::uint32_t dummy;
    return Send(c, ZOR_CMD_IRQ_CONTROL, &value, sizeof value, answer ? answer : &dummy);
}

int zor_quit(ZorConnection* c) {
    if (c == nullptr) return ZOR_E_INVALID_ARG;
    return Send(c, ZOR_CMD_QUIT, nullptr, 0, nullptr);
}

int zor_client_add(ZorConnection* c, uint32_t* index) {
    if (c == nullptr) return ZOR_E_INVALID_ARG;
    std::uint32_t pid = SelfPid(), i = 0;
    int st = Send(c, ZOR_CMD_CLIENT_ADD, &pid, sizeof pid, &i);
    if (st == ZOR_OK && i == 0) st = ZOR_E_REFUSED;  // the host's client table is full
    if (st == ZOR_OK) c->client_added = true;
    if (index) *index = i;
    return st;
}

int zor_client_remove(ZorConnection* c) {
    if (c == nullptr) return ZOR_E_INVALID_ARG;
    std::uint32_t pid = SelfPid(), removed = 0;
    // Removing a client stops its pipe thread, which may take the host up
    // to ten seconds when the thread is blocked.
    std::uint32_t wait = c->timeout_ms < 12000 ? 12000 : c->timeout_ms;
    int st = Send(c, ZOR_CMD_CLIENT_REMOVE, &pid, sizeof pid, &removed, wait);
    c->client_added = false;
    if (st == ZOR_OK && removed == 0) st = ZOR_E_NOT_CONNECTED;
    return st;
}

}  // extern "C"
