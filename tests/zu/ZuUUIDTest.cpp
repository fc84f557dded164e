#include <ZuCore/ZuUUID.h>

#include <gtest/gtest.h>

#include <set>
#include <string>

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/MakeShared.h>

#include "ZuTestSupport.h"

using Varkel::Zu::InvalidArgumentException;
using Varkel::Zu::MakeShared;
using Varkel::Zu::ZuUUID;

TEST(ZuUUIDTest, ParsesAndFormatsInLowerCase) {
    const ZuUUID id(std::wstring(L"0f8fad5b-d9cb-469f-a165-70867728950e"));
    EXPECT_EQ(id.toWString(), L"0f8fad5b-d9cb-469f-a165-70867728950e");
    EXPECT_EQ(id.toString(), "0f8fad5b-d9cb-469f-a165-70867728950e");
    EXPECT_EQ(id.getUUID().data[0], 0x0f);
    EXPECT_EQ(id.getUUID().data[15], 0x0e);
    EXPECT_FALSE(id.isNil());
}

TEST(ZuUUIDTest, AcceptsUpperCaseAndFormatsLowerCase) {
    const ZuUUID id(std::wstring(L"0F8FAD5B-D9CB-469F-A165-70867728950E"));
    EXPECT_EQ(id.toWString(), L"0f8fad5b-d9cb-469f-a165-70867728950e");
    EXPECT_EQ(id, ZuUUID(std::wstring(L"0f8fad5b-d9cb-469f-a165-70867728950e")));
}

TEST(ZuUUIDTest, TextThatIsNotAUuidThrowsInvalidArgument) {
    ZuTest::LoggingConfigGuard guard;
    for (const std::wstring text :
         {L"", L"not-a-uuid", L"0f8fad5bd9cb469fa16570867728950e",
          L"0f8fad5b-d9cb-469f-a165-70867728950", L"0f8fad5b-d9cb-469f-a165-70867728950e0",
          L"0f8fad5b-d9cb-469f-a165_70867728950e", L"0f8fad5b-d9cb-469f-a165-70867728950g",
          L"{0f8fad5b-d9cb-469f-a165-70867728950e}", L" 0f8fad5b-d9cb-469f-a165-70867728950e",
          L"0f8fad5-bd9cb-469f-a165-70867728950e"}) {
        EXPECT_THROW(ZuUUID{text}, InvalidArgumentException)
            << std::string(text.begin(), text.end());
        EXPECT_FALSE(ZuUUID::isValid(text));
    }
}

TEST(ZuUUIDTest, MakeSharedCreatesFromText) {
    auto id = MakeShared::create<ZuUUID>(std::wstring(L"123e4567-e89b-12d3-a456-426614174000"));
    EXPECT_EQ(id->toWString(), L"123e4567-e89b-12d3-a456-426614174000");
    EXPECT_THROW(MakeShared::create<ZuUUID>(std::wstring(L"bad")), InvalidArgumentException);
}

TEST(ZuUUIDTest, DefaultIsNil) {
    const ZuUUID nil;
    EXPECT_TRUE(nil.isNil());
    EXPECT_EQ(nil.toWString(), L"00000000-0000-0000-0000-000000000000");
}

TEST(ZuUUIDTest, RandomUuidsAreVersion4AndDistinct) {
    std::set<std::wstring> seen;
    for (int i = 0; i < 50; ++i) {
        const ZuUUID id = ZuUUID::generateRandom();
        const std::wstring text = id.toWString();
        EXPECT_TRUE(ZuUUID::isValid(text));
        EXPECT_EQ(text[14], L'4');
        EXPECT_NE(std::wstring(L"89ab").find(text[19]), std::wstring::npos);
        EXPECT_EQ(ZuUUID(text), id);
        seen.insert(text);
    }
    EXPECT_EQ(seen.size(), 50u);
}

TEST(ZuUUIDTest, ComparesByValue) {
    const ZuUUID a(std::wstring(L"00000000-0000-0000-0000-000000000001"));
    const ZuUUID b(std::wstring(L"00000000-0000-0000-0000-000000000002"));
    EXPECT_TRUE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_NE(a, b);
    const ZuUUID copy(a);
    EXPECT_EQ(copy, a);
    EXPECT_EQ(ZuUUID(a.getUUID()), a);
}
