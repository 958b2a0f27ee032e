// The command table and the dispatch of the WM_COPYDATA commands, with the
// payload bounds checks.
#include "host/command_intake.h"

#include <cstdlib>
#include <cstring>

#include "host/host.h"

namespace zor {

namespace {

constexpr std::uint32_t kNameOffset = 16;

std::uint32_t U32(const CommandRequest& r, std::uint32_t off) {
    std::uint32_t v;
    std::memcpy(&v, r.data + off, sizeof v);
    return v;
}
std::uint64_t U64(const CommandRequest& r, std::uint32_t off) {
    std::uint64_t v;
    std::memcpy(&v, r.data + off, sizeof v);
    return v;
}

// True when a 0 unit lies entirely inside the payload from `off` on.
bool TerminatedAt(const CommandRequest& r, std::uint32_t off) {
    for (std::uint64_t o = off; o + 2 <= r.size; o += 2) {
        if (r.data[o] == 0 && r.data[o + 1] == 0) return true;
    }
    return false;
}

// A heap copy of the payload, aligned for every field: the module of
// command 5 may write into it, and names are read as char16_t in place.
struct Copy {
    explicit Copy(const CommandRequest& r)
        : bytes(static_cast<unsigned char*>(std::malloc(r.size ? r.size : 1))) {
        if (bytes && r.size) std::memcpy(bytes, r.data, r.size);
    }
    ~Copy() { std::free(bytes); }
    Copy(const Copy&) = delete;
    Copy& operator=(const Copy&) = delete;
    unsigned char* bytes;
};

bool CopyFailed(const CommandRequest& r, std::uint32_t cmd, const Copy& c) {
    if (c.bytes) return false;
    r.host.log.wPrintf(kLogFault, u"ZOR: command %d: no memory for %u bytes\n\r", cmd, r.size);
    return true;
}

std::uint32_t Register(const CommandRequest& r) {
    Copy c(r);
    if (CopyFailed(r, ZOR_CMD_ISR_REGISTER, c)) return 0;
    return static_cast<std::uint32_t>(r.host.registry.RegisterISRProc(r.peer, c.bytes, r.size));
}
std::uint32_t Unregister(const CommandRequest& r) {
    return r.host.registry.UnregisterCommand(U64(r, offsetof(ZorModulePayload, module)));
}
// Every client that gets the area is recorded for the automatic shut-down.
std::uint32_t SysMem(const CommandRequest& r) {
    const std::uint32_t pid = U32(r, offsetof(ZorSysMemPayload, pid));
    CLock lock(r.host.csecFuncs);
    const std::uint64_t remote =
        r.host.shm.SysMem(r.peer, pid, U32(r, offsetof(ZorSysMemPayload, size)));
    if (remote != 0) AppendClientPid(r.host, pid);
    return static_cast<std::uint32_t>(remote);
}
std::uint32_t Quit(const CommandRequest& r) {
    if (r.ender.end) r.ender.end(r.ender.ctx, 1);
    return 0;
}
// Command 5 to module 0: the host's own functions.
std::uint32_t HostRequest(const CommandRequest& r) {
    constexpr std::uint32_t kBody = sizeof(ZorClientRequest);
    if (r.size < kBody + sizeof(ZorHostRequest)) {
        r.host.log.wPrintf(kLogError, u"ZOR: command 5 to the host: payload of %u bytes too short\n\r", r.size);
        return 0xFFFFFFFFu;
    }
    const std::uint32_t function = U32(r, kBody + offsetof(ZorHostRequest, function));
    const std::uint32_t module = U32(r, kBody + offsetof(ZorHostRequest, module));
    if (function != ZOR_HOST_UNBLOCK || r.host.slots.Check(module) == 0) {
        r.host.log.wPrintf(kLogError, u"ZOR: command 5 to the host: function %u for module %u refused\n\r",
                           function, module);
        return 0xFFFFFFFFu;
    }
    r.host.dispatcher.BlockISR(module, 0);
    r.host.log.wPrintf(kLogTrace, u"ZOR: ISR '%s' unblocked by a client\n\r", r.host.slots[module].name);
    return 1;
}
std::uint32_t ModuleCall(const CommandRequest& r) {
    if (U32(r, offsetof(ZorClientRequest, module)) == ZOR_HOST_MODULE) return HostRequest(r);
    Copy c(r);
    if (CopyFailed(r, ZOR_CMD_MODULE_CALL, c)) return 0xFFFFFFFFu;
    return static_cast<std::uint32_t>(HandleClientRequest(r.host.slots, r.host.caller, c.bytes));
}
std::uint32_t IrqQuery(const CommandRequest& r) { return r.host.irq.Query(); }
std::uint32_t IrqControl(const CommandRequest& r) { return r.host.irq.Control(U32(r, 0)); }
std::uint32_t PipeConnect(const CommandRequest& r) {
    ClientRegistry& clients = r.host.clients;
    const std::uint32_t pid = U32(r, offsetof(ZorPipePayload, pid));
    return clients.ConnectClientPipe(r.peer, clients.FindClient(pid),
                                     U64(r, offsetof(ZorPipePayload, request_pipe)),
                                     U64(r, offsetof(ZorPipePayload, reply_pipe)), pid);
}
// A client names itself by pid: on Linux only its own record is reachable.
std::uint32_t PipeDisconnect(const CommandRequest& r) {
    const std::uint32_t pid = U32(r, 0);
    return r.peer.Is(pid) ? r.host.clients.StopClientPipe(r.host.clients.FindClient(pid)) : 0;
}
std::uint32_t ClientAdd(const CommandRequest& r) {
    const std::uint32_t pid = U32(r, 0);
    return r.peer.Is(pid) ? r.host.clients.RegisterClient(pid) : 0;
}
std::uint32_t ClientRemove(const CommandRequest& r) {
    const std::uint32_t pid = U32(r, 0);
    return r.peer.Is(pid) ? r.host.clients.UnregisterClient(pid) : 0;
}
std::uint32_t FindModule(const CommandRequest& r) {
    Copy c(r);
    if (CopyFailed(r, ZOR_CMD_FIND_MODULE, c)) return 0;
    return r.host.registry.FindModule(reinterpret_cast<const char16_t*>(c.bytes + kNameOffset));
}
std::uint32_t ModuleInfo(const CommandRequest& r) {
    return r.host.registry.ModuleInfo(U64(r, offsetof(ZorModulePayload, module)));
}
std::uint32_t GetIsrMem(const CommandRequest& r) {
    return static_cast<std::uint32_t>(r.host.shm.GetIsrMem(
        r.peer, U32(r, offsetof(ZorIsrMemPayload, pid)), U64(r, offsetof(ZorIsrMemPayload, module))));
}

constexpr Command kCommands[] = {
    {ZOR_CMD_ISR_REGISTER, kNameOffset + 2, true, 0, Register},
    {ZOR_CMD_ISR_UNREGISTER, 16, false, 0, Unregister},
    {ZOR_CMD_SYSMEM, sizeof(ZorSysMemPayload), false, 0, SysMem},
    {ZOR_CMD_QUIT, 0, false, 0, Quit},
    {ZOR_CMD_MODULE_CALL, sizeof(ZorClientRequest), false, 0xFFFFFFFFu, ModuleCall},
    {ZOR_CMD_IRQ_QUERY, 0, false, 0, IrqQuery},
    {ZOR_CMD_IRQ_CONTROL, 4, false, 0, IrqControl},
    {ZOR_CMD_PIPE_CONNECT, 20, false, 0, PipeConnect},
    {ZOR_CMD_PIPE_DISCONNECT, 4, false, 0, PipeDisconnect},
    {ZOR_CMD_CLIENT_ADD, 4, false, 0, ClientAdd},
    {ZOR_CMD_CLIENT_REMOVE, 4, false, 0, ClientRemove},
    {ZOR_CMD_FIND_MODULE, kNameOffset + 2, true, 0, FindModule},
    {ZOR_CMD_MODULE_INFO, 16, false, 0, ModuleInfo},
    {ZOR_CMD_GET_ISR_MEM, 16, false, 0, GetIsrMem},
};

// The payload checks every command passes before its handler runs.
bool Refused(const Command& c, const CommandRequest& r) {
    if (r.size < c.minPayload) {
        r.host.log.wPrintf(kLogError, u"ZOR: command %d: payload of %u bytes too short\n\r", c.number, r.size);
        return true;
    }
    if (c.named && !TerminatedAt(r, kNameOffset)) {
        r.host.log.wPrintf(kLogError, u"ZOR: command %d: name not terminated in %u bytes\n\r", c.number, r.size);
        return true;
    }
    return false;
}

}  // namespace

const Command* FindCommand(std::uint64_t number) {
    for (const Command& c : kCommands) {
        if (c.number == number) return &c;
    }
    return nullptr;
}

std::uint32_t OnCopyData(Host& host, os::Peer& peer, std::uint64_t dwData, const void* data,
                         std::uint32_t cbData, const DialogEnder& ender) {
    // 0, 10, 16 and above, and anything with the top bit set: 0, payload untouched.
    const Command* c = FindCommand(dwData);
    if (c == nullptr) return 0;
    const CommandRequest r{host, peer, static_cast<const unsigned char*>(data), data ? cbData : 0,
                           ender};
    return Refused(*c, r) ? c->failure : c->handle(r);
}

}  // namespace zor
