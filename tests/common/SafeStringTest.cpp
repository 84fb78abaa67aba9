// The exported bounded C string functions. Buffers are heap blocks of exactly
// the size passed, so that ASan reports any access outside them.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "core/common/SafeString.h"

namespace {

std::unique_ptr<char[]> Block(size_t size) {
    std::unique_ptr<char[]> block(new char[size]);
    std::memset(block.get(), '#', size);
    return block;
}

TEST(SafeStringTest, LengthCopyAndConcatenateStayInBounds) {
    auto block = Block(6);
    EXPECT_EQ(strlen_safe(block.get(), 6), 6u);
    EXPECT_EQ(strlen_safe(nullptr, 10), 0u);
    EXPECT_EQ(strcpy_safe(block.get(), 6, "abcdefgh"), block.get());
    EXPECT_STREQ(block.get(), "abcde");
    EXPECT_EQ(strlen_safe(block.get(), 6), 5u);
    strcpy_safe(block.get(), 6, "ab");
    EXPECT_STREQ(strcat_safe(block.get(), 6, "cdefg"), "abcde");
    strcpy_safe(block.get(), 0, "zz");  // null pointers and size 0: nothing happens
    strcpy_safe(block.get(), 6, nullptr);
    strcat_safe(block.get(), 0, "zz");
    EXPECT_STREQ(block.get(), "abcde");
    EXPECT_EQ(strcat_safe(nullptr, 6, "a"), nullptr);

    auto unterminated = Block(3);  // strlcat finds no end to append to
    EXPECT_EQ(VeskCore::strlcat(unterminated.get(), "xy", 3), 5u);
    EXPECT_EQ(unterminated[2], '#');
}

TEST(SafeStringTest, WideCopyKeepsLowBytesSignExtendedAndWritesNPlusOne) {
    const wchar_t src[] = {L'a', 0x4142, 0xE9, 0x100, L'z'};
    std::unique_ptr<wchar_t[]> dest(new wchar_t[4]);
    EXPECT_EQ(wcscpy_safe(dest.get(), 3, src), dest.get());
    EXPECT_EQ(dest[0], L'a');
    EXPECT_EQ(dest[1], static_cast<wchar_t>(0x42));
    EXPECT_EQ(dest[2], static_cast<wchar_t>(-0x17));  // 0xE9 sign-extended
    EXPECT_EQ(dest[3], 0);                            // element n + 1
    wcscpy_safe(dest.get(), 3, src + 3);              // low byte 0 ends the copy
    EXPECT_EQ(dest[0], 0);
    EXPECT_EQ(wcscpy_safe(nullptr, 3, src), nullptr);
}

TEST(SafeStringTest, PrintfFamilyReturnsWouldBeLengthAndTruncates) {
    auto block = Block(8);
    EXPECT_EQ(snprintf_safe(block.get(), 8, "%d-%s", 42, "abc"), 6);
    EXPECT_EQ(snprintfcat(block.get(), 8, "%s", "XYZ"), 3);  // only "X" fits
    EXPECT_STREQ(block.get(), "42-abcX");
    EXPECT_EQ(snprintfcat(block.get(), 8, "more"), -1);  // full
    EXPECT_STREQ(block.get(), "42-abcX");
    EXPECT_EQ(snprintf_safe(block.get(), 8, "%s", "0123456789"), 10);
    EXPECT_STREQ(block.get(), "0123456");

    auto unterminated = Block(4);
    EXPECT_EQ(snprintfcat(unterminated.get(), 4, "x"), -1);
    EXPECT_EQ(std::string(unterminated.get(), 4), std::string("###\0", 4));
    auto one = Block(1);
    EXPECT_EQ(snprintf_safe(one.get(), 1, "x"), -1);  // room for the terminator only
    EXPECT_EQ(one[0], '\0');
    for (size_t n : {0, 8}) {
        EXPECT_EQ(snprintf_safe(n ? nullptr : block.get(), n, "x"), -1);
        EXPECT_EQ(snprintfcat(n ? nullptr : block.get(), n, "x"), -1);
    }
}

}  // namespace
