// A module whose own thread faults outside any guard, as a driver's worker
// thread might: the process ends, and the log must still hold every entry
// queued before.
#include "os/os.h"
#include "zor/zor_module.h"

namespace {
// In the never-mapped first page; not null, so no sanitizer stops it first.
volatile int* volatile g_bad = reinterpret_cast<volatile int*>(16);

std::uint32_t Fault(void*) {
    *g_bad = 1;
    return 0;
}
}  // namespace

ZOR_EXPORT void fault_thread_start() { zor::os::thread_create(Fault, nullptr); }
