// A client process for the end-to-end tests: finds the host's window by its
// caption (the one belonging to the host's process id given first), sends
// real WM_COPYDATA commands and uses pipes and mapped handles as a driver
// component would. Prints "key=value" lines; the test reads them.
//
//   zor_client <hostPid> cmd <number> [hex payload]
//   zor_client <hostPid> cmds <number>[:hex payload] ...   (results r0, r1, ...)
//   zor_client <hostPid> register <module file> <shared bytes>
//   zor_client <hostPid> isrmem <module number>
//   zor_client <hostPid> sysmem <bytes> <events to trigger>
//   zor_client <hostPid> call5 <module number>
//   zor_client <hostPid> pipe <module number>
//   zor_client <hostPid> pipe-hold <module number>   (then waits to be killed)
//   zor_client <hostPid> hold                        (command 3, then waits)
//   zor_client <hostPid> click <control id>          (a button of the dialog)
#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "zor/zor_module.h"

namespace {

DWORD g_hostPid = 0;
HWND g_host = nullptr;

void Out(const char* key, unsigned long long v) {
    std::printf("%s=%llx\n", key, v);
    std::fflush(stdout);
}
void Line(const char* text) {
    std::printf("%s\n", text);
    std::fflush(stdout);
}

HWND FindHost() {
    HWND w = nullptr;
    while ((w = FindWindowExW(nullptr, w, L"#32770", L"" ZOR_WINDOW_CAPTION)) != nullptr) {
        DWORD owner = 0;
        GetWindowThreadProcessId(w, &owner);
        if (g_hostPid == 0 || owner == g_hostPid) return w;
    }
    return nullptr;
}

std::uint32_t Send(std::uint64_t cmd, const void* data, std::uint32_t size) {
    COPYDATASTRUCT cds;
    cds.dwData = static_cast<ULONG_PTR>(cmd);
    cds.cbData = size;
    cds.lpData = const_cast<void*>(data);
    DWORD_PTR result = 0xBADBADBAu;
    if (!SendMessageTimeoutW(g_host, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&cds), SMTO_ABORTIFHUNG,
                             20000, &result)) {
        Line("send=failed");
        std::exit(3);
    }
    return static_cast<std::uint32_t>(result);
}

template <class T>
std::uint32_t SendStruct(std::uint64_t cmd, const T& payload) {
    return Send(cmd, &payload, sizeof payload);
}

std::uint32_t MappedMark(std::uint32_t handle) {
    if (!handle) return 0;
    void* view = MapViewOfFile(reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(handle)),
                               FILE_MAP_ALL_ACCESS, 0, 0, 0);
    if (!view) return 0;
    std::uint32_t mark = 0;
    std::memcpy(&mark, view, 4);
    UnmapViewOfFile(view);
    return mark;
}

std::vector<unsigned char> Hex(const char* s) {
    std::vector<unsigned char> out;
    for (std::size_t i = 0; s[i] && s[i + 1]; i += 2) {
        char b[3] = {s[i], s[i + 1], 0};
        out.push_back(static_cast<unsigned char>(std::strtoul(b, nullptr, 16)));
    }
    return out;
}

int Register(const char* file, std::uint32_t size) {
    ZorRegisterPayload p{};
    p.pid = GetCurrentProcessId();
    p.shared_size = size;
    for (int i = 0; file[i] && i < 19; ++i) p.name[i] = static_cast<std::uint16_t>(file[i]);
    std::uint32_t handle = SendStruct(ZOR_CMD_ISR_REGISTER, p);
    Out("handle", handle);
    Out("mark", MappedMark(handle));
    ZorRegisterPayload find{};
    std::memcpy(find.name, p.name, sizeof p.name);
    Out("module", SendStruct(ZOR_CMD_FIND_MODULE, find));
    return 0;
}

int IsrMem(std::uint64_t module) {
    ZorIsrMemPayload p{};
    p.pid = GetCurrentProcessId();
    p.module = module;
    std::uint32_t handle = SendStruct(ZOR_CMD_GET_ISR_MEM, p);
    Out("handle", handle);
    Out("mark", MappedMark(handle));
    return 0;
}

// Command 3, then events from the trigger driver (command 7), watching the
// sequence word of the system area move.
int SysMem(std::uint32_t size, std::uint32_t events) {
    ZorSysMemPayload p{GetCurrentProcessId(), size};
    std::uint32_t handle = SendStruct(ZOR_CMD_SYSMEM, p);
    Out("handle", handle);
    if (!handle) return 1;
    auto* area = static_cast<volatile std::uint32_t*>(
        MapViewOfFile(reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(handle)), FILE_MAP_ALL_ACCESS, 0, 0, 0));
    if (!area) return 2;
    Out("capacity", area[ZOR_SSA_CAPACITY / 4]);
    std::uint32_t first = area[0];
    Out("seq1", first);
    if (events) {
        std::uint32_t v = events;
        Out("next", SendStruct(ZOR_CMD_IRQ_CONTROL, v));
        for (int i = 0; i < 300 && area[0] == first; ++i) Sleep(10);
        Sleep(100);
    }
    Out("seq2", area[0]);
    Out("query", Send(ZOR_CMD_IRQ_QUERY, nullptr, 0));
    return 0;
}

int Call5(std::uint32_t module) {
    unsigned char req[12 + 16];
    std::uint32_t tag = 0x80000000u | 16, reserved = 0;
    std::memcpy(req, &tag, 4);
    std::memcpy(req + 4, &module, 4);
    std::memcpy(req + 8, &reserved, 4);
    std::uint32_t sum = 0;
    for (int i = 0; i < 16; ++i) sum += req[12 + i] = static_cast<unsigned char>(i * 3 + 1);
    Out("answer", Send(ZOR_CMD_MODULE_CALL, req, sizeof req));
    Out("expect", sum ^ 0x5A000000u);
    return 0;
}

struct Pipes {
    HANDLE reqRead = nullptr, reqWrite = nullptr, repRead = nullptr, repWrite = nullptr;
};

bool WriteAll(HANDLE h, const void* p, DWORD n) {
    const auto* b = static_cast<const unsigned char*>(p);
    while (n) {
        DWORD done = 0;
        if (!WriteFile(h, b, n, &done, nullptr)) return false;
        b += done;
        n -= done;
    }
    return true;
}

std::uint32_t Request(Pipes& p, std::uint32_t module, const std::vector<unsigned char>& body,
                      std::uint32_t* expect) {
    std::uint32_t length = static_cast<std::uint32_t>(12 + body.size());
    std::uint32_t tag = 0x80000000u | static_cast<std::uint32_t>(body.size()), reserved = 0;
    std::vector<unsigned char> frame(4 + length);
    std::memcpy(frame.data(), &length, 4);
    std::memcpy(frame.data() + 4, &tag, 4);
    std::memcpy(frame.data() + 8, &module, 4);
    std::memcpy(frame.data() + 12, &reserved, 4);
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < body.size(); ++i) sum += frame[16 + i] = body[i];
    *expect = sum ^ 0x5A000000u;
    if (!WriteAll(p.reqWrite, frame.data(), static_cast<DWORD>(frame.size()))) return 0xDEAD0001u;
    std::uint32_t answer = 0;
    DWORD got = 0, done = 0;
    while (got < 4) {
        if (!ReadFile(p.repRead, reinterpret_cast<unsigned char*>(&answer) + got, 4 - got, &done, nullptr))
            return 0xDEAD0002u;
        got += done;
    }
    return answer;
}

// Commands 11 and 8: the host duplicates our read end of the request pipe
// and our write end of the reply pipe; ours are closed after that.
bool Connect(Pipes& p) {
    if (!CreatePipe(&p.reqRead, &p.reqWrite, nullptr, 0) || !CreatePipe(&p.repRead, &p.repWrite, nullptr, 0))
        return false;
    std::uint32_t pid = GetCurrentProcessId();
    Out("index", SendStruct(ZOR_CMD_CLIENT_ADD, pid));
    ZorPipePayload c{};
    c.request_pipe = reinterpret_cast<std::uintptr_t>(p.reqRead);
    c.reply_pipe = reinterpret_cast<std::uintptr_t>(p.repWrite);
    c.pid = pid;
    Out("connect", SendStruct(ZOR_CMD_PIPE_CONNECT, c));
    CloseHandle(p.reqRead);
    CloseHandle(p.repWrite);
    return true;
}

int Pipe(std::uint32_t module, bool hold) {
    Pipes p;
    if (!Connect(p)) return 1;
    std::uint32_t expect = 0;
    Out("answer12", Request(p, module, {}, &expect));
    Out("expect12", expect);
    if (hold) {
        Line("ready");
        Sleep(INFINITE);
    }
    std::vector<unsigned char> big(ZOR_PIPE_BUFFER_SIZE - 12);
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i * 13 + 7);
    Out("answerbig", Request(p, module, big, &expect));
    Out("expectbig", expect);
    Out("answer0", Request(p, 0, {1, 2, 3}, &expect));
    std::uint32_t pid = GetCurrentProcessId();
    Out("stop", SendStruct(ZOR_CMD_PIPE_DISCONNECT, pid));
    // The host has closed its ends: nobody reads our requests any more.
    std::uint32_t length = 12;
    DWORD done = 0;
    Out("writeafterstop", WriteFile(p.reqWrite, &length, 4, &done, nullptr) ? 1 : 0);
    Out("remove", SendStruct(ZOR_CMD_CLIENT_REMOVE, pid));
    Out("removeagain", SendStruct(ZOR_CMD_CLIENT_REMOVE, pid));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 64;
    g_hostPid = static_cast<DWORD>(std::strtoul(argv[1], nullptr, 10));
    for (int i = 0; i < 500 && !(g_host = FindHost()); ++i) Sleep(20);
    if (!g_host) {
        Line("host=none");
        return 2;
    }
    std::string op = argv[2];
    auto arg = [&](int i) { return i < argc ? argv[i] : "0"; };
    if (op == "cmd") {
        std::vector<unsigned char> payload = Hex(arg(4));
        Out("result", Send(std::strtoull(arg(3), nullptr, 0), payload.empty() ? nullptr : payload.data(),
                           static_cast<std::uint32_t>(payload.size())));
        return 0;
    }
    if (op == "cmds") {
        for (int i = 3; i < argc; ++i) {
            const char* colon = std::strchr(argv[i], ':');
            std::vector<unsigned char> payload = Hex(colon ? colon + 1 : "");
            std::uint32_t r = Send(std::strtoull(argv[i], nullptr, 0), payload.empty() ? nullptr : payload.data(),
                                   static_cast<std::uint32_t>(payload.size()));
            Out(("r" + std::to_string(i - 3)).c_str(), r);
        }
        return 0;
    }
    if (op == "register") return Register(arg(3), static_cast<std::uint32_t>(std::strtoul(arg(4), nullptr, 0)));
    if (op == "isrmem") return IsrMem(std::strtoull(arg(3), nullptr, 0));
    if (op == "sysmem")
        return SysMem(static_cast<std::uint32_t>(std::strtoul(arg(3), nullptr, 0)),
                      static_cast<std::uint32_t>(std::strtoul(arg(4), nullptr, 0)));
    if (op == "call5") return Call5(static_cast<std::uint32_t>(std::strtoul(arg(3), nullptr, 0)));
    if (op == "pipe" || op == "pipe-hold")
        return Pipe(static_cast<std::uint32_t>(std::strtoul(arg(3), nullptr, 0)), op == "pipe-hold");
    if (op == "click") {
        int id = static_cast<int>(std::strtol(arg(3), nullptr, 0));
        Out("clicked", SendMessageW(g_host, WM_COMMAND, MAKEWPARAM(id, BN_CLICKED),
                                    reinterpret_cast<LPARAM>(GetDlgItem(g_host, id))));
        return 0;
    }
    if (op == "hold") {
        ZorSysMemPayload p{GetCurrentProcessId(), 0x2000};
        Out("handle", SendStruct(ZOR_CMD_SYSMEM, p));
        Line("ready");
        Sleep(INFINITE);
    }
    Line("op=unknown");
    return 64;
}
