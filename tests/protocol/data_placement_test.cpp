// Where read and write data land relative to the data align, and the control buffer.
#include <gtest/gtest.h>

#include <vector>

#include "protocol/control_reply.h"
#include "protocol/data_placement.h"
#include "protocol/protocol_client.h"
#include "protocol/wire.h"

using namespace zun;
namespace cl = zun::client;

namespace {
uintptr_t address(const void* p) {
    return reinterpret_cast<uintptr_t>(p);
}
} // namespace

TEST(ReadPlacement, DataAlignedLikeTheFileOffset) {
    ReadReplyBuffer read;
    ReadFields f{1, 0x1003, 0x200, 0};
    ASSERT_EQ(read.init(f, 0x200), ProtocolError::Success);
    EXPECT_EQ(address(read.data()) % 0x200, 3u);
    EXPECT_EQ(read.data(), read.reply() + 16);

    // Across offsets, paddings and aligns: data congruent to the offset, header in front.
    for (uint32_t align : {1u, 8u, 512u, 4096u})
        for (uint64_t offset : {0ull, 1ull, 15ull, 16ull, 17ull, 0x1FFFull, 0x123456789ull})
            for (uint32_t padding : {0u, 5u, 0x8000u}) {
                ReadFields g{1, offset, 100, padding};
                ASSERT_EQ(read.init(g, align), ProtocolError::Success);
                EXPECT_EQ(address(read.data()) % align, offset % align);
                EXPECT_EQ(read.data() - read.reply(), 16 + padding);
            }
}

TEST(ReadPlacement, FinishZeroesPaddingAndClampsActualSize) {
    ReadReplyBuffer read;
    ReadFields f{1, 0, 20, 3};
    ASSERT_EQ(read.init(f, 1), ProtocolError::Success);
    memset(read.reply(), 0xEE, 16 + 3 + 20 + 5);
    size_t length = read.finish(0x12345, 10);
    EXPECT_EQ(length, 32u); // 16 + 3 + 10, rounded up
    cl::ReadReply r;
    ASSERT_TRUE(cl::decode_read_reply(read.reply(), length, &r));
    EXPECT_EQ(r.actual_size, 10u);
    EXPECT_EQ(r.padding, 3u);
    for (int i = 16; i < 19; ++i) EXPECT_EQ(read.reply()[i], 0) << i;
    for (int i = 29; i < 32; ++i) EXPECT_EQ(read.reply()[i], 0) << i;
    EXPECT_EQ(read.reply()[19], 0xEE); // data untouched

    // A formatter cannot report more than it was given room for.
    EXPECT_EQ(read.finish(1, 1000), 40u);
    EXPECT_EQ(load_u32(read.reply() + 8), 20u);
}

TEST(ReadPlacement, DirectResultChecksTheClientBuffer) {
    std::vector<uint8_t> out(0x1000, 0xEE);
    ReadReplyBuffer read;
    // Offset 0x1013 is 0x13 into its 0x200 block: the header and padding must cover that.
    ReadFields f{1, 0x1013, 0x100, 0};
    EXPECT_EQ(read.init_direct(f, 0x200, out.data(), out.size()), DirectReadCheck::BadPadding);
    f.padding = 3;
    EXPECT_EQ(read.init_direct(f, 0x200, out.data(), out.size()), DirectReadCheck::Ok);
    EXPECT_EQ(read.data(), out.data() + 19);
    // Room up to the end of the last block: 0x100 + 3 + 16 + (0x200 - 0x113) bytes.
    size_t needed = 0x100 + 3 + 16 + (0x200 - 0x113);
    EXPECT_EQ(read.init_direct(f, 0x200, out.data(), needed), DirectReadCheck::Ok);
    EXPECT_EQ(read.init_direct(f, 0x200, out.data(), needed - 1), DirectReadCheck::BadSize);

    // In the client's buffer only the header is written and the length rounded up.
    ASSERT_EQ(read.init_direct(f, 0x200, out.data(), out.size()), DirectReadCheck::Ok);
    EXPECT_EQ(read.finish(7, 1), 24u);
    EXPECT_EQ(out[16], 0xEE);
    EXPECT_EQ(out[20], 0xEE);
}

TEST(WritePlacement, RelocatedDataAlignedLikeTheFileOffset) {
    for (uint32_t align : {1u, 64u, 4096u})
        for (uint64_t offset : {0ull, 3ull, 0x1001ull, 0xFFFFFull})
            for (uint32_t padding : {0u, 7u, 100u}) {
                std::vector<uint8_t> data(50, 1);
                WriteFields f{1, offset, 50, padding, data.data()};
                size_t message = cl::encode_write(nullptr, 0, 1, f);
                std::vector<uint8_t> buffer(write_relocation_size(message, align));
                uint8_t* at = write_relocation_place(buffer.data(), f, align);
                ASSERT_LE(at - buffer.data() + message, buffer.size());
                EXPECT_EQ(address(at + 32 + padding) % align, offset % align);
            }
    WriteFields empty{1, 3, 0, 0, nullptr};
    uint8_t buffer[8];
    EXPECT_EQ(write_relocation_place(buffer, empty, 4096), buffer);
    EXPECT_FALSE(write_direct_output_fits(15));
    EXPECT_TRUE(write_direct_output_fits(16));
}

TEST(ControlBuffer, OutputInFrontInputCopyBehind) {
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
