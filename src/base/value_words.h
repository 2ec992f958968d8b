#pragma once
#include <cstddef>
#include <cstdint>

// The forms in which a setting's value is written as text. value_parse reports the form it
// read; value_format writes a value back in the form a style asks for.
enum ValueStyle : uint32_t {
    value_hex = 0x1,                // 0x1f
    value_signed = 0x2,             // -12 (decimal with a sign)
    value_yes_no = 0x4,             // yes / no
    value_true_false = 0x8,         // true / false
    value_on_off = 0x10,            // on / off
    value_y_n = 0x20,               // y / n
    value_t_f = 0x40,               // t / f
    value_enable_disable = 0x80,    // enable / disable
    value_enabled_disabled = 0x100, // enabled / disabled
    value_e_d = 0x200,              // e / d
};

// Reads a value word (yes, off, enabled, t, ...; ASCII case-insensitive, a word matches when
// the text begins with it) or a decimal or 0x-hexadecimal number with an optional sign, from at
// most max_length units of text. Surrounding blanks (tab, line feed, vertical tab, carriage
// return, space) are ignored; empty text is 0. *style, when given, receives the form read.
int64_t value_parse(const wchar_t* text, size_t max_length, uint32_t* style = nullptr);

// Writes 0 or 1 as the first word the style asks for, any other value (and 0 or 1 without a
// word style) as a number: "0x" and lower-case hexadecimal under value_hex, else decimal, signed
// only under value_signed. Digits are zero-padded to min_digits (at most 27). The text, at most
// 30 units, is copied into the buffer with a bounded copy.
void value_format(wchar_t* out, size_t capacity, int64_t value, uint32_t style,
                  unsigned min_digits = 0);
