#pragma once
#include <cstddef>
#include <cstdint>

// The upper-case mapping data (generated: scripts/gen-upcase-table). Below upcase_direct_size
// a code point indexes the direct table; above it, code points that change are listed as pairs
// sorted by `from`.
constexpr size_t upcase_direct_size = 0x800;

struct UpcasePair {
    uint32_t from;
    uint32_t to;
};

extern const uint16_t upcase_direct[upcase_direct_size];
extern const UpcasePair upcase_pairs[];
extern const size_t upcase_pair_count;
