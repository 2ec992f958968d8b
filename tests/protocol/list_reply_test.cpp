// List reply assembly: the limits an entry must fit and the finished layout.
#include <gtest/gtest.h>

#include "hex.h"
#include "protocol/list_reply.h"
#include "protocol/protocol_client.h"

using namespace zun;
namespace cl = zun::client;

namespace {
FileInfo entry(uint64_t id) {
    return FileInfo{1, 2, 3, 4, 0xFFFFFFFF, id, 0x10, 5, 6, 7, 8};
}
} // namespace

TEST(ListReply, LimitIsRoundedDownAndCapped) {
    EXPECT_EQ(list_reply_limit(200000), 100000u);
    EXPECT_EQ(list_reply_limit(100007), 100000u);
    EXPECT_EQ(list_reply_limit(99), 96u);
    ListReplyBuffer list;
    EXPECT_EQ(list.init(10, 200000), ProtocolError::Success);
    EXPECT_EQ(list.limit(), 100000u);
    // Below 16 bytes not even the header fits.
    EXPECT_EQ(list.init(10, 15), ProtocolError::Invalid);
    EXPECT_EQ(list.init(10, 16), ProtocolError::Success);
    EXPECT_FALSE(list.add(entry(1), "", 0));
}

TEST(ListReply, EntryAndNameMustStayBelowTheLimit) {
    // Limit 80: header 16 + one entry 56 = 72 leaves 8 bytes, for a name of 7 and its NUL.
    ListReplyBuffer list;
    ASSERT_EQ(list.init(10, 80), ProtocolError::Success);
    EXPECT_FALSE(list.add(entry(1), "12345678", 8));
    EXPECT_EQ(list.count(), 0u);
    EXPECT_TRUE(list.add(entry(1), "1234567", 7));
    EXPECT_FALSE(list.add(entry(2), "", 0));
    size_t length;
    list.finish(1, 0, &length);
    EXPECT_EQ(length, 80u);

    // Names count against the limit as they accumulate.
    ASSERT_EQ(list.init(10, 16 + 56 * 2 + 8), ProtocolError::Success);
    EXPECT_TRUE(list.add(entry(1), "abc", 3));
    EXPECT_FALSE(list.add(entry(2), "abcd", 4)); // 128 + 4 + 4 is not below 136
    EXPECT_TRUE(list.add(entry(2), "abc", 3));
}

TEST(ListReply, MaxResultCountStopsAdds) {
    ListReplyBuffer list;
    ASSERT_EQ(list.init(2, 100000), ProtocolError::Success);
    EXPECT_TRUE(list.add(entry(1), "a", 1));
    EXPECT_TRUE(list.add_utf16(entry(2), L"b", 1));
    EXPECT_FALSE(list.add(entry(3), "c", 1));
    EXPECT_EQ(list.count(), 2u);
}

TEST(ListReply, FinishedLayoutByteExact) {
    ListReplyBuffer list;
    ASSERT_EQ(list.init(10, 4096), ProtocolError::Success);
    ASSERT_TRUE(list.add(entry(0x21), "ab", 2));
    ASSERT_TRUE(list.add_utf16(entry(0x22), L"\u00E9", 1));
    size_t length;
    uint8_t* reply = list.finish(0x12345, 7, &length);
    const char* entry_tail = "00000000 10000000 00000000 05000000 00000000 06000000 00000000"
                             "07000000 00000000 08000000 00000000";
    EXPECT_EQ(hex(reply, length),
              hex_norm(std::string("88000000 45230180 02000000 01000000") + // no_more as 0/1
                       "01020304 00000000 21000000" + entry_tail + "01020304 00000000 22000000" +
                       entry_tail + "616200c3 a9000000"));

    cl::ListReply r;
    ASSERT_TRUE(cl::decode_list_reply(reply, length, &r));
    EXPECT_EQ(r.count, 2u);
    EXPECT_EQ(r.no_more, 1);
    FileInfo info;
    const char* name;
    ASSERT_TRUE(cl::list_reply_entry(r, 1, &info, &name));
    EXPECT_EQ(info.file_id, 0x22u);
    EXPECT_STREQ(name, "\xC3\xA9");
}
