#include "base/text_arena.h"

#include <windows.h>

void* TextArena::allocate(size_t bytes) {
    // Even an empty request gets 8 bytes of its own, so no block ever starts at its trailer.
    size_t rounded = bytes ? (bytes + 7) & ~size_t(7) : 8;
    if (rounded < bytes || rounded + sizeof(Trailer) < rounded) {
        ++failures_;
        return nullptr;
    }
    auto* start = static_cast<char*>(
        HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, rounded + sizeof(Trailer)));
    if (!start) {
        ++failures_;
        return nullptr;
    }
    auto* trailer = reinterpret_cast<Trailer*>(start + rounded);
    trailer->previous = last_;
    trailer->start = start;
    last_ = trailer;
    return start;
}

void TextArena::release() {
    HANDLE heap = GetProcessHeap();
    while (last_) {
        Trailer* previous = last_->previous;
        HeapFree(heap, 0, last_->start);
        last_ = previous;
    }
}
