// Byte-level access to messages: little-endian loads and stores at any offset, and the
// rounding rules every message length follows. Messages are byte buffers of arbitrary
// alignment (a read reply is placed by its data address, not by its start), so every access
// goes through memcpy.
#pragma once

#include <stdint.h>
#include <string.h>

namespace zun {

inline uint8_t load_u8(const uint8_t* p) {
    return *p;
}
inline uint16_t load_u16(const uint8_t* p) {
    uint16_t v;
    memcpy(&v, p, sizeof v);
    return v;
}
inline uint32_t load_u32(const uint8_t* p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}
inline uint64_t load_u64(const uint8_t* p) {
    uint64_t v;
    memcpy(&v, p, sizeof v);
    return v;
}
inline int8_t load_i8(const uint8_t* p) {
    return static_cast<int8_t>(*p);
}
inline int32_t load_i32(const uint8_t* p) {
    return static_cast<int32_t>(load_u32(p));
}
inline int64_t load_i64(const uint8_t* p) {
    return static_cast<int64_t>(load_u64(p));
}

inline void store_u8(uint8_t* p, uint8_t v) {
    *p = v;
}
inline void store_u16(uint8_t* p, uint16_t v) {
    memcpy(p, &v, sizeof v);
}
inline void store_u32(uint8_t* p, uint32_t v) {
    memcpy(p, &v, sizeof v);
}
inline void store_u64(uint8_t* p, uint64_t v) {
    memcpy(p, &v, sizeof v);
}
inline void store_i8(uint8_t* p, int8_t v) {
    *p = static_cast<uint8_t>(v);
}
inline void store_i32(uint8_t* p, int32_t v) {
    store_u32(p, static_cast<uint32_t>(v));
}
inline void store_i64(uint8_t* p, int64_t v) {
    store_u64(p, static_cast<uint64_t>(v));
}

// Every reply, and every request on a stream, is a multiple of 8 bytes long.
constexpr size_t round_up8(size_t n) {
    return (n + 7) & ~size_t{7};
}
constexpr size_t round_down8(size_t n) {
    return n & ~size_t{7};
}

// The file-system protocol is defined for little-endian hosts only, like Windows itself.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

} // namespace zun
