#include "protocol/control_reply.h"

#include <stdlib.h>
#include <string.h>

#include "protocol/reply_encode.h"
#include "protocol/wire.h"

namespace zun {

namespace {
size_t reply_room(const ControlFields& f) {
    return (size_t{f.max_output_size} + 23) & ~size_t{7};
}
} // namespace

ControlReplyBuffer::~ControlReplyBuffer() {
    free(block_);
}

size_t ControlReplyBuffer::block_size(const ControlFields& f) {
    return f.input_size + reply_room(f);
}

ProtocolError ControlReplyBuffer::init(const ControlFields& f) {
    free(block_);
    block_ = static_cast<uint8_t*>(calloc(1, block_size(f)));
    if (!block_) return ProtocolError::OutOfMemory;
    reply_room_ = reply_room(f);
    max_output_ = f.max_output_size;
    if (f.input_size) memcpy(block_ + reply_room_, f.input, f.input_size);
    return ProtocolError::Success;
}

uint8_t* ControlReplyBuffer::finish(uint32_t request_id, size_t output_size, size_t* length) {
    uint32_t out = output_size < max_output_ ? static_cast<uint32_t>(output_size) : max_output_;
    size_t end = 16 + size_t{out};
    size_t padded = round_up8(end);
    memset(block_ + end, 0, padded - end);
    encode_reply_header(block_, static_cast<uint32_t>(padded), request_id, ProtocolError::Success);
    store_u32(block_ + 8, out);
    store_u32(block_ + 12, 0);
    *length = padded;
    return block_;
}

} // namespace zun
