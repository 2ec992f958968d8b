// A byte buffer that lives inside its owner while it is small and on the heap when it is not.
// Request objects are built in place in a fixed-size request context; their names and short
// replies fit the inline area, so the common request needs no allocation of its own.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

namespace zun {

template <size_t N> class SmallBuffer {
public:
    SmallBuffer() = default;
    SmallBuffer(const SmallBuffer&) = delete;
    SmallBuffer& operator=(const SmallBuffer&) = delete;
    ~SmallBuffer() { release(); }

    // Room for size bytes (contents undefined), replacing what was held before; null when the
    // heap cannot provide it.
    uint8_t* acquire(size_t size) {
        release();
        if (size <= N) {
            data_ = inline_;
        } else {
            data_ = static_cast<uint8_t*>(malloc(size));
            if (!data_) return nullptr;
        }
        size_ = size;
        return data_;
    }

    void release() {
        if (data_ != inline_) free(data_);
        data_ = nullptr;
        size_ = 0;
    }

    uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    bool is_inline() const { return data_ == inline_; }

private:
    uint8_t* data_ = nullptr;
    size_t size_ = 0;
    alignas(8) uint8_t inline_[N];
};

} // namespace zun
