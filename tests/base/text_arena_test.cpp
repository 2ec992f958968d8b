#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>

#include "base/text_arena.h"

TEST(TextArena, BlocksAreZeroFilledAlignedAndFreedTogether) {
    HANDLE heap = GetProcessHeap();
    PROCESS_HEAP_ENTRY entry;
    auto busy_blocks = [&] {
        size_t n = 0;
        HeapLock(heap);
        entry.lpData = nullptr;
        while (HeapWalk(heap, &entry))
            if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) ++n;
        HeapUnlock(heap);
        return n;
    };
    size_t before = busy_blocks();
    {
        TextArena arena;
        for (size_t bytes : {0u, 1u, 7u, 8u, 9u, 1000u}) {
            auto* p = static_cast<uint8_t*>(arena.allocate(bytes));
            ASSERT_NE(p, nullptr);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u);
            for (size_t i = 0; i < bytes; ++i) ASSERT_EQ(p[i], 0);
            memset(p, 0xFF, bytes); // the trailer behind the rounded block must survive
        }
        EXPECT_EQ(busy_blocks(), before + 6);
        arena.release();
        EXPECT_EQ(busy_blocks(), before);
        EXPECT_NE(arena.allocate(16), nullptr); // usable again after a release
        EXPECT_EQ(arena.failures(), 0u);
    }
    EXPECT_EQ(busy_blocks(), before); // the destructor released the rest
}

TEST(TextArena, RefusalIsNullAndCounted) {
    TextArena arena;
    EXPECT_EQ(arena.allocate(SIZE_MAX - 3), nullptr);
    EXPECT_EQ(arena.allocate(SIZE_MAX / 2), nullptr);
    EXPECT_EQ(arena.failures(), 2u);
}
