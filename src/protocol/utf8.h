// UTF-8 <-> UTF-16 conversion for names on the wire.
//
// The protocol carries names as UTF-8 and hands them to formatters as UTF-16. Decoding accepts
// one- to four-byte sequences; a byte that does not start a well-formed sequence (a stray
// continuation byte, a truncated or overlong sequence, an encoded surrogate or a value above
// U+10FFFF) decodes as U+FFFD and decoding resumes at the next byte. Encoding turns an unpaired
// surrogate into U+FFFD. Lengths count code units and never include a terminating NUL.
#pragma once

#include <stddef.h>

namespace zun {

// Number of UTF-16 units the conversion of text[0, length) yields.
size_t utf8_to_utf16_length(const char* text, size_t length);

// Converts text[0, length) into out, which holds utf8_to_utf16_length() units. Returns the
// number of units written; adds no terminator.
size_t utf8_to_utf16(const char* text, size_t length, wchar_t* out);

// Number of UTF-8 bytes the conversion of text[0, length) yields.
size_t utf16_to_utf8_length(const wchar_t* text, size_t length);

// Converts text[0, length) into out, which holds utf16_to_utf8_length() bytes. Returns the
// number of bytes written; adds no terminator.
size_t utf16_to_utf8(const wchar_t* text, size_t length, char* out);

// Length of a NUL-terminated UTF-16 string; 0 for null.
size_t utf16_length(const wchar_t* text);

} // namespace zun
