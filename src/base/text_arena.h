#pragma once
#include <cstddef>

// Where formatted and converted texts come from when the caller does not want the process heap.
// allocate is the first virtual operation and the only one the text functions call; a block is
// zero-filled, and null means the allocator refused.
struct TextAllocator {
    virtual void* allocate(size_t bytes) = 0;

protected:
    ~TextAllocator() = default;
};

// An arena on the caller's stack: any number of texts are taken from it and freed together by
// release() or by the destructor; no text is freed singly. Each block is the request rounded up
// to 8 bytes followed by a trailer that links it to the block before, so release walks the chain
// from the newest block back.
class TextArena final : public TextAllocator {
public:
    TextArena() = default;
    ~TextArena() { release(); }
    TextArena(const TextArena&) = delete;
    TextArena& operator=(const TextArena&) = delete;

    void* allocate(size_t bytes) override;
    void release();

    // Allocations refused since construction: callers report a shortage once, at the end.
    unsigned failures() const { return failures_; }

private:
    struct Trailer {
        Trailer* previous;
        void* start;
    };
    Trailer* last_ = nullptr;
    unsigned failures_ = 0;
};
