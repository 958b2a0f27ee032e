// Path helpers of the host.
#pragma once

#include <cstdint>

namespace zor {

// Company folder under the per-user application-data folder.
inline constexpr const char16_t* kCompanyFolder = u"ZOR";

// Directory of the running executable into a buffer of 260 units.
bool FU_GetProcessStartupDir(char16_t* buffer);
// Makes sure the path ends with `separator` (when it fits); returns buffer.
char16_t* FU_FormatPath(char16_t* buffer, char16_t separator);
// Expands "?{UserCompanyAppData}" at the start of the path, in place, into
// the per-user application-data folder + company folder + backslash.
// False when the token is unknown, the folder is not available or the
// result does not fit in `size` units (the buffer is then unchanged).
bool FU_ReplacePath(char16_t* buffer, std::uint32_t size);

}  // namespace zor
