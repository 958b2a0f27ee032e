// A stand-in for a kernel driver that signals event.irq, as its own process:
//   event_hardware event <name> <n>  sets the named event n times, each time
//                                    waiting until a waiter has taken it
//   event_hardware pipe <name>       serves \\.\pipe\<name>: prints "ready",
//                                    waits for the event <name>_go, writes the
//                                    4-byte counts 1..1100 and 1201..1210 (a
//                                    gap), waits until they are read, ends
#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using QueryEventFn = LONG(NTAPI*)(HANDLE, int, void*, ULONG, ULONG*);
struct EventInfo {
    int type;
    LONG state;
};

// Without taking it: an auto-reset event stays set until a waiter takes it.
bool StillSet(HANDLE event) {
    static const auto query = reinterpret_cast<QueryEventFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQueryEvent")));
    EventInfo info{};
    return query(event, 0, &info, sizeof info, nullptr) == 0 && info.state != 0;
}

int Signal(const std::wstring& name, int n) {
    HANDLE event = OpenEventW(EVENT_ALL_ACCESS, FALSE, name.c_str());
    if (!event) return 2;
    for (int i = 0; i < n; ++i) {
        SetEvent(event);
        for (int waited = 0; StillSet(event); ++waited) {
            if (waited > 10000) return 3;
            Sleep(1);
        }
    }
    return 0;
}

int Serve(const std::wstring& name) {
    HANDLE go = CreateEventW(nullptr, TRUE, FALSE, (name + L"_go").c_str());
    HANDLE pipe = CreateNamedPipeW((L"\\\\.\\pipe\\" + name).c_str(), PIPE_ACCESS_OUTBOUND,
                                   PIPE_TYPE_MESSAGE | PIPE_WAIT, 1, 4096, 0, 0, nullptr);
    if (!go || pipe == INVALID_HANDLE_VALUE) return 2;
    std::printf("ready\n");
    std::fflush(stdout);
    if (!ConnectNamedPipe(pipe, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED) return 3;
    WaitForSingleObject(go, 30000);
    for (std::uint32_t count = 1; count <= 1210; count = count == 1100 ? 1201 : count + 1) {
        DWORD put = 0;
        if (!WriteFile(pipe, &count, 4, &put, nullptr) || put != 4) return 4;
    }
    FlushFileBuffers(pipe);
    CloseHandle(pipe);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc >= 3 ? argv[1] : "";
    const std::string name = argc >= 3 ? argv[2] : "";
    if (mode == "event" && argc >= 4) return Signal(std::wstring(name.begin(), name.end()), std::atoi(argv[3]));
    if (mode == "pipe") return Serve(std::wstring(name.begin(), name.end()));
    return 1;
}
