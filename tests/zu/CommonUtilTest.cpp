#include <ZuCore/CommonUtil.h>

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include <ZuCore/Constants.h>
#include <ZuCore/InvalidArgumentException.h>

using Varkel::Zu::CommonUtil;

namespace {
namespace inner {
template <class T>
struct Box {};
}  // namespace inner
}  // namespace

TEST(CommonUtilTest, MsDelayToTimePointIsNowPlusTheDelay) {
    const auto before = std::chrono::steady_clock::now();
    const auto point = CommonUtil::msDelayToTimePoint(1500);
    const auto after = std::chrono::steady_clock::now();
    EXPECT_GE(point, before + std::chrono::milliseconds(1500));
    EXPECT_LE(point, after + std::chrono::milliseconds(1500));
    EXPECT_GE(CommonUtil::msDelayToTimePoint(0), before);
    EXPECT_GT(CommonUtil::msDelayToTimePoint(ZU_TIMEOUT_INFINITE),
              after + std::chrono::hours(24 * 49));
}

TEST(CommonUtilTest, UnreservedCharactersStayAsTheyAre) {
    const std::wstring unreserved =
        L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
    EXPECT_EQ(CommonUtil::encodeUnsafeURLCharacters(unreserved), unreserved);
    EXPECT_EQ(CommonUtil::encodeUnsafeURLCharacters(L""), L"");
}

TEST(CommonUtilTest, EverythingElseIsPercentEncodedUtf8WithUpperCaseHex) {
    EXPECT_EQ(CommonUtil::encodeUnsafeURLCharacters(L"a b/\u00e9"), L"a%20b%2F%C3%A9");
    EXPECT_EQ(CommonUtil::encodeUnsafeURLCharacters(L"topic/sub?x=1&y=%#+"),
              L"topic%2Fsub%3Fx%3D1%26y%3D%25%23%2B");
    EXPECT_EQ(CommonUtil::encodeUnsafeURLCharacters(L"!*'();:@$,[]"),
              L"%21%2A%27%28%29%3B%3A%40%24%2C%5B%5D");
    EXPECT_EQ(CommonUtil::encodeUnsafeURLCharacters(L"\u20ac\U0001F600"), L"%E2%82%AC%F0%9F%98%80");
    EXPECT_EQ(CommonUtil::encodeUnsafeURLCharacters(std::wstring(1, L'\0')), L"%00");
    EXPECT_EQ(CommonUtil::encodeUnsafeURLCharacters(L"\x7f"), L"%7F");
}

TEST(CommonUtilTest, GetNiceTypeNameDemangles) {
    EXPECT_EQ(
        CommonUtil::getNiceTypeName(typeid(Varkel::Zu::InvalidArgumentException).name(), false),
        "Varkel::Zu::InvalidArgumentException");
    EXPECT_EQ(
        CommonUtil::getNiceTypeName(typeid(Varkel::Zu::InvalidArgumentException).name(), true),
        "InvalidArgumentException");
    EXPECT_EQ(CommonUtil::getNiceTypeName(typeid(int).name(), false), "int");
    EXPECT_EQ(CommonUtil::getNiceTypeName<std::vector<int>>(true),
              "vector<int, std::allocator<int> >");
}

TEST(CommonUtilTest, GetNiceTypeNameKeepsTemplateArgumentQualification) {
    const std::string name = CommonUtil::getNiceTypeName<inner::Box<Varkel::Zu::CommonUtil>>(true);
    EXPECT_EQ(name, "Box<Varkel::Zu::CommonUtil>");
}

TEST(CommonUtilTest, NameThatCannotBeDemangledIsReturnedAsGiven) {
    EXPECT_EQ(CommonUtil::getNiceTypeName("not a mangled name", false), "not a mangled name");
    EXPECT_EQ(CommonUtil::getNiceTypeName("a::b", true), "b");
}
