// Replies as the server encodes them, byte for byte, and as the client reads them.
#include "protocol/reply_encode.h"
#include "serve_harness.h"

using namespace zun;
namespace cl = zun::client;

TEST(ReplyEncoding, FlushDelayRules) {
    EXPECT_TRUE(flush_delay_means_no_flush(-1));
    EXPECT_TRUE(flush_delay_means_no_flush(0x7FFFFFFF));
    EXPECT_FALSE(flush_delay_means_no_flush(0));
    EXPECT_FALSE(flush_delay_means_no_flush(0x7FFFFFFE));
    // The idle read time-out is the delay plus 30 s, when that fits a signed word.
    uint32_t timeout = 0;
    ASSERT_TRUE(flush_delay_idle_timeout(0, &timeout));
    EXPECT_EQ(timeout, 30000u);
    ASSERT_TRUE(flush_delay_idle_timeout(2147453647, &timeout));
    EXPECT_EQ(timeout, 0x7FFFFFFFu);
    EXPECT_FALSE(flush_delay_idle_timeout(2147453648, &timeout));
    EXPECT_FALSE(flush_delay_idle_timeout(-1, &timeout));
}

TEST(ReplyEncoding, VersionNameIsTruncated) {
    uint8_t buf[kVersionReplySize];
    VersionReplyFields f{0x11, "averyveryverylongformattername", 0x200, 0x1000000, true};
    ASSERT_EQ(encode_version_reply(buf, 1, f), 64u);
    EXPECT_EQ(hex(buf + 16, 24), hex_norm("61766572 79766572 79766572 796c6f6e 67666f72 6d617400"));
}

TEST(ReplyDecoding, RefusesWhatIsNoReplyOrNoSuccess) {
    uint8_t reply[16];
    encode_write_reply(reply, 1, 9);
    cl::Reply r;
    uint32_t actual;
    EXPECT_TRUE(cl::decode_reply(reply, 16, &r) && cl::decode_write_reply(reply, 16, &actual));
    EXPECT_FALSE(cl::decode_reply(reply, 15, &r)); // truncated
    encode_header_reply(reply, 1, ProtocolError::NotFound);
    EXPECT_FALSE(cl::decode_write_reply(reply, 8, &actual)); // an error is no success reply
    reply[7] &= 0x7F;
    EXPECT_FALSE(cl::decode_reply(reply, 8, &r)); // a request, not a reply
}
