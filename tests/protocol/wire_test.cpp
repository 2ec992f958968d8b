// Code words, result codes and the operation table.
#include <gtest/gtest.h>

#include <zun/marshaller.h> // compiles every SDK header and its layout checks

#include "protocol/data_placement.h"
#include "protocol/operation.h"
#include "protocol/protocol_error.h"
#include "protocol/reply_encode.h"

using namespace zun;

TEST(CodeWord, RequestAndReplyFields) {
    uint32_t request = request_code_word(0x12345, 12);
    EXPECT_EQ(request, 0x00C12345u);
    EXPECT_FALSE(code_word_is_reply(request));
    EXPECT_EQ(code_word_request_id(request), 0x12345u);
    EXPECT_EQ(code_word_field(request), 12u);

    EXPECT_EQ(reply_code_word(0x12345, 8), 0x80812345u);
    EXPECT_EQ(reply_code_word(0x12345, 0), 0x80012345u);
    EXPECT_EQ(reply_code_word(0xFFFFF, 19), 0x813FFFFFu);
    EXPECT_TRUE(code_word_is_reply(reply_code_word(1, 0)));
    // An id wider than 20 bits cannot leak into the operation or error field.
    EXPECT_EQ(request_code_word(0x123456, 0), 0x00023456u);
}

TEST(CodeWord, ErrorReplyIsHeaderOnly) {
    uint8_t reply[8];
    ASSERT_EQ(encode_header_reply(reply, 0x12345, ProtocolError::NotFound), 8u);
    const uint8_t expected[] = {0x08, 0, 0, 0, 0x45, 0x23, 0x81, 0x80};
    EXPECT_EQ(memcmp(reply, expected, 8), 0);
}

TEST(ProtocolErrorConversion, EveryPairInTableOrder) {
    const struct {
        uint32_t system;
        ProtocolError code;
    } pairs[] = {
        {0, ProtocolError::Success},         {1223, ProtocolError::Cancelled},
        {995, ProtocolError::Cancelled},     {121, ProtocolError::TimedOut},
        {64, ProtocolError::TimedOut},       {120, ProtocolError::NotImplemented},
        {87, ProtocolError::Invalid},        {14, ProtocolError::OutOfMemory},
        {31, ProtocolError::Failed},         {5, ProtocolError::AccessDenied},
        {2, ProtocolError::NotFound},        {1168, ProtocolError::NotFound},
        {3, ProtocolError::PathNotFound},    {39, ProtocolError::NoSpace},
        {112, ProtocolError::NoSpace},       {123, ProtocolError::BadName},
        {267, ProtocolError::NotAFolder},    {183, ProtocolError::Exists},
        {80, ProtocolError::Exists},         {38, ProtocolError::EndOfFile},
        {303, ProtocolError::DeletePending}, {145, ProtocolError::NotEmpty},
        {11, ProtocolError::Corrupt},        {109, ProtocolError::Disconnected},
    };
    for (const auto& p : pairs) {
        bool known = false;
        EXPECT_EQ(protocol_error_from_system(p.system, &known), p.code) << p.system;
        EXPECT_TRUE(known) << p.system;
    }
    // Nothing converts to Forbidden; unknown codes are Failed and reported as unknown.
    bool known = true;
    EXPECT_EQ(protocol_error_from_system(6, &known), ProtocolError::Failed);
    EXPECT_FALSE(known);
    EXPECT_EQ(protocol_error_from_system(0xFFFFFFFF, nullptr), ProtocolError::Failed);
}

TEST(Operations, VersionGatesAndUnknownNumbers) {
    EXPECT_EQ(operation_find(18, 1), nullptr);
    ASSERT_NE(operation_find(18, 2), nullptr);
    EXPECT_STREQ(operation_find(18, 2)->name, L"mediainfo");
    EXPECT_EQ(operation_find(19, 5), nullptr);
    ASSERT_NE(operation_find(19, 6), nullptr);
    for (uint32_t op : {20u, 42u, 0x7FFu})
        EXPECT_EQ(operation_check(op, 4096, 6), ProtocolError::Invalid) << op;
    EXPECT_EQ(operation_check(19, 24, 5), ProtocolError::Invalid);
}

TEST(Operations, MinimumSizes) {
    const uint32_t minimum[] = {8,  8,  16, 48, 48, 56, 56, 40, 24, 56,
                                32, 24, 32, 32, 24, 8,  8,  32, 16, 24};
    for (uint32_t op = 0; op < kOperationCount; ++op) {
        EXPECT_EQ(operation_check(op, minimum[op], 6), ProtocolError::Success) << op;
        EXPECT_EQ(operation_check(op, minimum[op] - 1, 6), ProtocolError::Invalid) << op;
    }
}

TEST(DataAlign, RoundsUpToPowerOfTwoAtMost4096) {
    EXPECT_EQ(data_align_from(0), 1u);
    EXPECT_EQ(data_align_from(1), 1u);
    EXPECT_EQ(data_align_from(3), 4u);
    EXPECT_EQ(data_align_from(64), 64u);
    EXPECT_EQ(data_align_from(4097), 4096u);
    EXPECT_EQ(data_align_from(5000), 4096u);
}
