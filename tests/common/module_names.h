// Which loaded file an address lies in, and an address that is never
// mapped: what the fault guard tests compare a caught fault against.
#pragma once

#include <string>

#include "os/os.h"

namespace zor::test {

// The file part of the module holding `address`, lower-cased; "unknown".
inline std::u16string ModuleFileOf(const void* address) {
    os::Region r{};
    char16_t name[1024];
    if (!os::region_query(address, &r) || !os::module_file_name(r.alloc_base, name, 1024))
        return u"unknown";
    std::u16string path(name);
    std::u16string file = path.substr(path.find_last_of(u"\\/") + 1);  // npos + 1 == 0
    for (char16_t& c : file)
        if (c >= u'A' && c <= u'Z') c += 32;
    return file;
}

// In the never-mapped first page, hidden from the compiler.
inline volatile int* volatile kBadAddress = reinterpret_cast<volatile int*>(16);

}  // namespace zor::test
