#pragma once
#include <cstdarg>
#include <cstddef>

struct TextAllocator;

// The printf-like engine of the system, in two twins: UTF-16 format and output, and UTF-8
// format and output. Beside the usual integer, character and string conversions it has
//   %T  time stamp (100 ns since 1601)   "YYYY-MM-DD HH:MM:SS.mmm"
//   %t  Unix time (seconds since 1970)   "YYYY-MM-DD HH:MM:SS"
//   %R  %r  pointer to a GUID            "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", upper / lower
//   %P  %p  64-bit hexadecimal, upper / lower, no zero fill
// and the size prefixes h, l, L, ll, Ll, I8, I16, I32, I64; %hs is a UTF-8 string and %ls a
// UTF-16 string in both engines. There is no floating point: %f and every other unknown
// conversion is consumed and writes nothing.
//
// Output goes to a counted buffer: units are stored while they fit, the text is terminated at
// min(count, capacity - 1) unless capacity is 0, and the result is the length of the complete
// text whether or not it fitted. A null format is empty; a null string argument prints as "".
// The engines never allocate and keep no state.
size_t text_vformat(wchar_t* out, size_t capacity, const wchar_t* format, va_list args);
size_t text_format(wchar_t* out, size_t capacity, const wchar_t* format, ...);
size_t utf8_vformat(char* out, size_t capacity, const char* format, va_list args);
size_t utf8_format(char* out, size_t capacity, const char* format, ...);

// A new formatted string from the process heap (free it with text_free) or from the
// allocator; null when memory is short. Short results cost one allocation and one pass.
wchar_t* text_vformat_alloc(const wchar_t* format, va_list args);
wchar_t* text_format_alloc(const wchar_t* format, ...);
wchar_t* text_vformat_arena(TextAllocator& arena, const wchar_t* format, va_list args);
wchar_t* text_format_arena(TextAllocator& arena, const wchar_t* format, ...);
