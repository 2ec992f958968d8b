// Page-granular memory straight from the virtual memory manager, for blocks that must not
// depend on any heap (the sync state lives in one).
#pragma once

#include <cstddef>

// Committed read-write pages of at least `size` bytes, zero-filled; null when the address
// space or the commit charge is exhausted.
void* vm_alloc(size_t size);

// Releases a block from vm_alloc. `size` is the size it was allocated with; the whole
// reservation goes back at once, as MEM_RELEASE requires.
void vm_free(void* block, size_t size);
