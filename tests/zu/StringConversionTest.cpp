#include <ZuCore/StringConversion.h>

#include <gtest/gtest.h>

#include <string>

using Varkel::Zu::narrow;
using Varkel::Zu::widen;

TEST(StringConversionTest, AsciiRoundTrips) {
    EXPECT_EQ(widen("plain text 123"), L"plain text 123");
    EXPECT_EQ(narrow(L"plain text 123"), "plain text 123");
    EXPECT_EQ(widen(""), L"");
    EXPECT_EQ(narrow(L""), "");
}

TEST(StringConversionTest, MultiByteCharactersConvertBothWays) {
    const std::string utf8 = "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\x7f\xc2\x80\xef\xbf\xbf";
    const std::wstring wide = L"\u00e9\u20ac\U0001F600\x7f\u0080\uFFFF";
    EXPECT_EQ(widen(utf8), wide);
    EXPECT_EQ(narrow(wide), utf8);
    EXPECT_EQ(narrow(L"\U0010FFFF"), "\xf4\x8f\xbf\xbf");
}

TEST(StringConversionTest, EmbeddedNulIsKept) {
    const std::string utf8("a\0b", 3);
    EXPECT_EQ(widen(utf8), std::wstring(L"a\0b", 3));
    EXPECT_EQ(narrow(std::wstring(L"a\0b", 3)), utf8);
}

TEST(StringConversionTest, InvalidUtf8BecomesReplacementCharacters) {
    EXPECT_EQ(widen("a\xff"
                    "b"),
              L"a\uFFFDb");
    // Lone continuation byte.
    EXPECT_EQ(widen("\x80"), L"\uFFFD");
    // Truncated sequence at the end, and one followed by ASCII.
    EXPECT_EQ(widen("x\xe2\x82"), L"x\uFFFD");
    EXPECT_EQ(widen("\xe2\x82y"), L"\uFFFDy");
    // Overlong encodings.
    EXPECT_EQ(widen("\xc0\xaf"), L"\uFFFD\uFFFD");
    EXPECT_EQ(widen("\xe0\x80\xaf"), L"\uFFFD");
    // Encoded surrogate and a value above U+10FFFF.
    EXPECT_EQ(widen("\xed\xa0\x80"), L"\uFFFD");
    EXPECT_EQ(widen("\xf4\x90\x80\x80"), L"\uFFFD");
    EXPECT_EQ(widen("\xf5\x80"), L"\uFFFD\uFFFD");
}

TEST(StringConversionTest, NonScalarWideValuesBecomeReplacementCharacters) {
    std::wstring text;
    text.push_back(static_cast<wchar_t>(0xD800));
    text.push_back(static_cast<wchar_t>(0x110000));
    EXPECT_EQ(narrow(text), "\xef\xbf\xbd\xef\xbf\xbd");
}
