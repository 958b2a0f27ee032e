// printf-style formatting of UTF-16 formats into a fixed UTF-16 buffer.
// %s takes a UTF-16 string (char16_t*); %S a narrow UTF-8 string.
// Supported: flags '-' '0' '+' ' ' '#', width and precision (also '*'),
// length l ll h z I64, conversions d i u x X o c s S p f F e E g G a A %.
// Floating conversions print what printf prints, without the C runtime; a
// NaN prints without its sign.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace zor {

// Writes at most cap-1 units and always terminates (cap > 0). Returns the
// units written, excluding the terminator.
std::size_t wformat(char16_t* out, std::size_t cap, const char16_t* fmt, ...);
std::size_t vwformat(char16_t* out, std::size_t cap, const char16_t* fmt,
                     std::va_list ap);

// UTF-16 -> UTF-8, bounded, always terminated. Returns bytes written.
std::size_t utf16_to_utf8(const char16_t* in, char* out, std::size_t cap);
// UTF-8 -> UTF-16, bounded, always terminated. Returns units written.
std::size_t utf8_to_utf16(const char* in, char16_t* out, std::size_t cap);

}  // namespace zor
