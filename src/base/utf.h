#pragma once
#include <cstddef>
#include <cstdint>

struct TextAllocator;

// The value a malformed sequence decodes to: a lone or reversed surrogate, a stray byte.
constexpr uint32_t code_point_invalid = 0xFFFFFFFF;

// Decodes the character at s, of which at most `available` units may be read (pass SIZE_MAX for
// zero-terminated text: a zero unit never continues a sequence, so decoding never reads past it).
// Stores the units consumed in *used; a malformed unit decodes as code_point_invalid and consumes
// one unit.
inline uint32_t utf16_decode(const wchar_t* s, size_t available, size_t* used) {
    uint32_t unit = static_cast<uint16_t>(s[0]);
    if (unit - 0xD800 < 0x400 && available >= 2) {
        uint32_t trail = static_cast<uint16_t>(s[1]);
        if (trail - 0xDC00 < 0x400) {
            *used = 2;
            return 0x10000 + ((unit - 0xD800) << 10) + (trail - 0xDC00);
        }
    }
    *used = 1;
    return unit - 0xD800 < 0x800 ? code_point_invalid : unit;
}

// Accepts a lead byte 0x00-0x7F, 0xC0-0xDF, 0xE0-0xEF or 0xF0-0xF7 with its continuation bytes
// (0x80-0xBF). Overlong forms are accepted as they stand; anything else is one invalid byte.
inline uint32_t utf8_decode(const char* s, size_t available, size_t* used) {
    uint32_t lead = static_cast<uint8_t>(s[0]);
    *used = 1;
    if (lead < 0x80) return lead;
    size_t more;
    uint32_t cp;
    if (lead - 0xC0 < 0x20) {
        more = 1;
        cp = lead & 0x1F;
    } else if (lead - 0xE0 < 0x10) {
        more = 2;
        cp = lead & 0x0F;
    } else if (lead - 0xF0 < 0x08) {
        more = 3;
        cp = lead & 0x07;
    } else {
        return code_point_invalid;
    }
    if (available <= more) return code_point_invalid;
    for (size_t i = 1; i <= more; ++i) {
        uint32_t next = static_cast<uint8_t>(s[i]);
        if (next - 0x80 >= 0x40) return code_point_invalid;
        cp = (cp << 6) | (next & 0x3F);
    }
    *used = more + 1;
    return cp;
}

// Code points above U+10FFFF (and the invalid value) become U+FFFF. Returns the units written.
inline size_t utf16_encode(uint32_t cp, wchar_t out[2]) {
    if (cp < 0x10000) {
        out[0] = static_cast<wchar_t>(cp);
        return 1;
    }
    if (cp <= 0x10FFFF) {
        cp -= 0x10000;
        out[0] = static_cast<wchar_t>(0xD800 + (cp >> 10));
        out[1] = static_cast<wchar_t>(0xDC00 + (cp & 0x3FF));
        return 2;
    }
    out[0] = static_cast<wchar_t>(0xFFFF);
    return 1;
}

// The original six-byte scheme: up to 0x7FFFFFFE in 1 to 6 bytes; the invalid value (and
// anything else too large) is the single byte 0xFF. Returns the bytes written.
inline size_t utf8_encode(uint32_t cp, char out[6]) {
    if (cp < 0x80) {
        out[0] = static_cast<char>(cp);
        return 1;
    }
    size_t n;
    uint32_t lead;
    if (cp < 0x800) {
        n = 2;
        lead = 0xC0;
    } else if (cp < 0x10000) {
        n = 3;
        lead = 0xE0;
    } else if (cp < 0x200000) {
        n = 4;
        lead = 0xF0;
    } else if (cp < 0x4000000) {
        n = 5;
        lead = 0xF8;
    } else if (cp <= 0x7FFFFFFE) {
        n = 6;
        lead = 0xFC;
    } else {
        out[0] = static_cast<char>(0xFF);
        return 1;
    }
    for (size_t i = n - 1; i > 0; --i) {
        out[i] = static_cast<char>(0x80 | (cp & 0x3F));
        cp >>= 6;
    }
    out[0] = static_cast<char>(lead | cp);
    return n;
}

// Transcoders. Input ends after `length` units or at the first zero character, whichever comes
// first. Output follows the counted-buffer rule of the formatting engines: units are stored
// while they fit, the result is terminated at min(count, capacity - 1) when capacity is not
// zero, and the count of units the whole result needs (without terminator) is returned.
size_t utf8_to_text(wchar_t* out, size_t capacity, const char* in, size_t length = SIZE_MAX);
size_t text_to_utf8(char* out, size_t capacity, const wchar_t* in, size_t length = SIZE_MAX);

// Allocating forms: a new terminated string from the process heap (free it with text_free) or
// from the allocator, or null when memory is short. A null input gives an empty string.
wchar_t* utf8_to_text_alloc(const char* in, size_t length = SIZE_MAX);
char* text_to_utf8_alloc(const wchar_t* in, size_t length = SIZE_MAX);
wchar_t* utf8_to_text_arena(TextAllocator& arena, const char* in, size_t length = SIZE_MAX);
char* text_to_utf8_arena(TextAllocator& arena, const wchar_t* in, size_t length = SIZE_MAX);
