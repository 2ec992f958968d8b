#pragma once
#include <cstddef>
#include <cstdint>

// The simple upper-case form of a code point (itself when it has none), as Windows' own case
// tables give it for the BMP.
uint32_t code_point_upcase(uint32_t cp);

// Case-insensitive comparison: each code point is mapped to upper case before comparing.
// Result -1, 0 or 1; the forms with lengths treat the end of a buffer as a zero character.
// A malformed unit or byte compares as itself, above every code point.
int text_compare_nocase(const wchar_t* a, const wchar_t* b);
int text_compare_nocase(const wchar_t* a, size_t a_length, const wchar_t* b, size_t b_length);
int utf8_compare_nocase(const char* a, const char* b);
int utf8_compare_nocase(const char* a, size_t a_length, const char* b, size_t b_length);
