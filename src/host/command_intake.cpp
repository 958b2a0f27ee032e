// Dispatch of the WM_COPYDATA commands, with the payload bounds checks.
#include "host/command_intake.h"

#include <cstdlib>
#include <cstring>

#include "host/host.h"

namespace zor {

namespace {

// The payload as it arrived, read only within its size.
class Payload {
public:
    Payload(const void* data, std::uint32_t size)
        : p_(static_cast<const unsigned char*>(data)), size_(data ? size : 0) {}

    bool Has(std::uint32_t bytes) const { return size_ >= bytes; }
    std::uint32_t U32(std::uint32_t off) const {
        std::uint32_t v;
        std::memcpy(&v, p_ + off, sizeof v);
        return v;
    }
    std::uint64_t U64(std::uint32_t off) const {
        std::uint64_t v;
        std::memcpy(&v, p_ + off, sizeof v);
        return v;
    }
    // True when a 0 unit lies entirely inside the payload from `off` on.
    bool TerminatedAt(std::uint32_t off) const {
        for (std::uint64_t o = off; o + 2 <= size_; o += 2) {
            if (p_[o] == 0 && p_[o + 1] == 0) return true;
        }
        return false;
    }
    const unsigned char* Bytes() const { return p_; }
    std::uint32_t Size() const { return size_; }

private:
    const unsigned char* p_;
    std::uint32_t size_;
};

constexpr std::uint32_t kNameOffset = 16;

bool TooShort(Host& h, std::uint32_t cmd, const Payload& p, std::uint32_t need) {
    if (p.Has(need)) return false;
    h.log.wPrintf(kLogError, u"ZOR: command %d: payload of %u bytes too short\n\r", cmd, p.Size());
    return true;
}

bool NameMissing(Host& h, std::uint32_t cmd, const Payload& p) {
    if (TooShort(h, cmd, p, kNameOffset + 2)) return true;
    if (p.TerminatedAt(kNameOffset)) return false;
    h.log.wPrintf(kLogError, u"ZOR: command %d: name not terminated in %u bytes\n\r", cmd, p.Size());
    return true;
}

// A heap copy of the payload, aligned for every field: the module of
// command 5 may write into it, and names are read as char16_t in place.
struct Copy {
    explicit Copy(const Payload& p) : bytes(static_cast<unsigned char*>(std::malloc(p.Size() ? p.Size() : 1))) {
        if (bytes && p.Size()) std::memcpy(bytes, p.Bytes(), p.Size());
    }
    ~Copy() { std::free(bytes); }
    Copy(const Copy&) = delete;
    Copy& operator=(const Copy&) = delete;
    unsigned char* bytes;
};

bool CopyFailed(Host& h, std::uint32_t cmd, const Copy& c, std::uint32_t size) {
    if (c.bytes) return false;
    h.log.wPrintf(kLogFault, u"ZOR: command %d: no memory for %u bytes\n\r", cmd, size);
    return true;
}

std::uint32_t Dispatch(Host& h, std::uint32_t cmd, const Payload& p, const DialogEnder& ender) {
    switch (cmd) {
    case ZOR_CMD_ISR_REGISTER: {
        if (NameMissing(h, cmd, p)) return 0;
        Copy c(p);
        if (CopyFailed(h, cmd, c, p.Size())) return 0;
        return static_cast<std::uint32_t>(h.registry.RegisterISRProc(c.bytes, p.Size()));
    }
    case ZOR_CMD_ISR_UNREGISTER:
        if (TooShort(h, cmd, p, 16)) return 0;
        h.registry.UnregisterCommand(p.U64(offsetof(ZorModulePayload, module)));
        return 0;
    case ZOR_CMD_SYSMEM:
        if (TooShort(h, cmd, p, sizeof(ZorSysMemPayload))) return 0;
        return static_cast<std::uint32_t>(h.shm.SysMem(p.U32(offsetof(ZorSysMemPayload, pid)),
                                                       p.U32(offsetof(ZorSysMemPayload, size))));
    case ZOR_CMD_QUIT:
        if (ender.end) ender.end(ender.ctx, 1);
        return 0;
    case ZOR_CMD_MODULE_CALL: {
        if (TooShort(h, cmd, p, sizeof(ZorClientRequest))) return 0xFFFFFFFFu;
        Copy c(p);
        if (CopyFailed(h, cmd, c, p.Size())) return 0xFFFFFFFFu;
        return static_cast<std::uint32_t>(HandleClientRequest(h, c.bytes));
    }
    case ZOR_CMD_IRQ_QUERY:
        return h.irq.Query();
    case ZOR_CMD_IRQ_CONTROL:
        if (TooShort(h, cmd, p, 4)) return 0;
        return h.irq.Control(p.U32(0));
    case ZOR_CMD_PIPE_CONNECT: {
        if (TooShort(h, cmd, p, 20)) return 0;
        std::uint32_t pid = p.U32(offsetof(ZorPipePayload, pid));
        return h.clients.ConnectClientPipe(h.clients.FindClient(pid),
                                           p.U64(offsetof(ZorPipePayload, request_pipe)),
                                           p.U64(offsetof(ZorPipePayload, reply_pipe)), pid);
    }
    case ZOR_CMD_PIPE_DISCONNECT:
        if (TooShort(h, cmd, p, 4)) return 0;
        return h.clients.StopClientPipe(h.clients.FindClient(p.U32(0)));
    case ZOR_CMD_CLIENT_ADD:
        if (TooShort(h, cmd, p, 4)) return 0;
        return h.clients.RegisterClient(p.U32(0));
    case ZOR_CMD_CLIENT_REMOVE:
        if (TooShort(h, cmd, p, 4)) return 0;
        return h.clients.UnregisterClient(p.U32(0));
    case ZOR_CMD_FIND_MODULE: {
        if (NameMissing(h, cmd, p)) return 0;
        Copy c(p);
        if (CopyFailed(h, cmd, c, p.Size())) return 0;
        return h.registry.FindModule(reinterpret_cast<const char16_t*>(c.bytes + kNameOffset));
    }
    case ZOR_CMD_MODULE_INFO:
        if (TooShort(h, cmd, p, 16)) return 0;
        return h.registry.ModuleInfo(p.U64(offsetof(ZorModulePayload, module)));
    case ZOR_CMD_GET_ISR_MEM:
        if (TooShort(h, cmd, p, 16)) return 0;
        return static_cast<std::uint32_t>(h.shm.GetIsrMem(p.U32(offsetof(ZorIsrMemPayload, pid)),
                                                          p.U64(offsetof(ZorIsrMemPayload, module))));
    default:  // 10 has no handler
        return 0;
    }
}

}  // namespace

std::uint32_t OnCopyData(Host& host, std::uint64_t dwData, const void* data,
                         std::uint32_t cbData, const DialogEnder& ender) {
    // 0, 16 and above, and anything with the top bit set: 0, payload untouched.
    if (dwData - 1 > 14) return 0;
    return Dispatch(host, static_cast<std::uint32_t>(dwData), Payload(data, cbData), ender);
}

}  // namespace zor
