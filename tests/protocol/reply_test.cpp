// Replies as the server encodes them, byte for byte, and as the client reads them.
#include <gtest/gtest.h>

#include "hex.h"
#include "protocol/protocol_client.h"
#include "protocol/reply_encode.h"

using namespace zun;
namespace cl = zun::client;

namespace {

constexpr uint32_t kId = 0x12345;

// A formatter's record with garbage in every field that must be sent as zero.
OpenedFileInfo sample_info() {
    OpenedFileInfo info{};
    info.open_id = 1;
    info.open_sequence = 2;
    info.access_level = 3;
    info.control_flags = 4;
    info.zero = 0xFFFF;
    info.opaque = 0xAABBCCDD;
    info.file = FileInfo{-2, 5, 6, 7, 0xFFFFFFFF, 8, 9, 10, 11, 12, 13};
    return info;
}

const char* const kSampleInfoHex = "01000000 00000000 02000000 00000000 03040000 ddccbbaa"
                                   "fe050607 00000000 08000000 00000000 09000000 00000000"
                                   "0a000000 00000000 0b000000 00000000 0c000000 00000000"
                                   "0d000000 00000000";

} // namespace

TEST(ReplyEncoding, OpenCarriesRecordParentAndEndName) {
    OpenedFileInfo info = sample_info();
    size_t size = open_reply_size(L"\u00E9");
    ASSERT_EQ(size, 112u); // 104 + two UTF-8 bytes + NUL, rounded up to 8
    std::vector<uint8_t> reply(size, 0xEE);
    encode_open_reply(reply.data(), size, kId, 1, &info, 14, L"\u00E9");
    EXPECT_EQ(hex(reply), hex_norm(std::string("70000000 45230180 01000000 00000000") +
                                   kSampleInfoHex + "0e000000 00000000 c3a90000 00000000"));

    cl::OpenReply r;
    ASSERT_TRUE(cl::decode_open_reply(reply.data(), reply.size(), &r));
    EXPECT_EQ(r.existed, 1);
    EXPECT_EQ(r.info.file.file_type, -2);
    EXPECT_EQ(r.info.zero, 0);
    EXPECT_EQ(r.info.file.zero, 0u);
    EXPECT_EQ(r.parent_file_id, 14u);
    EXPECT_STREQ(r.end_name, "\xC3\xA9");
}

TEST(ReplyEncoding, OpenWithoutRecordLeavesRoomForIt) {
    // The record is stored after the sequence hook ran; until then its bytes are zero.
    size_t size = open_reply_size(nullptr);
    ASSERT_EQ(size, 112u);
    std::vector<uint8_t> reply(size, 0xEE);
    encode_open_reply(reply.data(), size, kId, 0, nullptr, 0, nullptr);
    EXPECT_EQ(hex(reply), "7000000045230180" + std::string(104 * 2, '0'));
    OpenedFileInfo info = sample_info();
    store_opened_file_info(reply.data() + kOpenReplyInfoOffset, info);
    EXPECT_EQ(hex(reply.data() + 16, 80), hex_norm(kSampleInfoHex));
}

TEST(ReplyEncoding, FixedReplies) {
    OpenedFileInfo info = sample_info();
    uint8_t buf[kInfoReplySize];
    ASSERT_EQ(encode_info_reply(buf, kId, &info), 88u);
    EXPECT_EQ(hex(buf, 88), hex_norm(std::string("58000000 45230180") + kSampleInfoHex));

    ASSERT_EQ(encode_header_reply(buf, kId, ProtocolError::Success), 8u);
    EXPECT_EQ(hex(buf, 8), "0800000045230180");
    ASSERT_EQ(encode_write_reply(buf, kId, 0x1234), 16u);
    EXPECT_EQ(hex(buf, 16), hex_norm("10000000 45230180 34120000 00000000"));
    ASSERT_EQ(encode_capacity_reply(buf, kId, 0x100, 0x80), 24u);
    EXPECT_EQ(hex(buf, 24), hex_norm("18000000 45230180 00010000 00000000 80000000 00000000"));
    ASSERT_EQ(encode_flush_media_reply(buf, kId, -1), 16u);
    EXPECT_EQ(hex(buf, 16), hex_norm("10000000 45230180 01000000 ffffffff"));
    ASSERT_EQ(encode_flush_media_reply(buf, kId, 2000), 16u);
    EXPECT_EQ(hex(buf, 16), hex_norm("10000000 45230180 00000000 d0070000"));
}

TEST(ReplyEncoding, FlushDelayRules) {
    EXPECT_TRUE(flush_delay_means_no_flush(-1));
    EXPECT_TRUE(flush_delay_means_no_flush(0x7FFFFFFF));
    EXPECT_FALSE(flush_delay_means_no_flush(0));
    EXPECT_FALSE(flush_delay_means_no_flush(0x7FFFFFFE));

    uint32_t timeout = 0;
    ASSERT_TRUE(flush_delay_idle_timeout(2000, &timeout));
    EXPECT_EQ(timeout, 32000u);
    ASSERT_TRUE(flush_delay_idle_timeout(0, &timeout));
    EXPECT_EQ(timeout, 30000u);
    ASSERT_TRUE(flush_delay_idle_timeout(2147453647, &timeout));
    EXPECT_EQ(timeout, 0x7FFFFFFFu);
    EXPECT_FALSE(flush_delay_idle_timeout(2147453648, &timeout));
    EXPECT_FALSE(flush_delay_idle_timeout(-1, &timeout));
}

TEST(ReplyEncoding, MediaInfoReordersTheRecord) {
    MediaInfo info{};
    for (int i = 0; i < 16; ++i) info.uuid[i] = static_cast<uint8_t>(0xA0 + i);
    info.id64 = 0x1122334455667788;
    info.id32 = 0x99AABBCC;
    info.flags = 0x5A;
    info.reserved[0] = 0xFF; // not sent
    info.create_time = 0x10;
    size_t size = media_info_reply_size(L"Vol");
    ASSERT_EQ(size, 64u);
    std::vector<uint8_t> reply(size, 0xEE);
    encode_media_info_reply(reply.data(), size, kId, &info, L"Vol");
    EXPECT_EQ(hex(reply), hex_norm("40000000 45230180 10000000 00000000 a0a1a2a3 a4a5a6a7"
                                   "a8a9aaab acadaeaf 88776655 44332211 ccbbaa99 5a000000"
                                   "00000000 00000000 566f6c00 00000000"));
    cl::MediaInfoReply r;
    ASSERT_TRUE(cl::decode_media_info_reply(reply.data(), reply.size(), &r));
    EXPECT_EQ(r.info.id32, 0x99AABBCCu);
    EXPECT_STREQ(r.label, "Vol");
}

TEST(ReplyEncoding, VersionNameTruncatedAndWord44ForNewClientsOnly) {
    uint8_t buf[kVersionReplySize];
    VersionReplyFields f{0x11, "averyveryverylongformattername", 0x200, 0x1000000,
                         version_word_sent(false, 5)};
    ASSERT_EQ(encode_version_reply(buf, kId, f), 64u);
    EXPECT_EQ(hex(buf, 64), hex_norm("40000000 45230180 07000100 11000000"
                                     "61766572 79766572 79766572 796c6f6e 67666f72 6d617400"
                                     "00020000 00000001 00000000 00000000 00000000 00000000"));
    // A stream client of version 4 does not know the word at 44.
    f.send_version_word = version_word_sent(false, 4);
    encode_version_reply(buf, kId, f);
    EXPECT_EQ(hex(buf + 40, 8), "0002000000000000");
    EXPECT_TRUE(version_word_sent(true, 1));

    cl::VersionReply r;
    ASSERT_TRUE(cl::decode_version_reply(buf, 64, &r));
    EXPECT_EQ(r.server_version, 7);
    EXPECT_EQ(r.min_client_compat_version, 1);
    EXPECT_STREQ(r.formatter_name, "averyveryverylongformat");
}

TEST(ReplyDecoding, FramingAndErrors) {
    uint8_t error[8];
    encode_header_reply(error, 0x12345, ProtocolError::NotFound);
    cl::Reply r;
    ASSERT_TRUE(cl::decode_reply(error, 8, &r));
    EXPECT_EQ(r.request_id, 0x12345u);
    EXPECT_EQ(r.error, ProtocolError::NotFound);
    uint32_t actual;
    EXPECT_FALSE(cl::decode_write_reply(error, 8, &actual)); // an error is no success reply

    uint8_t write[16];
    encode_write_reply(write, 1, 9);
    EXPECT_FALSE(cl::decode_reply(write, 15, &r)); // truncated
    write[7] &= 0x7F;
    EXPECT_FALSE(cl::decode_reply(write, 16, &r)); // a request, not a reply

    uint8_t flush[8];
    encode_header_reply(flush, 1, ProtocolError::Success);
    cl::InfoReply info;
    ASSERT_TRUE(cl::decode_info_reply(flush, 8, &info));
    EXPECT_FALSE(info.has_info);
}
