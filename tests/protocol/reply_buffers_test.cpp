// The buffers requests and replies are built in: write relocation, read reply finishing, the
// control buffer, and the limits a list reply must keep.
#include <gtest/gtest.h>

#include "protocol/control_reply.h"
#include "protocol/data_placement.h"
#include "protocol/list_reply.h"
#include "protocol/protocol_client.h"
#include "protocol/wire.h"

using namespace zun;
namespace cl = zun::client;

TEST(ReplyBuffers, WriteRelocationStaysInItsBuffer) {
    // Data aligned like the file offset (the fuzzer checks this through serves), within a
    // buffer of the size asked for; an empty write stays in front.
    for (uint32_t align : {1u, 64u, 4096u})
        for (uint64_t offset : {0ull, 3ull, 0x1001ull, 0xFFFFFull})
            for (uint32_t padding : {0u, 7u, 100u}) {
                std::vector<uint8_t> data(50, 1);
                WriteFields f{1, offset, 50, padding, data.data()};
                size_t message = cl::encode_write(nullptr, 0, 1, f);
                std::vector<uint8_t> buffer(write_relocation_size(message, align));
                uint8_t* at = write_relocation_place(buffer.data(), f, align);
                ASSERT_LE(at - buffer.data() + message, buffer.size());
                EXPECT_EQ(reinterpret_cast<uintptr_t>(at + 32 + padding) % align, offset % align);
            }
    uint8_t buffer[8];
    EXPECT_EQ(write_relocation_place(buffer, WriteFields{1, 3, 0, 0, nullptr}, 4096), buffer);
}

TEST(ReplyBuffers, ReadFinishZeroesPaddingAndClampsActualSize) {
    ReadReplyBuffer read;
    ASSERT_EQ(read.init(ReadFields{1, 0, 20, 3}, 1), ProtocolError::Success);
    memset(read.reply(), 0xEE, 16 + 3 + 20 + 5);
    size_t length = read.finish(0x12345, 10);
    EXPECT_EQ(length, 32u); // 16 + 3 + 10, rounded up
    cl::ReadReply r;
    ASSERT_TRUE(cl::decode_read_reply(read.reply(), length, &r));
    EXPECT_EQ(r.actual_size, 10u);
    EXPECT_EQ(r.padding, 3u);
    const uint8_t* p = read.reply();
    EXPECT_EQ(std::vector<uint8_t>(p + 16, p + 32),
              std::vector<uint8_t>(
                  {0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0, 0, 0}));
    // A formatter cannot report more than it was given room for.
    EXPECT_EQ(read.finish(1, 1000), 40u);
    EXPECT_EQ(load_u32(read.reply() + 8), 20u);
}

TEST(ReplyBuffers, ControlOutputInFrontInputCopyBehind) {
    const uint8_t input[5] = {1, 2, 3, 4, 5};
    ControlFields f{1, 0, 2, 5, 10, input};
    ASSERT_EQ(ControlReplyBuffer::block_size(f), 5u + 32);
    ControlReplyBuffer control;
    ASSERT_EQ(control.init(f), ProtocolError::Success);
    EXPECT_EQ(control.input() - control.output(), 16); // (10 + 23) rounded down to 8, less 16
    EXPECT_EQ(memcmp(control.input(), input, 5), 0);
    memset(control.output(), 0xEE, 10);
    size_t length;
    uint8_t* reply = control.finish(1, 3, &length);
    EXPECT_EQ(length, 24u);
    cl::ControlReply r;
    ASSERT_TRUE(cl::decode_control_reply(reply, length, &r));
    EXPECT_EQ(r.output_size, 3u);
    EXPECT_EQ(reply[19], 0); // bytes behind the output are zeroed up to the padded length
    // Output beyond the max is clamped; the input copy is never overwritten.
    reply = control.finish(1, 1000, &length);
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(load_u32(reply + 8), 10u);
    EXPECT_EQ(memcmp(control.input(), input, 5), 0);
}

TEST(ReplyBuffers, ListLimits) {
    EXPECT_EQ(list_reply_limit(200000), 100000u);
    EXPECT_EQ(list_reply_limit(100007), 100000u);
    EXPECT_EQ(list_reply_limit(99), 96u);
    ListReplyBuffer list;
    FileInfo entry{};
    // Below 16 bytes not even the header fits.
    EXPECT_EQ(list.init(10, 15), ProtocolError::Invalid);
    EXPECT_EQ(list.init(10, 16), ProtocolError::Success);
    EXPECT_FALSE(list.add(entry, "", 0));

    // Limit 80: header 16 + one entry 56 = 72 leaves 8 bytes, for a name of 7 and its NUL.
    ASSERT_EQ(list.init(10, 80), ProtocolError::Success);
    EXPECT_FALSE(list.add(entry, "12345678", 8));
    EXPECT_TRUE(list.add(entry, "1234567", 7));
    EXPECT_FALSE(list.add(entry, "", 0));
    size_t length;
    list.finish(1, 0, &length);
    EXPECT_EQ(length, 80u);
    // Names count against the limit as they accumulate.
    ASSERT_EQ(list.init(10, 16 + 56 * 2 + 8), ProtocolError::Success);
    EXPECT_TRUE(list.add(entry, "abc", 3));
    EXPECT_FALSE(list.add(entry, "abcd", 4)); // 128 + 4 + 4 is not below 136
    EXPECT_TRUE(list.add(entry, "abc", 3));
    // The max result count stops adds.
    ASSERT_EQ(list.init(2, 100000), ProtocolError::Success);
    EXPECT_TRUE(list.add(entry, "a", 1));
    EXPECT_TRUE(list.add_utf16(entry, L"b", 1));
    EXPECT_FALSE(list.add(entry, "c", 1));
    EXPECT_EQ(list.count(), 2u);
}
