#include "base/upcase.h"

#include "base/upcase_table.h"
#include "base/utf.h"

uint32_t code_point_upcase(uint32_t cp) {
    if (cp < upcase_direct_size) return upcase_direct[cp];
    size_t low = 0, high = upcase_pair_count;
    while (low < high) {
        size_t middle = (low + high) / 2;
        if (upcase_pairs[middle].from < cp)
            low = middle + 1;
        else
            high = middle;
    }
    return low < upcase_pair_count && upcase_pairs[low].from == cp ? upcase_pairs[low].to : cp;
}

namespace {

// Malformed input keeps its own identity, placed above every code point, so that two
// different malformed texts never compare equal.
constexpr uint32_t malformed = 0x80000000;

uint32_t next_upper(const wchar_t* s, size_t length, size_t& i) {
    if (i >= length) return 0;
    size_t used;
    uint32_t cp = utf16_decode(s + i, length - i, &used);
    if (cp == code_point_invalid)
        cp = malformed | static_cast<uint16_t>(s[i]);
    else
        cp = code_point_upcase(cp);
    i += used;
    return cp;
}

uint32_t next_upper(const char* s, size_t length, size_t& i) {
    if (i >= length) return 0;
    size_t used;
    uint32_t cp = utf8_decode(s + i, length - i, &used);
    if (cp == code_point_invalid)
        cp = malformed | static_cast<uint8_t>(s[i]);
    else
        cp = code_point_upcase(cp);
    i += used;
    return cp;
}

template <typename Unit>
int compare_nocase(const Unit* a, size_t a_length, const Unit* b, size_t b_length) {
    if (!a) a_length = 0;
    if (!b) b_length = 0;
    size_t i = 0, j = 0;
    for (;;) {
        uint32_t ca = next_upper(a, a_length, i);
        uint32_t cb = next_upper(b, b_length, j);
        if (ca != cb) return ca < cb ? -1 : 1;
        if (ca == 0) return 0;
    }
}

} // namespace

int text_compare_nocase(const wchar_t* a, const wchar_t* b) {
    return compare_nocase(a, SIZE_MAX, b, SIZE_MAX);
}
int text_compare_nocase(const wchar_t* a, size_t a_length, const wchar_t* b, size_t b_length) {
    return compare_nocase(a, a_length, b, b_length);
}
int utf8_compare_nocase(const char* a, const char* b) {
    return compare_nocase(a, SIZE_MAX, b, SIZE_MAX);
}
int utf8_compare_nocase(const char* a, size_t a_length, const char* b, size_t b_length) {
    return compare_nocase(a, a_length, b, b_length);
}
