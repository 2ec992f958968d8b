#pragma once
#include <cstddef>
#include <cstdint>

struct TextAllocator;

// Text companions, wide (UTF-16) and narrow (UTF-8) twins. A null text reads as empty wherever
// a text is read. Lengths and capacities count code units.

size_t text_length(const wchar_t* s);
size_t utf8_length(const char* s);
// Stops at the bound: never reads more than `bound` units.
size_t text_length_bounded(const wchar_t* s, size_t bound);
size_t utf8_length_bounded(const char* s, size_t bound);

// Bounded copy: at most capacity - 1 units, always terminated (unless capacity is 0). Append
// and prepend work the same way on what the buffer already holds. Each returns the length of
// the text now in the buffer; it is shorter than the sum of the parts when they did not fit.
size_t text_copy(wchar_t* out, size_t capacity, const wchar_t* source);
size_t utf8_copy(char* out, size_t capacity, const char* source);
size_t text_append(wchar_t* out, size_t capacity, const wchar_t* source);
size_t utf8_append(char* out, size_t capacity, const char* source);
size_t text_prepend(wchar_t* out, size_t capacity, const wchar_t* source);
size_t utf8_prepend(char* out, size_t capacity, const char* source);

// A new copy of s (length + 1 units) from the process heap or the allocator; null for a null
// source or when memory is short.
wchar_t* text_duplicate(const wchar_t* s);
char* utf8_duplicate(const char* s);
wchar_t* text_duplicate_arena(TextAllocator& arena, const wchar_t* s);
char* utf8_duplicate_arena(TextAllocator& arena, const char* s);

// A block of `units` units (at least one) whose first and last units are zero, or null.
wchar_t* text_allocate(size_t units);
char* utf8_allocate(size_t units);
wchar_t* text_allocate_arena(TextAllocator& arena, size_t units);
char* utf8_allocate_arena(TextAllocator& arena, size_t units);

// Frees a block that a heap form of the text family returned (null is fine).
void text_free(void* block);

// Overwrites every unit of s with zero, in a way the compiler may not drop: used for passwords.
void text_wipe(wchar_t* s);
void utf8_wipe(char* s);

// Comparisons give -1, 0 or 1. The forms with lengths read at most that many units of each
// side; the end of a buffer counts as a zero character. Wide text compares by code point
// (a surrogate pair sorts above U+FFFF), narrow text by byte, which is the same order for
// well-formed UTF-8.
int text_compare(const wchar_t* a, const wchar_t* b);
int text_compare(const wchar_t* a, size_t a_length, const wchar_t* b, size_t b_length);
int utf8_compare(const char* a, const char* b);
int utf8_compare(const char* a, size_t a_length, const char* b, size_t b_length);

// As compare, with "a"-"z" folded to "A"-"Z" and nothing else folded.
int text_compare_ascii_nocase(const wchar_t* a, const wchar_t* b);
int text_compare_ascii_nocase(const wchar_t* a, size_t a_length, const wchar_t* b, size_t b_length);
int utf8_compare_ascii_nocase(const char* a, const char* b);
int utf8_compare_ascii_nocase(const char* a, size_t a_length, const char* b, size_t b_length);

// The first position at which `needle` occurs, ASCII case-insensitively, or null. An empty
// needle matches at the start of the text.
const wchar_t* text_find_ascii_nocase(const wchar_t* text, const wchar_t* needle);
const char* utf8_find_ascii_nocase(const char* text, const char* needle);

// The last occurrence of unit c in s, or null.
const wchar_t* text_find_last(const wchar_t* s, wchar_t c);
const char* utf8_find_last(const char* s, char c);

inline wchar_t* text_find_last(wchar_t* s, wchar_t c) {
    return const_cast<wchar_t*>(text_find_last(static_cast<const wchar_t*>(s), c));
}
inline char* utf8_find_last(char* s, char c) {
    return const_cast<char*>(utf8_find_last(static_cast<const char*>(s), c));
}
