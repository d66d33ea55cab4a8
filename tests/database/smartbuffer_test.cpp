#include "database/smartbuffer.h"

#include "support/root.h"
#include "support/test.h"

namespace {

// Around the inline space and the steps of growth, where the NUL needs its byte.
TEST(SmartBuffer, TextSurvivesTheEdgesOfGrowth) {
    for (const std::size_t length : {0u, 2047u, 2048u, 4095u, 4096u, 6143u, 6144u}) {
        SCOPED_TRACE(length);
        const std::string text(length, 'x');
        smartbuffer heap;
        smartbuffer_stack stack;
        ASSERT_EQ(smartbuffer_init(&heap) + smartbuffer_stack_init(&stack), 0);
        for (const char c : text)
            (void)smartbuffer_printf(&heap, "%c", c);
        EXPECT_EQ(smartbuffer_stack_printf(&stack, "%s-%d-", "a", 12), 0);
        EXPECT_EQ(smartbuffer_stack_append(&stack, text.c_str(), static_cast<int>(length)), 0);
        EXPECT_EQ(heap.text.get(), text);
        EXPECT_EQ(stack.c_str(), "a-12-" + text);
    }
}

// Half a statement must never be run.
TEST(SmartBuffer, AnErrorStaysAndTextThatCannotGrowIsDroppedAsAWhole) {
    const testsupport::TestRoot root;
    smartbuffer heap;
    ASSERT_EQ(smartbuffer_init(&heap), 0);
    EXPECT_EQ(smartbuffer_append(&heap, "abcd", 2), 0);
    EXPECT_EQ(smartbuffer_append(&heap, nullptr, -1), -1);
    EXPECT_EQ(smartbuffer_append(&heap, "ef", 2), -1);
    EXPECT_EQ(heap.error, 1);
    EXPECT_STREQ(heap.text.get(), "ab");
    smartbuffer_stack stack;
    ASSERT_EQ(smartbuffer_stack_append(&stack, "DELETE FROM a", -1), 0);
    // The text is not read: its length alone is refused.
    EXPECT_EQ(smartbuffer_stack_append(&stack, "x", INT_MAX - 8), -1);
    EXPECT_EQ(smartbuffer_stack_append(&stack, " WHERE b", -1), -1);
    EXPECT_STREQ(stack.c_str(), "");
    EXPECT_EQ(stack.error, 1);
}

}  // namespace
