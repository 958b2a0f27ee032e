#include "client/payloads.h"

#include <cstring>

namespace zor::client {
namespace {

// Decodes one UTF-8 sequence at s; returns its length, 0 when malformed
// (overlong forms, surrogates and values above U+10FFFF included).
std::size_t decode_utf8(const unsigned char* s, std::uint32_t* cp) {
    unsigned char c = s[0];
    if (c < 0x80) { *cp = c; return 1; }
    std::size_t n;
    std::uint32_t v, min;
    if ((c & 0xE0) == 0xC0) { n = 2; v = c & 0x1F; min = 0x80; }
    else if ((c & 0xF0) == 0xE0) { n = 3; v = c & 0x0F; min = 0x800; }
    else if ((c & 0xF8) == 0xF0) { n = 4; v = c & 0x07; min = 0x10000; }
    else return 0;
    for (std::size_t i = 1; i < n; ++i) {
        if ((s[i] & 0xC0) != 0x80) return 0;  // also stops at the terminator
        v = (v << 6) | (s[i] & 0x3F);
    }
    if (v < min || v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF)) return 0;
    *cp = v;
    return n;
}

int check_request(const void* body, std::uint32_t size) {
    if (size > ZOR_CLIENT_MAX_BODY) return ZOR_E_TOO_LARGE;
    if (size > 0 && body == nullptr) return ZOR_E_INVALID_ARG;
    return ZOR_OK;
}

}  // namespace

int utf8_to_utf16(const char* in, std::uint16_t* out, std::size_t cap,
                  std::size_t* units) {
    if (in == nullptr || *in == '\0' || out == nullptr || cap == 0)
        return ZOR_E_INVALID_ARG;
    const auto* s = reinterpret_cast<const unsigned char*>(in);
    std::size_t n = 0;
    std::uint16_t tmp[2];
    while (*s) {
        std::uint32_t cp;
        std::size_t len = decode_utf8(s, &cp);
        if (len == 0) return ZOR_E_NAME_TOO_LONG;
        std::size_t need = cp >= 0x10000 ? 2 : 1;
        if (need == 2) {
            cp -= 0x10000;
            tmp[0] = static_cast<std::uint16_t>(0xD800 | (cp >> 10));
            tmp[1] = static_cast<std::uint16_t>(0xDC00 | (cp & 0x3FF));
        } else {
            tmp[0] = static_cast<std::uint16_t>(cp);
        }
        if (n + need > cap - 1) return ZOR_E_NAME_TOO_LONG;
        for (std::size_t i = 0; i < need; ++i) out[n++] = tmp[i];
        s += len;
    }
    out[n] = 0;
    if (units) *units = n;
    return ZOR_OK;
}

int build_register(std::uint32_t pid, std::uint32_t shm_size, const char* name,
                   ZorRegisterPayload* out) {
    if (out == nullptr) return ZOR_E_INVALID_ARG;
    ZorRegisterPayload p;
    std::memset(&p, 0, sizeof p);
    p.pid = pid;
    p.shared_size = shm_size;
    int st = utf8_to_utf16(name, p.name, sizeof p.name / sizeof p.name[0]);
    if (st != ZOR_OK) return st;
    *out = p;
    return ZOR_OK;
}

int build_find(const char* name, ZorRegisterPayload* out) {
    return build_register(0, 0, name, out);
}

int build_module(std::uint32_t module, ZorModulePayload* out) {
    if (out == nullptr) return ZOR_E_INVALID_ARG;
    if (module == 0) return ZOR_E_NOT_REGISTERED;  // 0 never names a module
    out->reserved = 0;
    out->module = module;
    return ZOR_OK;
}

int build_sysmem(std::uint32_t pid, std::uint32_t size, ZorSysMemPayload* out) {
    if (out == nullptr) return ZOR_E_INVALID_ARG;
    // The host subtracts the header without checking: a smaller area would
    // claim a queue of nearly 4 GiB.
    if (size < ZOR_SSA_MIN_SIZE) return ZOR_E_INVALID_ARG;
    out->pid = pid;
    out->size = size;
    return ZOR_OK;
}

int build_isr_mem(std::uint32_t pid, std::uint32_t module, ZorIsrMemPayload* out) {
    if (out == nullptr) return ZOR_E_INVALID_ARG;
    if (module == 0) return ZOR_E_NOT_REGISTERED;
    out->pid = pid;
    out->reserved = 0;
    out->module = module;
    return ZOR_OK;
}

int build_pipe(std::uint64_t request_pipe, std::uint64_t reply_pipe,
               std::uint32_t pid, ZorPipePayload* out) {
    if (out == nullptr || request_pipe == 0 || reply_pipe == 0) return ZOR_E_INVALID_ARG;
    std::memset(out, 0, sizeof *out);
    out->request_pipe = request_pipe;
    out->reply_pipe = reply_pipe;
    out->pid = pid;
    return ZOR_OK;
}

std::size_t request_bytes(std::uint32_t size) {
    return sizeof(ZorClientRequest) + static_cast<std::size_t>(size);
}

std::size_t frame_bytes(std::uint32_t size) { return 4 + request_bytes(size); }

int build_request(std::uint32_t module, std::uint32_t caller_tag,
                  const void* body, std::uint32_t size, unsigned char* out,
                  std::size_t cap) {
    if (out == nullptr) return ZOR_E_INVALID_ARG;
    int st = check_request(body, size);
    if (st != ZOR_OK) return st;
    if (cap < request_bytes(size)) return ZOR_E_TOO_LARGE;
    ZorClientRequest r{caller_tag, module, 0};
    std::memcpy(out, &r, sizeof r);
    if (size) std::memcpy(out + sizeof r, body, size);
    return ZOR_OK;
}

int build_frame(std::uint32_t module, std::uint32_t caller_tag,
                const void* body, std::uint32_t size, unsigned char* out,
                std::size_t cap) {
    if (out == nullptr) return ZOR_E_INVALID_ARG;
    int st = check_request(body, size);
    if (st != ZOR_OK) return st;
    if (cap < frame_bytes(size)) return ZOR_E_TOO_LARGE;
    std::uint32_t len = static_cast<std::uint32_t>(request_bytes(size));
    std::memcpy(out, &len, 4);
    return build_request(module, caller_tag, body, size, out + 4, cap - 4);
}

int request_status(std::uint32_t answer) {
    return answer == 0xFFFFFFFFu ? ZOR_E_NOT_REGISTERED : ZOR_OK;
}

int parse_hex(const char* text, unsigned char* out, std::size_t cap,
              std::size_t* len) {
    if (text == nullptr || len == nullptr) return ZOR_E_INVALID_ARG;
    std::size_t n = 0;
    int hi = -1;
    for (const char* p = text; *p; ++p) {
        char ch = *p;
        if (ch == ' ' || ch == ',' || ch == ':' || ch == '\t') {
            if (hi >= 0) return ZOR_E_INVALID_ARG;  // digits split across a separator
            continue;
        }
        if (ch == '0' && (p[1] == 'x' || p[1] == 'X') && hi < 0) { ++p; continue; }
        int v;
        if (ch >= '0' && ch <= '9') v = ch - '0';
        else if (ch >= 'a' && ch <= 'f') v = ch - 'a' + 10;
        else if (ch >= 'A' && ch <= 'F') v = ch - 'A' + 10;
        else return ZOR_E_INVALID_ARG;
        if (hi < 0) { hi = v; continue; }
        if (n >= cap) return ZOR_E_TOO_LARGE;
        if (out) out[n] = static_cast<unsigned char>(hi << 4 | v);
        ++n;
        hi = -1;
    }
    if (hi >= 0) return ZOR_E_INVALID_ARG;
    *len = n;
    return ZOR_OK;
}

}  // namespace zor::client
