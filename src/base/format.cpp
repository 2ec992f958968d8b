#include "base/format.h"

#include <windows.h>

#include <cstdint>

#include "base/counted_buffer.h"
#include "base/text_arena.h"
#include "base/utf.h"

namespace {

enum : unsigned {
    flag_left = 1,
    flag_plus = 2,
    flag_blank = 4,
    flag_alternate = 8,
    flag_zero = 16,
};

constexpr size_t width_limit = 0x7FFFFFFF;

struct Directive {
    unsigned flags = 0;
    size_t width = 0;
    int64_t precision = -1;    // -1: none given
    unsigned int_bits = 0;     // 0: no size prefix
    unsigned char_bits = 0;    // 0: the conversion's own width
    bool wide_integer = false; // "ll", "Ll" or "I64": character conversions write nothing
};

// The sixteen digits followed by the hexadecimal prefix.
constexpr char digits_lower[] = "0123456789abcdef0x";
constexpr char digits_upper[] = "0123456789ABCDEF0X";

struct DigitPairs {
    char text[200];
    constexpr DigitPairs() : text() {
        for (int i = 0; i < 100; ++i) {
            text[2 * i] = static_cast<char>('0' + i / 10);
            text[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
    }
};
constexpr DigitPairs digit_pairs;

template <typename Src> uint32_t decode(const Src* s, size_t* used) {
    if constexpr (sizeof(Src) == 2)
        return utf16_decode(s, SIZE_MAX, used);
    else
        return utf8_decode(s, SIZE_MAX, used);
}

// Counts the characters of s, stopping at its end or at `limit`.
template <typename Src> size_t count_chars(const Src* s, size_t limit) {
    size_t n = 0;
    while (n < limit && *s) {
        size_t used;
        decode(s, &used);
        s += used;
        ++n;
    }
    return n;
}

// Writes at most `limit` characters of s and returns how many it wrote. Text in the engine's
// own encoding is copied unit for unit (a lone surrogate stays what it was); text in the other
// encoding is transcoded character by character.
template <typename Unit, typename Src>
size_t put_chars(CountedBuffer<Unit>& out, const Src* s, size_t limit) {
    size_t n = 0;
    if constexpr (sizeof(Unit) == sizeof(Src)) {
        const Src* p = s;
        for (; n < limit && *p; ++n) {
            size_t used;
            decode(p, &used);
            p += used;
        }
        out.put_run(reinterpret_cast<const Unit*>(s), static_cast<size_t>(p - s));
    } else {
        for (; n < limit && *s; ++n) {
            size_t used;
            out.put_code_point(decode(s, &used));
            s += used;
        }
    }
    return n;
}

// Padding is width minus the text's length in characters; with a precision the whole field
// (padding and text together) stops after max(width, precision) characters.
template <typename Unit, typename Src>
void put_string(CountedBuffer<Unit>& out, const Directive& d, const Src* s) {
    static const Src empty = 0;
    if (!s) s = &empty;
    if (d.width == 0 && d.precision < 0) {
        if constexpr (sizeof(Unit) == sizeof(Src))
            out.template put_text<false>(reinterpret_cast<const Unit*>(s));
        else
            put_chars(out, s, SIZE_MAX);
        return;
    }
    size_t length = count_chars(s, d.width); // only a shortfall against the width matters
    size_t padding = d.width > length ? d.width - length : 0;
    size_t limit = SIZE_MAX;
    if (d.precision >= 0)
        limit = d.width > static_cast<uint64_t>(d.precision) ? d.width
                                                             : static_cast<size_t>(d.precision);
    if (d.flags & flag_left) {
        limit -= put_chars(out, s, limit);
        out.fill(' ', padding < limit ? padding : limit);
    } else {
        size_t blanks = padding < limit ? padding : limit;
        out.fill(' ', blanks);
        put_chars(out, s, limit - blanks);
    }
}

template <typename Unit>
void put_integer(CountedBuffer<Unit>& out, const Directive& d, uint64_t value, unsigned base,
                 const char* digits, char sign) {
    Unit text[24];
    Unit* end = text + 24;
    Unit* p = end;
    if (base == 10) {
        while (value >= 100) {
            uint64_t quotient = value / 100;
            unsigned pair = static_cast<unsigned>(value - quotient * 100) * 2;
            p -= 2;
            p[0] = digit_pairs.text[pair];
            p[1] = digit_pairs.text[pair + 1];
            value = quotient;
        }
        if (value >= 10) {
            p -= 2;
            p[0] = digit_pairs.text[value * 2];
            p[1] = digit_pairs.text[value * 2 + 1];
        } else {
            *--p = static_cast<Unit>('0' + value);
        }
    } else if (base == 16) {
        do {
            *--p = digits[value & 15];
            value >>= 4;
        } while (value);
    } else {
        do {
            *--p = static_cast<Unit>('0' + (value & 7));
            value >>= 3;
        } while (value);
    }
    int64_t count = end - p;
    int64_t prefix = 0;
    if (d.flags & flag_alternate) prefix = base == 16 ? 2 : base == 8 ? 1 : 0;
    int64_t precision = d.precision < 0 ? 0 : d.precision;
    int64_t zeros = precision > count ? precision - count : 0;
    int64_t padding = static_cast<int64_t>(d.width) - (precision > count ? precision : count) -
                      (sign ? 1 : 0) - prefix;
    if (padding < 0) padding = 0;
    if (d.flags & flag_zero) {
        if (padding > zeros) zeros = padding;
        padding = 0;
    }
    if (!(d.flags & flag_left)) out.fill(' ', static_cast<size_t>(padding));
    if (sign) out.put(sign);
    if (prefix) {
        out.put(digits[16]);
        if (prefix == 2) out.put(digits[17]);
    }
    out.fill('0', static_cast<size_t>(zeros));
    out.put_run(p, static_cast<size_t>(count));
    if (d.flags & flag_left) out.fill(' ', static_cast<size_t>(padding));
}

char* put_decimal(char* p, uint64_t value, int digits) {
    char* end = p + digits;
    for (char* q = end; q > p;) {
        *--q = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    return end;
}

// Proleptic Gregorian, no time zone. Counting days from 1600-03-01 puts the leap day at the
// end of each year, so months follow the 153-day five-month pattern.
size_t stamp_text(char* text, uint64_t stamp, bool milliseconds) {
    uint64_t days = stamp / 864000000000ull + 306;
    uint32_t ms_of_day = static_cast<uint32_t>(stamp / 10000 % 86400000);
    uint64_t cycles = days / 146097;
    uint32_t day = static_cast<uint32_t>(days % 146097);
    uint32_t centuries = day / 36524;
    if (centuries > 3) centuries = 3;
    day -= centuries * 36524;
    uint32_t quads = day / 1461;
    day %= 1461;
    uint32_t years = day / 365;
    if (years > 3) years = 3;
    day -= years * 365;
    uint64_t year = 1600 + cycles * 400 + centuries * 100 + quads * 4 + years;
    uint32_t march_month = (5 * day + 2) / 153;
    uint32_t mday = day - (153 * march_month + 2) / 5 + 1;
    uint32_t month = march_month < 10 ? march_month + 3 : march_month - 9;
    if (month <= 2) ++year;

    char* p = put_decimal(text, year, year > 9999 ? 5 : 4);
    *p++ = '-';
    p = put_decimal(p, month, 2);
    *p++ = '-';
    p = put_decimal(p, mday, 2);
    *p++ = ' ';
    p = put_decimal(p, ms_of_day / 3600000, 2);
    *p++ = ':';
    p = put_decimal(p, ms_of_day / 60000 % 60, 2);
    *p++ = ':';
    p = put_decimal(p, ms_of_day / 1000 % 60, 2);
    if (milliseconds) {
        *p++ = '.';
        p = put_decimal(p, ms_of_day % 1000, 3);
    }
    *p = 0;
    return static_cast<size_t>(p - text);
}

char* put_hex(char* p, uint32_t value, int digits, const char* table) {
    for (int i = digits - 1; i >= 0; --i) {
        p[i] = table[value & 15];
        value >>= 4;
    }
    return p + digits;
}

void uuid_text(char* text, const uint8_t* g, const char* table) {
    uint32_t data1 = g[0] | g[1] << 8 | g[2] << 16 | static_cast<uint32_t>(g[3]) << 24;
    char* p = put_hex(text, data1, 8, table);
    *p++ = '-';
    p = put_hex(p, g[4] | g[5] << 8, 4, table);
    *p++ = '-';
    p = put_hex(p, g[6] | g[7] << 8, 4, table);
    *p++ = '-';
    p = put_hex(p, g[8] << 8 | g[9], 4, table);
    *p++ = '-';
    for (int i = 10; i < 16; ++i) p = put_hex(p, g[i], 2, table);
    *p = 0;
}

inline bool is_digit(uint32_t c) {
    return c - '0' < 10;
}

// Every argument occupies one 64-bit slot of the list; narrower integers are its low bits.
inline uint64_t next_slot(va_list& ap) {
    return va_arg(ap, unsigned long long);
}

template <typename Unit>
size_t vformat(Unit* buffer, size_t capacity, const Unit* f, va_list args) {
    constexpr unsigned own_bits = sizeof(Unit) == 2 ? 16 : 8;
    constexpr unsigned other_bits = sizeof(Unit) == 2 ? 8 : 16;

    CountedBuffer<Unit> out(buffer, capacity);
    if (!f) return out.finish();
    va_list ap;
    va_copy(ap, args);
    for (;;) {
        f = out.template put_text<true>(f);
        if (*f == 0) break;
        ++f;
        if (*f == '%') {
            out.put('%');
            ++f;
            continue;
        }

        Directive d;
        for (;; ++f) {
            if (*f == '-')
                d.flags |= flag_left;
            else if (*f == '+')
                d.flags |= flag_plus;
            else if (*f == ' ')
                d.flags |= flag_blank;
            else if (*f == '#')
                d.flags |= flag_alternate;
            else if (*f == '0')
                d.flags |= flag_zero;
            else
                break;
        }
        if (*f == '*') {
            int32_t width = static_cast<int32_t>(next_slot(ap));
            d.width = width > 0 ? static_cast<size_t>(width) : 0; // negative: no width
            ++f;
        } else {
            for (; is_digit(*f); ++f) {
                d.width = d.width * 10 + (*f - '0');
                if (d.width > width_limit) d.width = width_limit;
            }
        }
        if (*f == '.') {
            ++f;
            if (*f == '*') {
                int32_t precision = static_cast<int32_t>(next_slot(ap));
                d.precision = precision >= 0 ? precision : -1;
                ++f;
            } else {
                d.precision = 0;
                for (; is_digit(*f); ++f) {
                    d.precision = d.precision * 10 + (*f - '0');
                    if (d.precision > static_cast<int64_t>(width_limit)) d.precision = width_limit;
                }
            }
        }
        switch (*f) {
        case 'h':
            d.int_bits = 16;
            d.char_bits = 8;
            ++f;
            break;
        case 'l':
        case 'L':
            if (f[1] == 'l') {
                d.int_bits = 64;
                d.wide_integer = true;
                f += 2;
            } else {
                d.int_bits = 32;
                d.char_bits = 16;
                ++f;
            }
            break;
        case 'I':
            // Only I8, I16, I32 and I64 are prefixes; any other "I" is the (unknown) conversion.
            if (f[1] == '8') {
                d.int_bits = d.char_bits = 8;
                f += 2;
            } else if (f[1] == '1' && f[2] == '6') {
                d.int_bits = d.char_bits = 16;
                f += 3;
            } else if (f[1] == '3' && f[2] == '2') {
                d.int_bits = d.char_bits = 32;
                f += 3;
            } else if (f[1] == '6' && f[2] == '4') {
                d.int_bits = 64;
                d.wide_integer = true;
                f += 3;
            }
            break;
        }

        Unit conversion = *f;
        if (conversion == 0)
            break; // a directive cut short by the end of the format ends the output
        ++f;
        switch (conversion) {
        case 'd':
        case 'i': {
            uint64_t raw = next_slot(ap);
            int64_t value;
            switch (d.int_bits) {
            case 8:
                value = static_cast<int8_t>(raw);
                break;
            case 16:
                value = static_cast<int16_t>(raw);
                break;
            case 64:
                value = static_cast<int64_t>(raw);
                break;
            default:
                value = static_cast<int32_t>(raw);
                break;
            }
            char sign = 0;
            uint64_t magnitude = static_cast<uint64_t>(value);
            if (value < 0) {
                sign = '-';
                magnitude = 0 - magnitude;
            } else if (d.flags & flag_plus) {
                sign = '+';
            } else if (d.flags & flag_blank) {
                sign = ' ';
            }
            put_integer(out, d, magnitude, 10, digits_lower, sign);
            break;
        }
        case 'u':
        case 'o':
        case 'x':
        case 'X': {
            uint64_t value = next_slot(ap);
            switch (d.int_bits) {
            case 8:
                value &= 0xFF;
                break;
            case 16:
                value &= 0xFFFF;
                break;
            case 64:
                break;
            default:
                value &= 0xFFFFFFFF;
                break;
            }
            unsigned base = conversion == 'u' ? 10 : conversion == 'o' ? 8 : 16;
            put_integer(out, d, value, base, conversion == 'X' ? digits_upper : digits_lower, 0);
            break;
        }
        case 'p':
        case 'P':
            put_integer(out, d, next_slot(ap), 16, conversion == 'P' ? digits_upper : digits_lower,
                        0);
            break;
        case 'c':
        case 'w':
        case 'C': {
            uint64_t raw = next_slot(ap);
            unsigned bits;
            if (conversion == 'C') {
                bits = other_bits;
            } else {
                if (d.wide_integer) break;
                bits = d.char_bits ? d.char_bits : conversion == 'w' ? 16 : own_bits;
            }
            out.put_code_point(bits == 8    ? raw & 0xFF
                               : bits == 16 ? raw & 0xFFFF
                                            : static_cast<uint32_t>(raw));
            break;
        }
        case 's':
        case 'S': {
            const void* text = va_arg(ap, const void*);
            unsigned bits = conversion == 'S' ? other_bits : d.char_bits ? d.char_bits : own_bits;
            if (bits == 8)
                put_string(out, d, static_cast<const char*>(text));
            else if (bits == 16)
                put_string(out, d, static_cast<const wchar_t*>(text));
            break;
        }
        case 'n': {
            void* target = va_arg(ap, void*);
            if (!target) break;
            switch (d.int_bits ? d.int_bits : 64) {
            case 8:
                *static_cast<uint8_t*>(target) = static_cast<uint8_t>(out.count);
                break;
            case 16:
                *static_cast<uint16_t*>(target) = static_cast<uint16_t>(out.count);
                break;
            case 32:
                *static_cast<uint32_t*>(target) = static_cast<uint32_t>(out.count);
                break;
            default:
                *static_cast<uint64_t*>(target) = out.count;
                break;
            }
            break;
        }
        case 'T':
        case 't': {
            uint64_t raw = next_slot(ap);
            uint64_t stamp = raw;
            if (conversion == 't') {
                int64_t seconds = d.int_bits && d.int_bits <= 32 ? static_cast<int32_t>(raw)
                                                                 : static_cast<int64_t>(raw);
                stamp = (static_cast<uint64_t>(seconds) + 11644473600ull) * 10000000ull;
            }
            char text[32];
            stamp_text(text, stamp, conversion == 'T');
            put_string(out, d, text);
            break;
        }
        case 'R':
        case 'r': {
            const auto* uuid = va_arg(ap, const uint8_t*);
            if (!uuid) {
                put_string(out, d, static_cast<const char*>(nullptr));
                break;
            }
            char text[40];
            uuid_text(text, uuid, conversion == 'R' ? digits_upper : digits_lower);
            put_string(out, d, text);
            break;
        }
        default:
            break; // unknown: consumed, nothing written, no argument taken
        }
    }
    va_end(ap);
    return out.finish();
}

// Formats into a 100-unit stack buffer first; only a longer text is formatted a second time,
// straight into its block.
template <typename Allocate>
wchar_t* vformat_alloc(const wchar_t* format, va_list args, Allocate allocate) {
    wchar_t first[100];
    va_list again;
    va_copy(again, args);
    size_t count = vformat(first, 100, format, args);
    wchar_t* block = nullptr;
    if (count < SIZE_MAX / sizeof(wchar_t) - 1)
        block = static_cast<wchar_t*>(allocate((count + 1) * sizeof(wchar_t)));
    if (block) {
        if (count < 100)
            memcpy(block, first, (count + 1) * sizeof(wchar_t));
        else
            vformat(block, count + 1, format, again);
    }
    va_end(again);
    return block;
}

} // namespace

size_t text_vformat(wchar_t* out, size_t capacity, const wchar_t* format, va_list args) {
    return vformat(out, capacity, format, args);
}

size_t text_format(wchar_t* out, size_t capacity, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    size_t count = vformat(out, capacity, format, args);
    va_end(args);
    return count;
}

size_t utf8_vformat(char* out, size_t capacity, const char* format, va_list args) {
    return vformat(out, capacity, format, args);
}

size_t utf8_format(char* out, size_t capacity, const char* format, ...) {
    va_list args;
    va_start(args, format);
    size_t count = vformat(out, capacity, format, args);
    va_end(args);
    return count;
}

wchar_t* text_vformat_alloc(const wchar_t* format, va_list args) {
    return vformat_alloc(format, args,
                         [](size_t bytes) { return HeapAlloc(GetProcessHeap(), 0, bytes); });
}

wchar_t* text_format_alloc(const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    wchar_t* text = text_vformat_alloc(format, args);
    va_end(args);
    return text;
}

wchar_t* text_vformat_arena(TextAllocator& arena, const wchar_t* format, va_list args) {
    return vformat_alloc(format, args, [&](size_t bytes) { return arena.allocate(bytes); });
}

wchar_t* text_format_arena(TextAllocator& arena, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    wchar_t* text = text_vformat_arena(arena, format, args);
    va_end(args);
    return text;
}
