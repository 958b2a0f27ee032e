// The table of fallible calls, filled with the native functions. Constant
// initialised, so it is valid before any static constructor runs.
#include "os/posix/posix_internal.h"

namespace zor::os {

namespace {
constexpr Calls kNative = {
    posix::module_load,     posix::module_symbol,     posix::module_free,
    posix::mapping_create,  posix::mapping_map,       posix::mapping_unmap,
    posix::process_open,    posix::handle_dup_to,     posix::handle_dup_from,
    posix::handle_close,    posix::pipe_read,         posix::pipe_write,
    posix::thread_create,   posix::thread_wait,       posix::thread_cancel_io,
    posix::priority_class_set, posix::thread_priority_set,
};
}  // namespace

Calls calls = kNative;

const Calls& native_calls() { return kNative; }

}  // namespace zor::os
