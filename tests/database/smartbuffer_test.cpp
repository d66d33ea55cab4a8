#include "database/smartbuffer.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "support/root.h"

namespace {

class SmartBuffer : public testing::Test {
protected:
    testsupport::TestRoot root;
};

TEST_F(SmartBuffer, HeapFormGrowsInTimeForItsNul) {
    const struct {
        int length;
        int capacity;
    } cases[] = {{0, 2048}, {2047, 2048}, {2048, 8192}, {4095, 8192}, {4096, 12288}, {6143, 12288}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        smartbuffer buffer;
        ASSERT_EQ(smartbuffer_init(&buffer), 0);
        const std::string text(static_cast<std::size_t>(c.length), 'x');
        EXPECT_EQ(smartbuffer_append(&buffer, text.c_str(), -1), 0);
        EXPECT_EQ(buffer.capacity, c.capacity);
        EXPECT_EQ(buffer.text.get(), text);
    }
}

TEST_F(SmartBuffer, InlineFormMovesToTheHeapAndKeepsItsText) {
    const struct {
        int length;
        int capacity;  // 0: still inline
    } cases[] = {{2047, 0}, {2048, 6144}, {4095, 6144}, {4096, 8192}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        smartbuffer_stack buffer;
        ASSERT_EQ(smartbuffer_stack_init(&buffer), 0);
        const std::string text(static_cast<std::size_t>(c.length - 5), 'x');
        EXPECT_EQ(smartbuffer_stack_printf(&buffer, "%s-%d-", "a", 12), 0);
        EXPECT_EQ(smartbuffer_stack_append(&buffer, text.c_str(), c.length - 5), 0);
        EXPECT_EQ(buffer.capacity, c.capacity);
        EXPECT_EQ(buffer.c_str(), "a-12-" + text);
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
