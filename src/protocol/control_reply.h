// The buffer of a control request: one zeroed block holding the reply (output data from
// offset 16) and, behind the largest reply the client accepts, a copy of the input data, so
// that the formatter may read its input while writing its output.
#pragma once

#include <zun/protocol.h>

#include "protocol/request_decode.h"

namespace zun {

class ControlReplyBuffer {
public:
    ControlReplyBuffer() = default;
    ControlReplyBuffer(const ControlReplyBuffer&) = delete;
    ControlReplyBuffer& operator=(const ControlReplyBuffer&) = delete;
    ~ControlReplyBuffer();

    // Fields must have passed decode_control. OutOfMemory when the block cannot be had.
    ProtocolError init(const ControlFields& fields);

    uint8_t* output() const { return block_ + 16; }
    const uint8_t* input() const { return block_ + reply_room_; }

    // Writes the header and the output size (at most the max output size) and pads to 8.
    // Returns the reply, of *length bytes, at the start of the block.
    uint8_t* finish(uint32_t request_id, size_t output_size, size_t* length);

    // Bytes of the block: the input size plus the max output size and header rounded up to 8.
    static size_t block_size(const ControlFields& fields);

private:
    uint8_t* block_ = nullptr;
    size_t reply_room_ = 0;
    uint32_t max_output_ = 0;
};

} // namespace zun
