// The application object: the Windows side of the start-up sequence.
#include <windows.h>

#include "host/app.h"
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

class ZorApp : public zor::DialogShell {
public:
    int InitInstance() {
        instance_ = GetModuleHandleW(nullptr);
        const wchar_t* tail = CommandTail(GetCommandLineW());
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
