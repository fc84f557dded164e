#include <ZuCore/MemoryBuffer.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using Varkel::Zu::MemoryBuffer;

TEST(MemoryBufferTest, EmptyBufferHasNoBytes) {
    const MemoryBuffer buffer;
    EXPECT_EQ(buffer.getSize(), 0u);
    EXPECT_TRUE(buffer.isEmpty());
    EXPECT_EQ(buffer.getData(), nullptr);
    EXPECT_EQ(buffer.toString(), "");
}

TEST(MemoryBufferTest, SizedBufferIsZeroFilled) {
    const MemoryBuffer buffer(5);
    ASSERT_EQ(buffer.getSize(), 5u);
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(buffer.getData()[i], 0);
    }
}

TEST(MemoryBufferTest, CopiesTheGivenBytes) {
    unsigned char bytes[] = {1, 2, 0, 255};
    const MemoryBuffer buffer(bytes, sizeof bytes);
    bytes[0] = 9;
    ASSERT_EQ(buffer.getSize(), 4u);
    EXPECT_EQ(buffer.getData()[0], 1);
    EXPECT_EQ(buffer.getData()[3], 255);
    EXPECT_EQ(buffer.toString(), std::string("\x01\x02\x00\xff", 4));
    EXPECT_EQ(buffer.toVector(), (std::vector<unsigned char>{1, 2, 0, 255}));
    EXPECT_EQ(MemoryBuffer(nullptr, 0).getSize(), 0u);
}

TEST(MemoryBufferTest, FromStringAndVector) {
    EXPECT_EQ(MemoryBuffer::fromString(std::string("a\0b", 3)).getSize(), 3u);
    EXPECT_EQ(MemoryBuffer(std::vector<unsigned char>{7, 8}).toString(), "\x07\x08");
}

TEST(MemoryBufferTest, ResizeAndAppend) {
    MemoryBuffer buffer = MemoryBuffer::fromString("ab");
    const unsigned char more[] = {'c', 'd'};
    buffer.append(more, 2);
    EXPECT_EQ(buffer.toString(), "abcd");
    buffer.resize(6);
    EXPECT_EQ(buffer.toString(), std::string("abcd\0\0", 6));
    buffer.resize(1);
    EXPECT_EQ(buffer.toString(), "a");
    buffer.getData()[0] = 'z';
    EXPECT_EQ(buffer.toString(), "z");
}

TEST(MemoryBufferTest, CopyAndMoveAreIndependentValues) {
    MemoryBuffer original = MemoryBuffer::fromString("data");
    MemoryBuffer copy(original);
    copy.getData()[0] = 'D';
    EXPECT_EQ(original.toString(), "data");
    EXPECT_NE(copy, original);
    MemoryBuffer moved(std::move(copy));
    EXPECT_EQ(moved.toString(), "Data");
    MemoryBuffer assigned;
    assigned = original;
    EXPECT_EQ(assigned, original);
}
