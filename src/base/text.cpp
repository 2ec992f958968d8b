#include "base/text.h"

#include <windows.h>

#include <cstring>
#include <type_traits>

#include "base/text_arena.h"

namespace {

template <typename Unit> size_t length_bounded(const Unit* s, size_t bound) {
    if (!s) return 0;
    size_t n = 0;
    while (n < bound && s[n]) ++n;
    return n;
}

template <typename Unit> size_t copy(Unit* out, size_t capacity, const Unit* source) {
    if (!out || capacity == 0) return 0;
    size_t n = length_bounded(source, capacity - 1);
    memcpy(out, source ? source : out, n * sizeof(Unit));
    out[n] = 0;
    return n;
}

template <typename Unit> size_t append(Unit* out, size_t capacity, const Unit* source) {
    if (!out || capacity == 0) return 0;
    size_t held = length_bounded(out, capacity - 1);
    return held + copy(out + held, capacity - held, source);
}

// The source goes in front; what the buffer held moves up and loses its end when the two do
// not fit together.
template <typename Unit> size_t prepend(Unit* out, size_t capacity, const Unit* source) {
    if (!out || capacity == 0) return 0;
    size_t added = length_bounded(source, capacity - 1);
    size_t held = length_bounded(out, capacity - 1 - added);
    memmove(out + added, out, held * sizeof(Unit));
    memcpy(out, source ? source : out, added * sizeof(Unit));
    out[added + held] = 0;
    return added + held;
}

void* heap_allocate(size_t bytes) {
    return HeapAlloc(GetProcessHeap(), 0, bytes);
}

template <typename Unit, typename Allocate> Unit* duplicate(const Unit* s, Allocate allocate) {
    if (!s) return nullptr;
    size_t bytes = (length_bounded(s, SIZE_MAX) + 1) * sizeof(Unit);
    auto* block = static_cast<Unit*>(allocate(bytes));
    if (block) memcpy(block, s, bytes);
    return block;
}

template <typename Unit, typename Allocate> Unit* allocate_text(size_t units, Allocate allocate) {
    if (units == 0) units = 1;
    if (units > SIZE_MAX / sizeof(Unit)) return nullptr;
    auto* block = static_cast<Unit*>(allocate(units * sizeof(Unit)));
    if (block) {
        block[0] = 0;
        block[units - 1] = 0;
    }
    return block;
}

template <typename Unit> void wipe(Unit* s) {
    if (!s) return;
    volatile Unit* p = s;
    while (*p) *p++ = 0;
}

// Wide text compares by code point: a pair becomes its supplementary code point, and a lone
// surrogate stays its own unit value so that distinct texts never compare equal.
template <typename Unit> uint32_t next_code_point(const Unit* s, size_t length, size_t& i) {
    if (i >= length) return 0;
    uint32_t unit = static_cast<std::make_unsigned_t<Unit>>(s[i++]);
    if constexpr (sizeof(Unit) == 2) {
        if (unit - 0xD800 < 0x400 && i < length) {
            uint32_t trail = static_cast<uint16_t>(s[i]);
            if (trail - 0xDC00 < 0x400) {
                ++i;
                return 0x10000 + ((unit - 0xD800) << 10) + (trail - 0xDC00);
            }
        }
    }
    return unit;
}

inline uint32_t ascii_upper(uint32_t c) {
    return c - 'a' < 26 ? c - 32 : c;
}

template <bool Fold, typename Unit>
int compare(const Unit* a, size_t a_length, const Unit* b, size_t b_length) {
    if (!a) a_length = 0;
    if (!b) b_length = 0;
    size_t i = 0, j = 0;
    for (;;) {
        uint32_t ca = next_code_point(a, a_length, i);
        uint32_t cb = next_code_point(b, b_length, j);
        if constexpr (Fold) {
            ca = ascii_upper(ca);
            cb = ascii_upper(cb);
        }
        if (ca != cb) return ca < cb ? -1 : 1;
        if (ca == 0) return 0;
    }
}

template <typename Unit> const Unit* find_ascii_nocase(const Unit* text, const Unit* needle) {
    if (!needle || !*needle) return text;
    if (!text) return nullptr;
    for (; *text; ++text) {
        size_t k = 0;
        while (needle[k] && ascii_upper(static_cast<std::make_unsigned_t<Unit>>(text[k])) ==
                                ascii_upper(static_cast<std::make_unsigned_t<Unit>>(needle[k])))
            ++k;
        if (!needle[k]) return text;
    }
    return nullptr;
}

template <typename Unit> const Unit* find_last(const Unit* s, Unit c) {
    const Unit* found = nullptr;
    if (s)
        for (; *s; ++s)
            if (*s == c) found = s;
    return found;
}

} // namespace

size_t text_length(const wchar_t* s) {
    return length_bounded(s, SIZE_MAX);
}
size_t utf8_length(const char* s) {
    return length_bounded(s, SIZE_MAX);
}
size_t text_length_bounded(const wchar_t* s, size_t bound) {
    return length_bounded(s, bound);
}
size_t utf8_length_bounded(const char* s, size_t bound) {
    return length_bounded(s, bound);
}

size_t text_copy(wchar_t* out, size_t capacity, const wchar_t* source) {
    return copy(out, capacity, source);
}
size_t utf8_copy(char* out, size_t capacity, const char* source) {
    return copy(out, capacity, source);
}
size_t text_append(wchar_t* out, size_t capacity, const wchar_t* source) {
    return append(out, capacity, source);
}
size_t utf8_append(char* out, size_t capacity, const char* source) {
    return append(out, capacity, source);
}
size_t text_prepend(wchar_t* out, size_t capacity, const wchar_t* source) {
    return prepend(out, capacity, source);
}
size_t utf8_prepend(char* out, size_t capacity, const char* source) {
    return prepend(out, capacity, source);
}

wchar_t* text_duplicate(const wchar_t* s) {
    return duplicate(s, heap_allocate);
}
char* utf8_duplicate(const char* s) {
    return duplicate(s, heap_allocate);
}

wchar_t* text_duplicate_arena(TextAllocator& arena, const wchar_t* s) {
    return duplicate(s, [&](size_t bytes) { return arena.allocate(bytes); });
}

char* utf8_duplicate_arena(TextAllocator& arena, const char* s) {
    return duplicate(s, [&](size_t bytes) { return arena.allocate(bytes); });
}

wchar_t* text_allocate(size_t units) {
    return allocate_text<wchar_t>(units, heap_allocate);
}
char* utf8_allocate(size_t units) {
    return allocate_text<char>(units, heap_allocate);
}

wchar_t* text_allocate_arena(TextAllocator& arena, size_t units) {
    return allocate_text<wchar_t>(units, [&](size_t bytes) { return arena.allocate(bytes); });
}

char* utf8_allocate_arena(TextAllocator& arena, size_t units) {
    return allocate_text<char>(units, [&](size_t bytes) { return arena.allocate(bytes); });
}

void text_free(void* block) {
    if (block) HeapFree(GetProcessHeap(), 0, block);
}

void text_wipe(wchar_t* s) {
    wipe(s);
}
void utf8_wipe(char* s) {
    wipe(s);
}

int text_compare(const wchar_t* a, const wchar_t* b) {
    return compare<false>(a, SIZE_MAX, b, SIZE_MAX);
}
int text_compare(const wchar_t* a, size_t a_length, const wchar_t* b, size_t b_length) {
    return compare<false>(a, a_length, b, b_length);
}
int utf8_compare(const char* a, const char* b) {
    return compare<false>(a, SIZE_MAX, b, SIZE_MAX);
}
int utf8_compare(const char* a, size_t a_length, const char* b, size_t b_length) {
    return compare<false>(a, a_length, b, b_length);
}

int text_compare_ascii_nocase(const wchar_t* a, const wchar_t* b) {
    return compare<true>(a, SIZE_MAX, b, SIZE_MAX);
}
int text_compare_ascii_nocase(const wchar_t* a, size_t a_length, const wchar_t* b,
                              size_t b_length) {
    return compare<true>(a, a_length, b, b_length);
}
int utf8_compare_ascii_nocase(const char* a, const char* b) {
    return compare<true>(a, SIZE_MAX, b, SIZE_MAX);
}
int utf8_compare_ascii_nocase(const char* a, size_t a_length, const char* b, size_t b_length) {
    return compare<true>(a, a_length, b, b_length);
}

const wchar_t* text_find_ascii_nocase(const wchar_t* text, const wchar_t* needle) {
    return find_ascii_nocase(text, needle);
}
const char* utf8_find_ascii_nocase(const char* text, const char* needle) {
    return find_ascii_nocase(text, needle);
}

const wchar_t* text_find_last(const wchar_t* s, wchar_t c) {
    return find_last(s, c);
}
const char* utf8_find_last(const char* s, char c) {
    return find_last(s, c);
}
