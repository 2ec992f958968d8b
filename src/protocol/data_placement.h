// Placement of read and write data.
//
// Formatters that do unbuffered I/O want file data at addresses aligned like their file
// offsets. The marshaller therefore has a data align A (a power of two the formatter chooses
// when it starts serving) and places data so that data address == file offset (mod A): the data
// area of a read reply, and the data of a write message relocated off a stream.
#pragma once

#include <zun/protocol.h>

#include "protocol/request_decode.h"

namespace zun {

constexpr uint32_t kMaxDataAlign = 4096;

// The data align for the formatter's wanted align: the smallest power of two not below it, at
// most 4096 (0 and 1 both give 1).
uint32_t data_align_from(uintptr_t wanted);

enum class DirectReadCheck {
    Ok,
    BadPadding, // the aligned block holding the first data byte starts before the buffer
    BadSize,    // the buffer cannot hold the reply up to the end of the last aligned block
};

// The reply to a read: header, actual size and echoed padding, padding bytes, then the data at
// reply + 16 + padding. Either in a buffer of its own, placed inside so that the data area is
// aligned like the file offset and has room up to the end of the last aligned block, or, for a
// direct result on the fast pipe, at the start of the client's output buffer, whose alignment the
// client chose through the padding.
class ReadReplyBuffer {
public:
    ReadReplyBuffer() = default;
    ReadReplyBuffer(const ReadReplyBuffer&) = delete;
    ReadReplyBuffer& operator=(const ReadReplyBuffer&) = delete;
    ~ReadReplyBuffer();

    // Fields must have passed decode_read. OutOfMemory when the buffer cannot be had.
    ProtocolError init(const ReadFields& fields, uint32_t align);

    // Builds the reply in the client's buffer after checking that it can take it.
    DirectReadCheck init_direct(const ReadFields& fields, uint32_t align, uint8_t* output,
                                size_t output_size);

    uint8_t* reply() const { return reply_; }
    uint8_t* data() const { return reply_ ? reply_ + 16 + padding_ : nullptr; }

    // Writes the header, actual size (at most the requested size: a formatter cannot report
    // more than it had room for) and padding, and pads to 8. In a buffer of its own the padding
    // bytes and the bytes behind the data are zeroed; in the client's buffer only the length is
    // rounded up. Returns the reply length.
    size_t finish(uint32_t request_id, size_t actual_size);

    // Allocation size for a reply placed in a buffer of its own.
    static size_t buffer_size(const ReadFields& fields, uint32_t align);

private:
    uint8_t* block_ = nullptr; // owned; null for a direct result
    uint8_t* reply_ = nullptr;
    uint32_t requested_ = 0;
    uint32_t padding_ = 0;
};

// Writes on a stream: the reader takes the 32-byte header first, validates it (decode_write
// with the header's message size), then copies the header into a buffer of
// write_relocation_size bytes at the position write_relocation_place returns and reads the rest
// of the message straight behind it: the data then sit at an address aligned like the file
// offset without any copy. A write of size 0 stays at the start of the buffer.
constexpr size_t write_relocation_size(uint32_t message_size, uint32_t align) {
    return size_t{message_size} + align;
}
uint8_t* write_relocation_place(uint8_t* buffer, const WriteFields& fields, uint32_t align);

// A write answered straight into the client's output buffer needs room for its 16-byte reply.
constexpr bool write_direct_output_fits(size_t output_size) {
    return output_size >= 16;
}

} // namespace zun
