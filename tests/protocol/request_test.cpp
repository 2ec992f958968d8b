// Requests as the client encodes them, byte for byte, and as the server decodes them.
#include <gtest/gtest.h>

#include "hex.h"
#include "protocol/protocol_client.h"
#include "protocol/request_decode.h"
#include "protocol/request_name.h"
#include "protocol/wire.h"

using namespace zun;
namespace cl = zun::client;

namespace {
constexpr uint32_t kId = 0x12345;
#define ENCODE(call) encoded([&](void* out, size_t cap) { return cl::call; })
} // namespace

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
        {ENCODE(encode_cancel(out, cap, kId)), "08000000 45230100"},
        {ENCODE(encode_disconnect(out, cap, kId)), "08000000 45231100"},
        {ENCODE(encode_version(out, cap, kId, 5)), "10000000 45232100 05000000 00000000"},
        {ENCODE(encode_open(out, cap, kId, OpenFields{2, 1, 0x20, 0x0102030405060708, 7, 9},
                            cl::Name{open_name, 2})),
         "38000000 45233100 02012000 00000000 08070605 04030201 07000000 00000000"
         "09000000 00000000 00000000 00000000 61006263 00000000"},
        {ENCODE(encode_replace(out, cap, kId, ReplaceFields{0x11, 0x22, 0x80, -1, 0x33}, "x")),
         "38000000 45234100 11000000 00000000 22000000 00000000 80000000 00000000"
         "ffffffff ffffffff 33000000 00000000 78000000 00000000"},
        {ENCODE(
             encode_move(out, cap, kId, MoveFields{1, 2, true, 3, 5, 6}, cl::Name{move_name, 3})),
         "40000000 45235100 01000000 00000000 02000000 00000000 01030000 00000000"
         "05000000 00000000 06000000 00000000 00000000 00000000 73007400 75000000"},
        {ENCODE(
             encode_move_replace(out, cap, kId, MoveReplaceFields{1, 2, 3, 4, false, 7}, "a", "b")),
         "40000000 45236100 01000000 00000000 02000000 00000000 03000000 00000000"
         "04000000 00000000 00000000 00000000 07000000 00000000 61006200 00000000"},
        // The name of delete starts at 32, inside the 40-byte minimum.
        {ENCODE(encode_delete(out, cap, kId, DeleteFields{1, 2, 3}, "abcdefgh")),
         "30000000 45237100 01000000 00000000 02000000 00000000 03000000 00000000"
         "61626364 65666768 00000000 00000000"},
        {ENCODE(encode_close(out, cap, kId, CloseFields{0x0123456789ABCDEF, 0x10})),
         "18000000 45238100 efcdab89 67452301 10000000 00000000"},
        {ENCODE(encode_flush(out, cap, kId, FlushFields{1, 0xFF, 2, 3, 4, 5, 6, 7})),
         "38000000 45239100 01000000 00000000 ff020300 00000000 04000000 00000000"
         "05000000 00000000 06000000 00000000 07000000 00000000"},
        {ENCODE(encode_list(out, cap, kId, ListFields{1, 2, 3, 0x1000})),
         "20000000 4523a100 01000000 00000000 02000000 00000000 03000000 00100000"},
        {ENCODE(encode_list_end(out, cap, kId, CloseFields{1, 2})),
         "18000000 4523b100 01000000 00000000 02000000 00000000"},
        {ENCODE(encode_read(out, cap, kId, ReadFields{1, 0x1003, 0x200, 8})),
         "20000000 4523c100 01000000 00000000 03100000 00000000 00020000 08000000"},
        {ENCODE(encode_write(out, cap, kId, WriteFields{1, 2, 3, 4, write_data})),
         "28000000 4523d100 01000000 00000000 02000000 00000000 03000000 04000000"
         "00000000 78797a00"},
        {ENCODE(encode_set_size(out, cap, kId, CloseFields{1, 0x1000})),
         "18000000 4523e100 01000000 00000000 00100000 00000000"},
        {ENCODE(encode_capacity(out, cap, kId, nullptr)), "08000000 4523f100"},
        {ENCODE(encode_capacity(out, cap, kId, &capacity_fields)),
         "10000000 4523f100 09000000 00000000"},
        {ENCODE(encode_flush_media(out, cap, kId)), "08000000 45230101"},
        {ENCODE(encode_control(out, cap, kId,
                               ControlFields{1, -1, 0x11223344, 2, 0x100, control_input})),
         "28000000 45231101 01000000 00000000 ff000000 44332211 02000000 00010000"
         "68690000 00000000"},
        {ENCODE(encode_media_info(out, cap, kId, OpenIdFields{5})),
         "10000000 45232101 05000000 00000000"},
        {ENCODE(encode_access(out, cap, kId, AccessFields{5, 2})),
         "18000000 45233101 05000000 00000000 02000000 00000000"},
    };
    for (const auto& c : cases) EXPECT_EQ(hex(c.message), hex_norm(c.expected));
}

TEST(RequestEncoding, ShortBufferWritesNothing) {
    uint8_t buffer[16];
    memset(buffer, 0xAA, sizeof buffer);
    EXPECT_EQ(cl::encode_version(buffer, 15, kId, 1), 16u);
    EXPECT_EQ(buffer[0], 0xAA);
}

TEST(RequestDecoding, NamedRequestsComeBackFieldForField) {
    const char* parts[] = {"dir", "file.txt"};
    auto open =
        ENCODE(encode_open(out, cap, kId, OpenFields{-3, 1, 0x20, -5, 7, 9}, cl::Name{parts, 2}));
    OpenFields o{};
    RequestName name;
    ASSERT_EQ(decode_open(open.data(), open.size(), kId, &o, &name), ProtocolError::Success);
    EXPECT_EQ(o.existing_access_level, -3);
    EXPECT_EQ(o.create_file_type, 1);
    EXPECT_EQ(o.create_file_flags, 0x20);
    EXPECT_EQ(o.write_time, -5);
    EXPECT_EQ(o.new_existing_open_id, 7u);
    EXPECT_EQ(o.new_create_open_id, 9u);
    ASSERT_EQ(name.count(), 2u);
    EXPECT_STREQ(name[1].utf16, L"file.txt");

    // A move whose access level byte is 0 comes from a client that predates the field: 4.
    const char* move_parts[] = {"src", "dst", "x"};
    auto move = ENCODE(
        encode_move(out, cap, kId, MoveFields{1, 2, true, 0, 5, 6}, cl::Name{move_parts, 3}));
    MoveFields m{};
    ASSERT_EQ(decode_move(move.data(), move.size(), kId, &m, &name), ProtocolError::Success);
    EXPECT_EQ(m.existing_access_level, 4);
    EXPECT_TRUE(m.delete_source);
    EXPECT_EQ(m.new_existing_open_id, 6u);
    ASSERT_EQ(name.count(), 3u);
    EXPECT_STREQ(name[0].utf16, L"src");
    move[25] = 0xFE; // any other level passes through, sign included
    move[24] = 2;    // and any nonzero byte means delete
    ASSERT_EQ(decode_move(move.data(), move.size(), kId, &m, &name), ProtocolError::Success);
    EXPECT_EQ(m.existing_access_level, -2);
    EXPECT_TRUE(m.delete_source);

    auto mr = ENCODE(
        encode_move_replace(out, cap, kId, MoveReplaceFields{1, 2, 3, 4, true, 8}, "old", "new"));
    MoveReplaceFields r{};
    ASSERT_EQ(decode_move_replace(mr.data(), mr.size(), kId, &r, &name), ProtocolError::Success);
    EXPECT_EQ(r.target_parent_file_id, 4u);
    EXPECT_EQ(r.write_time, 8);
    ASSERT_EQ(name.count(), 2u);
    EXPECT_STREQ(name[1].utf16, L"new");

    auto del = ENCODE(encode_delete(out, cap, kId, DeleteFields{1, 2, 3}, "gone"));
    DeleteFields d{};
    ASSERT_EQ(decode_delete(del.data(), del.size(), kId, &d, &name), ProtocolError::Success);
    ASSERT_EQ(name.count(), 1u);
    EXPECT_STREQ(name[0].utf16, L"gone");

    // Named requests must be answered: id 0 is refused.
    EXPECT_EQ(decode_delete(del.data(), del.size(), 0, &d, &name), ProtocolError::Invalid);
}

TEST(RequestDecoding, ShorterThanMinimumIsInvalid) {
    uint8_t msg[64] = {};
    RequestName name;
    OpenFields o;
    FlushFields f;
    AccessFields a;
    VersionFields v;
    EXPECT_EQ(decode_open(msg, 40, kId, &o, &name), ProtocolError::Invalid);
    EXPECT_EQ(decode_flush(msg, 48, &f), ProtocolError::Invalid);
    EXPECT_EQ(decode_access(msg, 16, &a), ProtocolError::Invalid);
    EXPECT_EQ(decode_version(msg, 8, &v), ProtocolError::Invalid);
}

TEST(RequestDecoding, CapacityWithoutOpenIdAsksForZero) {
    auto bare = ENCODE(encode_capacity(out, cap, kId, nullptr));
    OpenIdFields f{123};
    ASSERT_EQ(decode_capacity(bare.data(), bare.size(), &f), ProtocolError::Success);
    EXPECT_EQ(f.open_id, 0u);
    OpenIdFields with{77};
    auto full = ENCODE(encode_capacity(out, cap, kId, &with));
    ASSERT_EQ(decode_capacity(full.data(), full.size(), &f), ProtocolError::Success);
    EXPECT_EQ(f.open_id, 77u);
}

TEST(RequestDecoding, ReadSizeLimits) {
    auto check = [](uint32_t size, uint32_t padding) {
        auto msg = ENCODE(encode_read(out, cap, kId, ReadFields{1, 0, size, padding}));
        ReadFields f;
        return decode_read(msg.data(), msg.size(), &f);
    };
    EXPECT_EQ(check(0x200, 0x8000), ProtocolError::Success);
    EXPECT_EQ(check(0x200, 0x8001), ProtocolError::Invalid);
    EXPECT_EQ(check(0x1000000 - 16, 0), ProtocolError::Success);
    EXPECT_EQ(check(0x1000000 - 16, 1), ProtocolError::Invalid);
    EXPECT_EQ(check(0x1000001, 0), ProtocolError::Invalid);
}

TEST(RequestDecoding, WriteDataMustLieInsideTheMessage) {
    std::vector<uint8_t> data(100, 0x5A);
    auto msg = ENCODE(encode_write(out, cap, kId, WriteFields{1, 7, 100, 12, data.data()}));
    WriteFields f;
    ASSERT_EQ(decode_write(msg.data(), msg.size(), &f), ProtocolError::Success);
    EXPECT_EQ(f.data, msg.data() + 44);
    EXPECT_EQ(f.data[99], 0x5A);
    // The header claims more data than the message holds.
    EXPECT_EQ(decode_write(msg.data(), 32 + 12 + 99, &f), ProtocolError::Invalid);
    EXPECT_EQ(f.data, nullptr);
    // Padding above 0x8000 is refused even when the message is long enough.
    store_u32(msg.data() + 28, 0x8001);
    EXPECT_EQ(decode_write(msg.data(), 0x9000, &f), ProtocolError::Invalid);
}

TEST(RequestDecoding, ControlInputAndOutputLimits) {
    const uint8_t input[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    auto decode = [&](uint32_t input_size, uint32_t max_output, uint32_t claimed_input) {
        auto msg = ENCODE(
            encode_control(out, cap, kId, ControlFields{1, 0, 2, input_size, max_output, input}));
        store_u32(msg.data() + 24, claimed_input);
        ControlFields f;
        return decode_control(msg.data(), msg.size(), &f);
    };
    EXPECT_EQ(decode(8, 0x47FF0, 8), ProtocolError::Success);
    EXPECT_EQ(decode(8, 0x47FF1, 8), ProtocolError::Invalid);
    EXPECT_EQ(decode(8, 16, 9), ProtocolError::Invalid);
    // The input bound is the message size, zero padding included.
    EXPECT_EQ(decode(5, 16, 8), ProtocolError::Success);
}
