#include "base/utf.h"

#include <windows.h>

#include "base/counted_buffer.h"
#include "base/text_arena.h"

namespace {

template <typename From> uint32_t decode(const From* s, size_t available, size_t* used) {
    if constexpr (sizeof(From) == 2)
        return utf16_decode(s, available, used);
    else
        return utf8_decode(s, available, used);
}

template <typename To, typename From>
size_t transcode(To* out, size_t capacity, const From* in, size_t length) {
    CountedBuffer<To> buffer(out, capacity);
    if (in) {
        for (size_t i = 0; i < length;) {
            size_t used;
            uint32_t cp = decode(in + i, length - i, &used);
            if (cp == 0) break;
            buffer.put_code_point(cp);
            i += used;
        }
    }
    return buffer.finish();
}

// Converts into a 100-unit stack buffer first: a short text costs one allocation and one pass.
template <typename To, typename From, typename Allocate>
To* transcode_alloc(const From* in, size_t length, Allocate allocate) {
    To first[100];
    size_t count = transcode(first, 100, in, length);
    if (count + 1 > SIZE_MAX / sizeof(To)) return nullptr;
    To* block = static_cast<To*>(allocate((count + 1) * sizeof(To)));
    if (!block) return nullptr;
    if (count < 100)
        memcpy(block, first, (count + 1) * sizeof(To));
    else
        transcode(block, count + 1, in, length);
    return block;
}

void* heap_allocate(size_t bytes) {
    return HeapAlloc(GetProcessHeap(), 0, bytes);
}

} // namespace

size_t utf8_to_text(wchar_t* out, size_t capacity, const char* in, size_t length) {
    return transcode(out, capacity, in, length);
}

size_t text_to_utf8(char* out, size_t capacity, const wchar_t* in, size_t length) {
    return transcode(out, capacity, in, length);
}

wchar_t* utf8_to_text_alloc(const char* in, size_t length) {
    return transcode_alloc<wchar_t>(in, length, heap_allocate);
}

char* text_to_utf8_alloc(const wchar_t* in, size_t length) {
    return transcode_alloc<char>(in, length, heap_allocate);
}

wchar_t* utf8_to_text_arena(TextAllocator& arena, const char* in, size_t length) {
    return transcode_alloc<wchar_t>(in, length,
                                    [&](size_t bytes) { return arena.allocate(bytes); });
}

char* text_to_utf8_arena(TextAllocator& arena, const wchar_t* in, size_t length) {
    return transcode_alloc<char>(in, length, [&](size_t bytes) { return arena.allocate(bytes); });
}
