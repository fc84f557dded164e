#include <ZuCore/StringHolder.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>

using Varkel::Zu::StringHolder;

TEST(StringHolderTest, ConstructsFromWideLiteralsAndStrings) {
    EXPECT_EQ(StringHolder(L"literal").str(), L"literal");
    const std::wstring text = L"text";
    EXPECT_EQ(StringHolder(text).str(), L"text");
    EXPECT_EQ(StringHolder(std::wstring(L"moved")).str(), L"moved");
    EXPECT_TRUE(StringHolder().empty());
    EXPECT_TRUE(StringHolder(static_cast<const wchar_t*>(nullptr)).empty());
}

TEST(StringHolderTest, CopiesAndMoves) {
    StringHolder original(L"value");
    StringHolder copy(original);
    EXPECT_EQ(copy, original);
    StringHolder moved(std::move(copy));
    EXPECT_EQ(moved.str(), L"value");
    EXPECT_TRUE(copy.empty());  // NOLINT(bugprone-use-after-move): moved-from is empty
    StringHolder assigned;
    assigned = original;
    EXPECT_EQ(assigned.str(), L"value");
    StringHolder moveAssigned;
    moveAssigned = std::move(assigned);
    EXPECT_EQ(moveAssigned.str(), L"value");
    EXPECT_NE(moveAssigned, StringHolder(L"other"));
}

TEST(StringHolderTest, NarrowStreamGetsUtf8) {
    std::ostringstream out;
    out << StringHolder(L"caf\u00e9 \u20ac");
    EXPECT_EQ(out.str(), "caf\xc3\xa9 \xe2\x82\xac");
    EXPECT_EQ(StringHolder(L"\u00e9").toUtf8(), "\xc3\xa9");
}

TEST(StringHolderTest, WideStreamGetsTheTextUnchanged) {
    std::wostringstream out;
    out << StringHolder(L"wide \u00e9");
    EXPECT_EQ(out.str(), L"wide \u00e9");
}
