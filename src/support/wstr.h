// Bounded UTF-16 string helpers for the fixed buffers of the host.
#pragma once

#include <cstddef>

namespace zor {

std::size_t wlen(const char16_t* s);
// Length of s within at most max units; max when no terminator is found.
std::size_t wnlen(const char16_t* s, std::size_t max);
// Copies with truncation into dst of cap units; always terminated.
void wcopy(char16_t* dst, std::size_t cap, const char16_t* src);
// Appends with truncation; always terminated.
void wappend(char16_t* dst, std::size_t cap, const char16_t* src);
// Case-insensitive compare (_wcsicmp semantics for the Basic Latin and
// Latin-1 letters): <0, 0, >0.
int wicmp(const char16_t* a, const char16_t* b);
bool wequal(const char16_t* a, const char16_t* b);
// The part after the last '\\' (and '/' when slashes is true).
const char16_t* wfile_part(const char16_t* path, bool slashes = false);

}  // namespace zor
