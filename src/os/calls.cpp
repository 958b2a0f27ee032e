// The table of fallible calls, filled with the platform's native functions.
// Constant initialised, so it is valid before any static constructor runs.
#include <cstring>

#ifdef _WIN32
#include "os/win32/win32_internal.h"
namespace zor::os {
namespace native = win32;
}
#else
#include "os/posix/posix_internal.h"
namespace zor::os {
namespace native = posix;
}
#endif

namespace zor::os {

namespace {
constexpr Calls kNative = {
#define ZOR_OS_CALL(ret, name, params, args, fails) .name = native::name,
#include "os/os_calls.h"
#undef ZOR_OS_CALL
};

// Stand-ins that fail at once, for fail_call.
namespace failing {
#define ZOR_OS_CALL(ret, name, params, args, fails) \
    ret name params { return fails; }
#include "os/os_calls.h"
#undef ZOR_OS_CALL
}  // namespace failing
}  // namespace

Calls calls = kNative;

const Calls& native_calls() { return kNative; }

bool fail_call(const char* call) {
#define ZOR_OS_CALL(ret, name, params, args, fails) \
    if (std::strcmp(call, #name) == 0) return calls.name = failing::name, true;
#include "os/os_calls.h"
#undef ZOR_OS_CALL
    return false;
}

}  // namespace zor::os
