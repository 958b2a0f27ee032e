// Configuration files, directories, environment, file enumeration and the
// debugger channel.
#include "os/win32/win32_internal.h"

#include <shlobj.h>

namespace zor::os {

using win32::W;

namespace {

// Environment names are ASCII in this code; longer ones are refused.
bool wide_name(const char* name, wchar_t* out, std::uint32_t cap) {
    std::uint32_t i = 0;
    for (; name[i]; ++i) {
        if (i + 1 >= cap) return false;
        out[i] = static_cast<unsigned char>(name[i]);
    }
    out[i] = 0;
    return true;
}

std::uint32_t length(const wchar_t* s) {
    std::uint32_t n = 0;
    while (s[n]) ++n;
    return n;
}

bool copy_dir(const wchar_t* dir, char16_t* buf, std::uint32_t size) {
    std::uint32_t n = length(dir);
    if (n > 0 && (dir[n - 1] == L'\\' || dir[n - 1] == L'/')) --n;
    if (n == 0 || n >= size) return false;
    for (std::uint32_t i = 0; i < n; ++i) buf[i] = static_cast<char16_t>(dir[i]);
    buf[n] = 0;
    return true;
}

}  // namespace

std::uint32_t ini_read_string(const char16_t* section, const char16_t* key, const char16_t* def,
                              char16_t* out, std::uint32_t outSize, const char16_t* file) {
    if (!out || outSize == 0) return 0;
    return GetPrivateProfileStringW(W(section), W(key), def ? W(def) : L"", W(out), outSize, W(file));
}

std::uint32_t ini_read_int(const char16_t* section, const char16_t* key, std::int32_t def,
                           const char16_t* file) {
    return GetPrivateProfileIntW(W(section), W(key), def, W(file));
}

bool startup_dir(char16_t* buf, std::uint32_t size) {
    wchar_t path[MAX_PATH * 4];
    DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH * 4);
    if (n == 0 || n >= MAX_PATH * 4) return false;
    while (n > 0 && path[n - 1] != L'\\' && path[n - 1] != L'/') --n;
    if (n == 0) return false;
    path[n] = 0;  // copy_dir drops the separator itself
    return copy_dir(path, buf, size);
}

bool config_dir(char16_t* buf, std::uint32_t size) { return startup_dir(buf, size); }

// %APPDATA% first (users and tests can point it anywhere), then the shell's
// roaming application-data folder. shell32 is loaded only for that fallback.
bool user_appdata_dir(char16_t* buf, std::uint32_t size) {
    wchar_t dir[MAX_PATH * 4];
    DWORD n = GetEnvironmentVariableW(L"APPDATA", dir, MAX_PATH * 4);
    if (n > 0 && n < MAX_PATH * 4) return copy_dir(dir, buf, size);

    using GetFolderPath = HRESULT(WINAPI*)(HWND, int, HANDLE, DWORD, LPWSTR);
    HMODULE shell = LoadLibraryW(L"shell32.dll");
    if (!shell) return false;
    auto get = reinterpret_cast<GetFolderPath>(
        reinterpret_cast<void*>(GetProcAddress(shell, "SHGetFolderPathW")));
    bool ok = get && SUCCEEDED(get(nullptr, CSIDL_APPDATA, nullptr, 0, dir)) && copy_dir(dir, buf, size);
    FreeLibrary(shell);
    return ok;
}

bool user_state_dir(char16_t* buf, std::uint32_t size) { return user_appdata_dir(buf, size); }

// Files only: a directory whose name happens to match is not a module.
void enumerate_files(const char16_t* pattern, FileVisitor visit, void* ctx) {
    if (!pattern) return;
    WIN32_FIND_DATAW fd;
    HANDLE find = FindFirstFileW(W(pattern), &fd);
    if (find == INVALID_HANDLE_VALUE) return;
    do {
        if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) continue;
        visit(ctx, reinterpret_cast<const char16_t*>(fd.cFileName));
    } while (FindNextFileW(find, &fd));
    FindClose(find);
}

void debug_output(const char16_t* text) {
    if (text) OutputDebugStringW(W(text));
}

// A value that does not fit is refused rather than cut.
bool env_get(const char* name, char16_t* buf, std::uint32_t size) {
    if (size) buf[0] = 0;
    wchar_t wname[256];
    if (!wide_name(name, wname, 256)) return false;
    SetLastError(0);
    DWORD n = GetEnvironmentVariableW(wname, W(buf), size);
    if (n >= size) {
        if (size) buf[0] = 0;
        return false;
    }
    return n > 0 || GetLastError() != ERROR_ENVVAR_NOT_FOUND;
}

bool env_set(const char* name, const char16_t* value) {
    wchar_t wname[256];
    if (!wide_name(name, wname, 256)) return false;
    return SetEnvironmentVariableW(wname, value ? W(value) : nullptr) != 0;
}

bool file_protected(const char16_t*) { return false; }

bool file_is_own(const char16_t* path) {
    const DWORD a = path ? GetFileAttributesW(W(path)) : INVALID_FILE_ATTRIBUTES;
    return a != INVALID_FILE_ATTRIBUTES && !(a & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT));
}

}  // namespace zor::os
