#include "base/base64.h"

#include <type_traits>

#include "base/counted_buffer.h"

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

template <typename Unit> size_t encode(Unit* out, size_t capacity, const void* data, size_t size) {
    CountedBuffer<Unit> buffer(out, capacity);
    const auto* p = static_cast<const uint8_t*>(data);
    if (!p) size = 0;
    for (; size >= 3; p += 3, size -= 3) {
        uint32_t group = p[0] << 16 | p[1] << 8 | p[2];
        buffer.put(alphabet[group >> 18]);
        buffer.put(alphabet[group >> 12 & 63]);
        buffer.put(alphabet[group >> 6 & 63]);
        buffer.put(alphabet[group & 63]);
    }
    if (size) {
        uint32_t group = p[0] << 16 | (size == 2 ? p[1] << 8 : 0);
        buffer.put(alphabet[group >> 18]);
        buffer.put(alphabet[group >> 12 & 63]);
        buffer.put(size == 2 ? alphabet[group >> 6 & 63] : '=');
        buffer.put('=');
    }
    return buffer.finish();
}

inline int sextet(uint32_t c) {
    if (c - 'A' < 26) return static_cast<int>(c - 'A');
    if (c - 'a' < 26) return static_cast<int>(c - 'a' + 26);
    if (c - '0' < 10) return static_cast<int>(c - '0' + 52);
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

template <typename Unit>
size_t decode(void* out, size_t capacity, const Unit* text, size_t length) {
    auto* bytes = static_cast<uint8_t*>(out);
    if (!bytes) capacity = 0;
    size_t count = 0;
    unsigned position = 0;
    uint32_t previous = 0;
    auto put = [&](uint32_t byte) {
        if (count < capacity) bytes[count] = static_cast<uint8_t>(byte);
        ++count;
    };
    for (size_t i = 0; text && i < length && text[i]; ++i) {
        uint32_t c = static_cast<std::make_unsigned_t<Unit>>(text[i]);
        if (c == '=') {
            position = 0;
            continue;
        }
        int value = sextet(c);
        if (value < 0) continue;
        uint32_t v = static_cast<uint32_t>(value);
        switch (position) {
        case 1:
            put(previous << 2 | v >> 4);
            break;
        case 2:
            put((previous & 15) << 4 | v >> 2);
            break;
        case 3:
            put((previous & 3) << 6 | v);
            break;
        }
        previous = v;
        position = (position + 1) & 3;
    }
    return count;
}

} // namespace

size_t text_base64_encode(wchar_t* out, size_t capacity, const void* data, size_t size) {
    return encode(out, capacity, data, size);
}

size_t utf8_base64_encode(char* out, size_t capacity, const void* data, size_t size) {
    return encode(out, capacity, data, size);
}

size_t text_base64_decode(void* out, size_t capacity, const wchar_t* text, size_t length) {
    return decode(out, capacity, text, length);
}

size_t utf8_base64_decode(void* out, size_t capacity, const char* text, size_t length) {
    return decode(out, capacity, text, length);
}
