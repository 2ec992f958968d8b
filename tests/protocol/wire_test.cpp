// Code words, the operation table and the data align (whole messages are checked byte for
// byte elsewhere).
#include <gtest/gtest.h>

#include <zun/marshaller.h> // compiles every SDK header and its layout checks

#include "protocol/data_placement.h"
#include "protocol/operation.h"

using namespace zun;

TEST(Wire, CodeWordsOperationSizesAndDataAlign) {
    // An id wider than 20 bits cannot leak into the operation field.
    EXPECT_EQ(request_code_word(0x123456, 0), 0x00023456u);
    EXPECT_EQ(code_word_field(request_code_word(0x1FFFFF, 12)), 12u);
    const uint32_t minimum[] = {8,  8,  16, 48, 48, 56, 56, 40, 24, 56,
                                32, 24, 32, 32, 24, 8,  8,  32, 16, 24};
    for (uint32_t op = 0; op < kOperationCount; ++op) {
        EXPECT_EQ(operation_check(op, minimum[op], 6), ProtocolError::Success) << op;
        EXPECT_EQ(operation_check(op, minimum[op] - 1, 6), ProtocolError::Invalid) << op;
    }
    EXPECT_STREQ(operation_find(18, 2)->name, L"mediainfo");
    const uint32_t aligns[][2] = {{0, 1}, {1, 1}, {3, 4}, {64, 64}, {513, 1024}, {4097, 4096}};
    for (const auto& a : aligns) EXPECT_EQ(data_align_from(a[0]), a[1]) << a[0];
}
