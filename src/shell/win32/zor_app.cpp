// The application object: the Windows side of the start-up sequence.
#include <windows.h>

#include <cwchar>

#include "host/app.h"
#include "zor/zor_version.h"
#include "zor_dialog.h"

namespace {

// The command line after the program name (quoted or not), as the host's
// switch finder expects it: a "-hide" inside the program's own path must
// not count.
const wchar_t* CommandTail(const wchar_t* p) {
    if (*p == L'"') {
        ++p;
        while (*p && *p != L'"') ++p;
        if (*p == L'"') ++p;
    } else {
        while (*p && *p != L' ' && *p != L'\t') ++p;
    }
    while (*p == L' ' || *p == L'\t') ++p;
    return p;
}

// --help and --version answer on the console zor.exe was started from (a
// message box without one) and end; no host starts.
bool Answered(const wchar_t* tail) {
    const bool help = std::wcsstr(tail, L"--help") != nullptr || std::wcsstr(tail, L"/?") != nullptr;
    if (!help && std::wcsstr(tail, L"--version") == nullptr) return false;
    char text[512];
    if (help) {
        lstrcpynA(text,
                  "usage: zor.exe [-hide]\n"
                  "       zor.exe --help | --version\n\n"
                  "Runs the ZOR host: loads the IRQ driver that ZOR.INI beside zor.exe names\n"
                  "(LASTIRQ) and calls the registered ISR modules on every event. -hide starts\n"
                  "it with the window hidden. Clients: zorctl.exe; every key: docs/configuration.md.\n",
                  sizeof text);
    } else {
        lstrcpynA(text, "zor " ZOR_VERSION_STRING "\n", sizeof text);
    }
    AttachConsole(ATTACH_PARENT_PROCESS);
    HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD written = 0;
    if (out == nullptr || out == INVALID_HANDLE_VALUE ||
        !WriteFile(out, text, static_cast<DWORD>(lstrlenA(text)), &written, nullptr))
        MessageBoxA(nullptr, text, "ZOR", MB_OK | MB_ICONINFORMATION);
    return true;
}

class ZorApp : public zor::DialogShell {
public:
    int InitInstance() {
        instance_ = GetModuleHandleW(nullptr);
        const wchar_t* tail = CommandTail(GetCommandLineW());
        if (Answered(tail)) return 0;
        return zor::RunZorApp(reinterpret_cast<const char16_t*>(tail), *this);
    }

    std::intptr_t RunDialog(zor::Host& host, bool hide) override {
        ZorDialog dialog(instance_, host, hide);
        return dialog.DoModal();
    }

private:
    HINSTANCE instance_ = nullptr;
};

}  // namespace

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR, int) {
    ZorApp app;
    return app.InitInstance();
}
