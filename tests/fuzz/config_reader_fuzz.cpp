// The configuration reader on hand-edited INI files: the input is split
// (at a point its first byte names) into the installation file and the
// per-user file, and the host reads its keys from both.
#include <cstdio>
#include <string>
#include <unistd.h>

#include "common/fuzz_host.h"
#include "host/config.h"
#include "support/wstr.h"

namespace {

std::u16string WriteFile(const char* tag, const std::uint8_t* p, std::size_t n) {
    const std::string path = "/tmp/zor_fuzz_" + std::to_string(getpid()) + tag + ".ini";
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f) {
        std::fwrite(p, 1, n, f);
        std::fclose(f);
    }
    return std::u16string(path.begin(), path.end());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zor::test::FuzzBytes in{data, size};
    const std::size_t split = in.Take<std::uint8_t>() * in.n / 256;
    const std::u16string a = WriteFile("a", in.p, split), b = WriteFile("b", in.p + split, in.n - split);
    zor::test::FuzzHost fh;
    zor::wcopy(fh.host.config.szIni, 260, a.c_str());
    zor::wcopy(fh.host.config.szIniW, 260, b.c_str());
    zor::wcopy(fh.host.config.szExe, 260, u"/nonexistent/");
    zor::ReadConfigFiles(fh.host);
    return 0;
}
