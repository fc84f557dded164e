#include <ZuCore/Exception.h>

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <thread>
#include <type_traits>

#include <ZuCore/IllegalStateException.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/LogicErrorException.h>
#include <ZuCore/RuntimeErrorException.h>

using namespace Varkel::Zu;

namespace {

template <class E>
class ExceptionFamilyTest : public ::testing::Test {};

using ExceptionTypes = ::testing::Types<Exception, InvalidArgumentException, RuntimeErrorException,
                                        IllegalStateException, LogicErrorException>;
TYPED_TEST_SUITE(ExceptionFamilyTest, ExceptionTypes);

}  // namespace

TYPED_TEST(ExceptionFamilyTest, IsAStdExceptionAndAZuException) {
    static_assert(std::is_base_of_v<std::exception, TypeParam>);
    static_assert(std::is_base_of_v<Exception, TypeParam>);
    static_assert(std::is_default_constructible_v<TypeParam>);
    static_assert(std::is_copy_constructible_v<TypeParam>);
    static_assert(std::is_copy_assignable_v<TypeParam>);
}

TYPED_TEST(ExceptionFamilyTest, CarriesMessageLocationAndThread) {
    const LoggerLocationInfo where("api/X.cpp", "void f()", 12);
    const TypeParam e(StringHolder(L"bad \u00e9"), where);
    EXPECT_EQ(e.getMessage().str(), L"bad \u00e9");
    EXPECT_STREQ(e.what(), "bad \xc3\xa9");
    EXPECT_STREQ(e.getLocation().getFileName(), "api/X.cpp");
    EXPECT_STREQ(e.getLocation().getFunctionName(), "void f()");
    EXPECT_EQ(e.getLocation().getLineNumber(), 12);
    EXPECT_EQ(e.getThreadId(), std::this_thread::get_id());
    EXPECT_EQ(getExceptionMessage(e), L"bad \u00e9");
}

TYPED_TEST(ExceptionFamilyTest, DefaultHasEmptyMessageAndUnknownLocation) {
    const TypeParam e;
    EXPECT_STREQ(e.what(), "");
    EXPECT_TRUE(e.getMessage().empty());
    EXPECT_EQ(e.getLocation().getLineNumber(), -1);
}

TYPED_TEST(ExceptionFamilyTest, CopyKeepsEverything) {
    std::thread::id maker;
    TypeParam copy;
    std::thread([&] {
        maker = std::this_thread::get_id();
        const TypeParam original(StringHolder(L"copied"), LoggerLocationInfo("f.cpp", "g", 3));
        copy = original;
    }).join();
    EXPECT_EQ(copy.getMessage().str(), L"copied");
    EXPECT_STREQ(copy.what(), "copied");
    EXPECT_EQ(copy.getLocation().getLineNumber(), 3);
    EXPECT_EQ(copy.getThreadId(), maker);
    const TypeParam constructed(copy);
    EXPECT_STREQ(constructed.what(), "copied");
}

TYPED_TEST(ExceptionFamilyTest, IsCaughtByReferenceAsItsBases) {
    try {
        throw TypeParam(StringHolder(L"thrown"), LoggerLocationInfo());
    } catch (const Exception& e) {
        EXPECT_EQ(getExceptionMessage(e), L"thrown");
    }
    try {
        throw TypeParam(StringHolder(L"thrown"));
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "thrown");
    }
}

TEST(ExceptionTest, WideStreamGetsTheMessage) {
    std::wostringstream out;
    out << InvalidArgumentException(StringHolder(L"wide \u20ac"), LoggerLocationInfo());
    EXPECT_EQ(out.str(), L"wide \u20ac");
}

TEST(ExceptionTest, NarrowStreamGetsUtf8) {
    std::ostringstream out;
    out << RuntimeErrorException(StringHolder(L"narrow \u20ac"));
    EXPECT_EQ(out.str(), "narrow \xe2\x82\xac");
}

TEST(ExceptionTest, WhatStaysValidForTheObjectsLifetime) {
    const IllegalStateException e(StringHolder(std::wstring(1000, L'y')));
    const char* text = e.what();
    EXPECT_EQ(std::strlen(text), 1000u);
    EXPECT_EQ(text, e.what());
}
