#include "protocol/utf8.h"

#include <stdint.h>

namespace zun {

namespace {

constexpr uint32_t kReplacement = 0xFFFD;

// Decodes one code point at text[i]; advances i past it. Malformed input yields U+FFFD and
// consumes exactly one byte, so that a damaged sequence costs one replacement per byte.
uint32_t decode_one(const unsigned char* text, size_t length, size_t& i) {
    unsigned lead = text[i];
    if (lead < 0x80) {
        i += 1;
        return lead;
    }
    size_t need;
    uint32_t cp, min;
    if (lead >= 0xC2 && lead <= 0xDF) {
        need = 1, cp = lead & 0x1F, min = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        need = 2, cp = lead & 0x0F, min = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        need = 3, cp = lead & 0x07, min = 0x10000;
    } else {
        i += 1; // continuation byte, C0/C1 (always overlong) or F5..FF
        return kReplacement;
    }
    if (length - i <= need) {
        i += 1;
        return kReplacement;
    }
    for (size_t k = 1; k <= need; ++k) {
        unsigned c = text[i + k];
        if ((c & 0xC0) != 0x80) {
            i += 1;
            return kReplacement;
        }
        cp = (cp << 6) | (c & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        i += 1;
        return kReplacement;
    }
    i += need + 1;
    return cp;
}

// Decodes one code point of UTF-16 at text[i]; advances i past it.
uint32_t decode_one16(const wchar_t* text, size_t length, size_t& i) {
    uint32_t u = static_cast<uint16_t>(text[i++]);
    if (u < 0xD800 || u > 0xDFFF) return u;
    if (u <= 0xDBFF && i < length) {
        uint32_t low = static_cast<uint16_t>(text[i]);
        if (low >= 0xDC00 && low <= 0xDFFF) {
            ++i;
            return 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00);
        }
    }
    return kReplacement;
}

} // namespace

size_t utf8_to_utf16_length(const char* text, size_t length) {
    auto* p = reinterpret_cast<const unsigned char*>(text);
    size_t units = 0;
    for (size_t i = 0; i < length;) units += decode_one(p, length, i) >= 0x10000 ? 2 : 1;
    return units;
}

size_t utf8_to_utf16(const char* text, size_t length, wchar_t* out) {
    auto* p = reinterpret_cast<const unsigned char*>(text);
    size_t n = 0;
    for (size_t i = 0; i < length;) {
        uint32_t cp = decode_one(p, length, i);
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out[n++] = static_cast<wchar_t>(0xD800 + (cp >> 10));
            out[n++] = static_cast<wchar_t>(0xDC00 + (cp & 0x3FF));
        } else {
            out[n++] = static_cast<wchar_t>(cp);
        }
    }
    return n;
}

size_t utf16_to_utf8_length(const wchar_t* text, size_t length) {
    size_t bytes = 0;
    for (size_t i = 0; i < length;) {
        uint32_t cp = decode_one16(text, length, i);
        bytes += cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
    }
    return bytes;
}

size_t utf16_to_utf8(const wchar_t* text, size_t length, char* out) {
    auto* o = reinterpret_cast<unsigned char*>(out);
    size_t n = 0;
    for (size_t i = 0; i < length;) {
        uint32_t cp = decode_one16(text, length, i);
        if (cp < 0x80) {
            o[n++] = static_cast<unsigned char>(cp);
        } else if (cp < 0x800) {
            o[n++] = static_cast<unsigned char>(0xC0 | (cp >> 6));
            o[n++] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            o[n++] = static_cast<unsigned char>(0xE0 | (cp >> 12));
            o[n++] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
            o[n++] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
        } else {
            o[n++] = static_cast<unsigned char>(0xF0 | (cp >> 18));
            o[n++] = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
            o[n++] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
            o[n++] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
        }
    }
    return n;
}

size_t utf16_length(const wchar_t* text) {
    size_t n = 0;
    if (text)
        while (text[n]) ++n;
    return n;
}

} // namespace zun
