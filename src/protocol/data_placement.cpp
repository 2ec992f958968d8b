#include "protocol/data_placement.h"

#include <stdlib.h>
#include <string.h>

#include "protocol/reply_encode.h"
#include "protocol/wire.h"

namespace zun {

namespace {

constexpr size_t kReadReplyHeaderSize = 16;

// (-(file offset + size)) mod A: from the end of the data to the end of its last aligned block.
size_t tail_to_boundary(const ReadFields& f, uint32_t align) {
    return static_cast<size_t>((0 - (f.file_offset + f.requested_size)) & (align - 1));
}

size_t offset_in_block(const ReadFields& f, uint32_t align) {
    return static_cast<size_t>(f.file_offset & (align - 1));
}

// Room before the data that the header and padding need beyond what the aligned block provides.
size_t extra_before(const ReadFields& f, uint32_t align) {
    size_t in_block = offset_in_block(f, align);
    size_t lead = kReadReplyHeaderSize + f.padding;
    return in_block < lead ? lead - in_block : 0;
}

} // namespace

uint32_t data_align_from(uintptr_t wanted) {
    uint32_t align = 1;
    while (align < wanted && align < kMaxDataAlign) align *= 2;
    return align;
}

ReadReplyBuffer::~ReadReplyBuffer() {
    free(block_);
}

size_t ReadReplyBuffer::buffer_size(const ReadFields& f, uint32_t align) {
    return size_t{f.requested_size} + extra_before(f, align) + tail_to_boundary(f, align) +
           offset_in_block(f, align) + 7 + align;
}

ProtocolError ReadReplyBuffer::init(const ReadFields& f, uint32_t align) {
    free(block_);
    reply_ = nullptr;
    block_ = static_cast<uint8_t*>(malloc(buffer_size(f, align)));
    if (!block_) return ProtocolError::OutOfMemory;
    // The aligned block that holds the first data byte starts at the first multiple of A
    // behind the room the header and padding need; the data start inside it like the file
    // offset does inside its block.
    uintptr_t room = reinterpret_cast<uintptr_t>(block_) + extra_before(f, align);
    uintptr_t block_start = (room + align - 1) & ~uintptr_t(align - 1);
    uintptr_t data = block_start + offset_in_block(f, align);
    reply_ =
        block_ + (data - kReadReplyHeaderSize - f.padding - reinterpret_cast<uintptr_t>(block_));
    requested_ = f.requested_size;
    padding_ = f.padding;
    return ProtocolError::Success;
}

DirectReadCheck ReadReplyBuffer::init_direct(const ReadFields& f, uint32_t align, uint8_t* output,
                                             size_t output_size) {
    free(block_);
    block_ = nullptr;
    reply_ = nullptr;
    if (offset_in_block(f, align) > kReadReplyHeaderSize + f.padding)
        return DirectReadCheck::BadPadding;
    uint64_t needed =
        uint64_t{f.requested_size} + f.padding + kReadReplyHeaderSize + tail_to_boundary(f, align);
    if (needed > output_size) return DirectReadCheck::BadSize;
    reply_ = output;
    requested_ = f.requested_size;
    padding_ = f.padding;
    return DirectReadCheck::Ok;
}

size_t ReadReplyBuffer::finish(uint32_t request_id, size_t actual_size) {
    uint32_t actual = actual_size < requested_ ? static_cast<uint32_t>(actual_size) : requested_;
    size_t end = kReadReplyHeaderSize + padding_ + actual;
    size_t length = round_up8(end);
    if (block_) {
        memset(reply_ + kReadReplyHeaderSize, 0, padding_);
        memset(reply_ + end, 0, length - end);
    }
    encode_reply_header(reply_, static_cast<uint32_t>(length), request_id, ProtocolError::Success);
    store_u32(reply_ + 8, actual);
    store_u32(reply_ + 12, padding_);
    return length;
}

uint8_t* write_relocation_place(uint8_t* buffer, const WriteFields& f, uint32_t align) {
    if (f.requested_size == 0) return buffer;
    // The shift that makes buffer + shift + 32 + padding congruent to the file offset.
    uint64_t data_at = reinterpret_cast<uintptr_t>(buffer) + 32 + f.padding;
    return buffer + static_cast<size_t>((f.file_offset - data_at) & (align - 1));
}

} // namespace zun
