// Requests as the client encodes them, byte for byte, and as the server decodes them.
#include "protocol/request_decode.h"
#include "serve_harness.h"

using namespace zun;
namespace cl = zun::client;

constexpr uint32_t kId = 0x12345;

TEST(RequestEncoding, EveryOperationByteExact) {
    const char* open_name[] = {"a", "bc"};
    const char* move_name[] = {"s", "t", "u"};
    const uint8_t write_data[] = {'x', 'y', 'z'};
    const uint8_t control_input[] = {'h', 'i'};
    OpenIdFields capacity_fields{9};
    const struct {
        std::vector<uint8_t> message;
        const char* expected;
    } cases[] = {
        {REQUEST(encode_cancel(out, cap, kId)), "08000000 45230100"},
        {REQUEST(encode_disconnect(out, cap, kId)), "08000000 45231100"},
        {REQUEST(encode_version(out, cap, kId, 5)), "10000000 45232100 05000000 00000000"},
        {REQUEST(encode_open(out, cap, kId, OpenFields{2, 1, 0x20, 0x0102030405060708, 7, 9},
                             cl::Name{open_name, 2})),
         "38000000 45233100 02012000 00000000 08070605 04030201 07000000 00000000"
         "09000000 00000000 00000000 00000000 61006263 00000000"},
        {REQUEST(encode_replace(out, cap, kId, ReplaceFields{0x11, 0x22, 0x80, -1, 0x33}, "x")),
         "38000000 45234100 11000000 00000000 22000000 00000000 80000000 00000000"
         "ffffffff ffffffff 33000000 00000000 78000000 00000000"},
        {REQUEST(
             encode_move(out, cap, kId, MoveFields{1, 2, true, 3, 5, 6}, cl::Name{move_name, 3})),
         "40000000 45235100 01000000 00000000 02000000 00000000 01030000 00000000"
         "05000000 00000000 06000000 00000000 00000000 00000000 73007400 75000000"},
        {REQUEST(
             encode_move_replace(out, cap, kId, MoveReplaceFields{1, 2, 3, 4, false, 7}, "a", "b")),
         "40000000 45236100 01000000 00000000 02000000 00000000 03000000 00000000"
         "04000000 00000000 00000000 00000000 07000000 00000000 61006200 00000000"},
        // The name of delete starts at 32, inside the 40-byte minimum.
        {REQUEST(encode_delete(out, cap, kId, DeleteFields{1, 2, 3}, "abcdefgh")),
         "30000000 45237100 01000000 00000000 02000000 00000000 03000000 00000000"
         "61626364 65666768 00000000 00000000"},
        {REQUEST(encode_close(out, cap, kId, CloseFields{0x0123456789ABCDEF, 0x10})),
         "18000000 45238100 efcdab89 67452301 10000000 00000000"},
        {REQUEST(encode_flush(out, cap, kId, FlushFields{1, 0xFF, 2, 3, 4, 5, 6, 7})),
         "38000000 45239100 01000000 00000000 ff020300 00000000 04000000 00000000"
         "05000000 00000000 06000000 00000000 07000000 00000000"},
        {REQUEST(encode_list(out, cap, kId, ListFields{1, 2, 3, 0x1000})),
         "20000000 4523a100 01000000 00000000 02000000 00000000 03000000 00100000"},
        {REQUEST(encode_list_end(out, cap, kId, CloseFields{1, 2})),
         "18000000 4523b100 01000000 00000000 02000000 00000000"},
        {REQUEST(encode_read(out, cap, kId, ReadFields{1, 0x1003, 0x200, 8})),
         "20000000 4523c100 01000000 00000000 03100000 00000000 00020000 08000000"},
        {REQUEST(encode_write(out, cap, kId, WriteFields{1, 2, 3, 4, write_data})),
         "28000000 4523d100 01000000 00000000 02000000 00000000 03000000 04000000"
         "00000000 78797a00"},
        {REQUEST(encode_set_size(out, cap, kId, CloseFields{1, 0x1000})),
         "18000000 4523e100 01000000 00000000 00100000 00000000"},
        {REQUEST(encode_capacity(out, cap, kId, nullptr)), "08000000 4523f100"},
        {REQUEST(encode_capacity(out, cap, kId, &capacity_fields)),
         "10000000 4523f100 09000000 00000000"},
        {REQUEST(encode_flush_media(out, cap, kId)), "08000000 45230101"},
        {REQUEST(encode_control(out, cap, kId,
                                ControlFields{1, -1, 0x11223344, 2, 0x100, control_input})),
         "28000000 45231101 01000000 00000000 ff000000 44332211 02000000 00010000"
         "68690000 00000000"},
        {REQUEST(encode_media_info(out, cap, kId, OpenIdFields{5})),
         "10000000 45232101 05000000 00000000"},
        {REQUEST(encode_access(out, cap, kId, AccessFields{5, 2})),
         "18000000 45233101 05000000 00000000 02000000 00000000"},
    };
    for (const auto& c : cases) EXPECT_EQ(hex(c.message), hex_norm(c.expected));
}

TEST(RequestDecoding, ReadAndWriteLimits) {
    auto read = [](uint32_t size, uint32_t padding) {
        auto msg = REQUEST(encode_read(out, cap, kId, ReadFields{1, 0, size, padding}));
        ReadFields f;
        return decode_read(msg.data(), msg.size(), &f) == ProtocolError::Success;
    };
    EXPECT_TRUE(read(0x200, 0x8000));
    EXPECT_FALSE(read(0x200, 0x8001));
    EXPECT_TRUE(read(0x1000000 - 16, 0));
    EXPECT_FALSE(read(0x1000000 - 16, 1));
    EXPECT_FALSE(read(0x1000001, 0));

    // Write data must lie inside the message; padding above 0x8000 is refused even when the
    // message is long enough.
    std::vector<uint8_t> data(100, 0x5A);
    auto msg = REQUEST(encode_write(out, cap, kId, WriteFields{1, 7, 100, 12, data.data()}));
    WriteFields w;
    ASSERT_EQ(decode_write(msg.data(), msg.size(), &w), ProtocolError::Success);
    EXPECT_EQ(w.data, msg.data() + 44);
    EXPECT_EQ(decode_write(msg.data(), 32 + 12 + 99, &w), ProtocolError::Invalid);
    store_u32(msg.data() + 28, 0x8001);
    EXPECT_EQ(decode_write(msg.data(), 0x9000, &w), ProtocolError::Invalid);
}
