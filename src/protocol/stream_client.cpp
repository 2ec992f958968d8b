#include "protocol/stream_client.h"

#include <stdlib.h>
#include <string.h>

#include <zun/protocol.h>

#include "base/io.h"
#include "base/tick.h"
#include "protocol/stream_transport.h"
#include "protocol/wire.h"

namespace zun::client {

namespace {
constexpr size_t kInitialCapacity = 64 * 1024;
}

StreamClient::StreamClient(HANDLE read_handle, HANDLE write_handle)
    : read_(read_handle), write_(write_handle) {}

StreamClient::~StreamClient() {
    free(buffer_);
}

uint32_t StreamClient::connect(uint32_t timeout_ms) {
    // The server's line comes first: taking it before sending ours works on pipes without a
    // buffer as well, where each write waits for its reader.
    uint32_t error = wait_ready(timeout_ms);
    return error ? error : send(kClientReadyLine, kReadyLineLength);
}

uint32_t StreamClient::wait_ready(uint32_t timeout_ms) {
    uint32_t error;
    uint64_t deadline = tick_now() + timeout_ms;
    while (end_ - begin_ < kReadyLineLength) {
        uint64_t now = tick_now();
        if (now >= deadline) return 121;
        error = read_more(kReadyLineLength, static_cast<uint32_t>(deadline - now));
        if (error) return error;
    }
    if (memcmp(buffer_ + begin_, kServerReadyLine, kReadyLineLength) != 0) return 11;
    begin_ += kReadyLineLength;
    return 0;
}

uint32_t StreamClient::send(const void* data, size_t length) {
    size_t count = 0;
    uint32_t error =
        io_write_ex(write_, &write_kind_, nullptr, io_no_timeout, data, length, &count);
    if (!error && count < length) error = 109;
    return error;
}

uint32_t StreamClient::read_more(size_t wanted, uint32_t timeout_ms) {
    size_t held = end_ - begin_;
    if (capacity_ - begin_ < wanted) {
        memmove(buffer_, buffer_ + begin_, held);
        begin_ = 0;
        end_ = held;
    }
    if (capacity_ < wanted) {
        size_t capacity = capacity_ ? capacity_ : kInitialCapacity;
        while (capacity < wanted) capacity *= 2;
        auto* grown = static_cast<uint8_t*>(realloc(buffer_, capacity));
        if (!grown) return 14;
        buffer_ = grown;
        capacity_ = capacity;
    }
    size_t count = 0;
    ++read_calls_;
    uint32_t error = io_read_ex(read_, &read_kind_, nullptr, timeout_ms, buffer_ + end_,
                                capacity_ - end_, &count);
    if (!error && !count) error = 109;
    if (error) return error;
    end_ += count;
    return 0;
}

uint32_t StreamClient::receive(const uint8_t** reply, size_t* length, uint32_t timeout_ms) {
    *reply = nullptr;
    *length = 0;
    uint64_t deadline = tick_now() + timeout_ms;
    for (;;) {
        size_t held = end_ - begin_;
        size_t wanted = 8;
        if (held >= 8) {
            uint32_t size = load_u32(buffer_ + begin_);
            uint32_t code = load_u32(buffer_ + begin_ + 4);
            if (size < 8 || size % 8 || !code_word_is_reply(code)) return 11;
            if (held >= size) {
                *reply = buffer_ + begin_;
                *length = size;
                // The bytes stay where they are until a later call reads more.
                begin_ += size;
                return 0;
            }
            wanted = size;
        }
        uint64_t now = tick_now();
        if (now >= deadline) return 121;
        uint32_t error = read_more(wanted, static_cast<uint32_t>(deadline - now));
        if (error) return error;
    }
}

} // namespace zun::client
