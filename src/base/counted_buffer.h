#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/utf.h"

// A caller's buffer of `capacity` units and a running count of the units the complete result
// needs. A unit is stored only while the count is below the capacity, the count always
// advances, and finish() terminates at min(count, capacity - 1). Every formatting and
// converting function of the text family writes through this, so truncation behaves the same
// everywhere and the count always tells the caller the size it needs.
template <typename Unit> struct CountedBuffer {
    Unit* out;
    size_t capacity;
    size_t count = 0;

    CountedBuffer(Unit* buffer, size_t units) : out(buffer), capacity(buffer ? units : 0) {}

    void put(Unit unit) {
        if (count < capacity) out[count] = unit;
        ++count;
    }

    void put_run(const Unit* units, size_t n) {
        if (count < capacity) {
            size_t room = capacity - count;
            memcpy(out + count, units, (n < room ? n : room) * sizeof(Unit));
        }
        count += n;
    }

    void fill(Unit unit, size_t n) {
        if (count < capacity) {
            size_t room = capacity - count;
            Unit* p = out + count;
            for (size_t i = 0, k = n < room ? n : room; i < k; ++i) p[i] = unit;
        }
        count += n;
    }

    // Copies s up to its terminating zero, or up to the first "%" when StopAtPercent is set,
    // and returns where it stopped. Copying while scanning saves a separate length pass over
    // the text, which is most of the work for literal text and strings.
    template <bool StopAtPercent> const Unit* put_text(const Unit* s) {
        const Unit* p = s;
        if (count < capacity) {
            Unit* to = out + count;
            for (size_t room = capacity - count; room; --room) {
                Unit c = *p;
                if (c == 0 || (StopAtPercent && c == '%')) break;
                *to++ = c;
                ++p;
            }
        }
        while (*p != 0 && !(StopAtPercent && *p == '%')) ++p;
        count += static_cast<size_t>(p - s);
        return p;
    }

    // Writes one code point in this buffer's encoding.
    void put_code_point(uint32_t cp) {
        if constexpr (sizeof(Unit) == 2) {
            if (cp < 0x10000) {
                put(static_cast<Unit>(cp));
                return;
            }
            wchar_t units[2];
            put_run(units, utf16_encode(cp, units));
        } else {
            if (cp < 0x80) {
                put(static_cast<Unit>(cp));
                return;
            }
            char units[6];
            put_run(units, utf8_encode(cp, units));
        }
    }

    size_t finish() {
        if (capacity) out[count < capacity ? count : capacity - 1] = 0;
        return count;
    }
};
