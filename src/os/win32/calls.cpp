// The table of fallible calls, filled with the native functions. Constant
// initialised, so it is valid before any static constructor runs.
#include "os/win32/win32_internal.h"

namespace zor::os {

namespace {
constexpr Calls kNative = {
    win32::module_load,     win32::module_symbol,     win32::module_free,
    win32::mapping_create,  win32::mapping_map,       win32::mapping_unmap,
    win32::process_open,    win32::handle_dup_to,     win32::handle_dup_from,
    win32::handle_close,    win32::pipe_read,         win32::pipe_write,
    win32::thread_create,   win32::thread_wait,       win32::thread_cancel_io,
    win32::priority_class_set, win32::thread_priority_set,
    win32::file_open_append, win32::file_write,
    win32::handle_close_in,
    win32::mapping_create_named,
};
}  // namespace

Calls calls = kNative;

const Calls& native_calls() { return kNative; }

}  // namespace zor::os
