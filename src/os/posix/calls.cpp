// The table of fallible calls, filled with the native functions. Constant
// initialised, so it is valid before any static constructor runs.
#include "os/posix/posix_internal.h"

namespace zor::os {

namespace {
constexpr Calls kNative = {
    .module_load = posix::module_load,
    .module_symbol = posix::module_symbol,
    .module_free = posix::module_free,
    .mapping_create = posix::mapping_create,
    .mapping_map = posix::mapping_map,
    .mapping_unmap = posix::mapping_unmap,
    .process_open = posix::process_open,
    .handle_dup_to = posix::handle_dup_to,
    .handle_dup_from = posix::handle_dup_from,
    .handle_close = posix::handle_close,
    .pipe_read = posix::pipe_read,
    .pipe_write = posix::pipe_write,
    .thread_create = posix::thread_create,
    .thread_wait = posix::thread_wait,
    .thread_cancel_io = posix::thread_cancel_io,
    .priority_class_set = posix::priority_class_set,
    .thread_priority_set = posix::thread_priority_set,
    .file_open_append = posix::file_open_append,
    .file_write = posix::file_write,
    .handle_close_in = posix::handle_close_in,
    .mapping_create_named = posix::mapping_create_named,
};
}  // namespace

Calls calls = kNative;

const Calls& native_calls() { return kNative; }

}  // namespace zor::os
