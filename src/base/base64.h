#pragma once
#include <cstddef>
#include <cstdint>

// Base64 with the standard alphabet and "=" padding, no line breaks. Encoding writes to a
// counted buffer (stored while it fits, terminated, count returned) and returns the length the
// whole text needs: call with capacity 0 to size the buffer. Decoding skips every character
// outside the alphabet, lets "=" restart the four-character group, stops at `length` units or a
// zero, stores bytes while they fit and returns how many the whole text gives.
size_t text_base64_encode(wchar_t* out, size_t capacity, const void* data, size_t size);
size_t utf8_base64_encode(char* out, size_t capacity, const void* data, size_t size);
size_t text_base64_decode(void* out, size_t capacity, const wchar_t* text,
                          size_t length = SIZE_MAX);
size_t utf8_base64_decode(void* out, size_t capacity, const char* text, size_t length = SIZE_MAX);
