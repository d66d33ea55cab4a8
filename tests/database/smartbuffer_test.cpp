#include "database/smartbuffer.h"

#include "support/root.h"
#include "support/test.h"

namespace {

class SmartBuffer : public testing::Test {
protected:
    testsupport::TestRoot root;
};

// Around the inline space and the steps of growth, where the NUL needs its byte.
TEST_F(SmartBuffer, TextSurvivesTheEdgesOfGrowth) {
    for (const std::size_t length : {0u, 2047u, 2048u, 4095u, 4096u, 6143u, 6144u}) {
        SCOPED_TRACE(length);
        const std::string text(length, 'x');
        smartbuffer heap;
        smartbuffer_stack stack;
        ASSERT_EQ(smartbuffer_init(&heap) + smartbuffer_stack_init(&stack), 0);
        EXPECT_EQ(smartbuffer_append(&heap, text.c_str(), -1), 0);
        EXPECT_EQ(smartbuffer_stack_printf(&stack, "%s-%d-", "a", 12), 0);
        EXPECT_EQ(smartbuffer_stack_append(&stack, text.c_str(), static_cast<int>(length)), 0);
        EXPECT_EQ(heap.text.get(), text);
        EXPECT_EQ(stack.c_str(), "a-12-" + text);
    }
}

TEST_F(SmartBuffer, ManySmallPiecesMakeOneText) {
    smartbuffer heap;
    smartbuffer_stack stack;
    ASSERT_EQ(smartbuffer_init(&heap), 0);
    std::string expected;
    for (int i = 0; i < 5000; i++) {
        expected += std::to_string(i) + ",";
        (void)smartbuffer_printf(&heap, "%d,", i);
        (void)smartbuffer_stack_printf(&stack, "%d,", i);
    }
    EXPECT_EQ(heap.text.get(), expected);
    EXPECT_EQ(stack.c_str(), expected);
}

TEST_F(SmartBuffer, NullTextSetsTheErrorAndLeavesTheTextAlone) {
    smartbuffer buffer;
    ASSERT_EQ(smartbuffer_init(&buffer), 0);
    EXPECT_EQ(smartbuffer_append(&buffer, "abcd", 2), 0);
    EXPECT_EQ(smartbuffer_append(&buffer, nullptr, -1), -1);
    EXPECT_EQ(buffer.error, 1);
    EXPECT_STREQ(buffer.text.get(), "ab");
    EXPECT_TRUE(root.logged(" Invalid null source string parameter\n"));
    EXPECT_EQ(smartbuffer_append(&buffer, "ef", 2), -1);  // once wrong, a statement stays wrong
    EXPECT_EQ(buffer.error, 1);
    ASSERT_EQ(smartbuffer_init(&buffer), 0);
    EXPECT_EQ(buffer.error, 0);
}

TEST_F(SmartBuffer, TextThatCannotGrowIsDroppedAsAWhole) {
    smartbuffer_stack buffer;
    ASSERT_EQ(smartbuffer_stack_append(&buffer, "DELETE FROM a", -1), 0);
    // The text is not read: its length alone is refused.
    EXPECT_EQ(smartbuffer_stack_append(&buffer, "x", INT_MAX - 8), -1);
    EXPECT_EQ(buffer.error, 1);
    EXPECT_STREQ(buffer.c_str(), "");
    EXPECT_EQ(smartbuffer_stack_append(&buffer, " WHERE b", -1), -1);
    EXPECT_STREQ(buffer.c_str(), "");
    EXPECT_TRUE(root.logged("Could not grow heap-based query buffer to "));
}

}  // namespace
