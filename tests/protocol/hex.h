// Messages as hex text, so that expected encodings read like a dump and a mismatch shows where.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

// "30000000..." for the bytes. Expected texts group bytes freely: hex_norm drops the spaces.
inline std::string hex(const void* data, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    auto* p = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < size; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}
inline std::string hex(const std::vector<uint8_t>& v) {
    return hex(v.data(), v.size());
}

inline std::string hex_norm(const std::string& text) {
    std::string s;
    for (char c : text)
        if (c != ' ') s += c;
    return s;
}

// Runs an encoder twice, sizing first, as callers do.
template <class Encode> std::vector<uint8_t> encoded(Encode encode) {
    std::vector<uint8_t> out(encode(nullptr, 0));
    size_t n = encode(out.data(), out.size());
    out.resize(n);
    return out;
}
