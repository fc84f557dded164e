// Boost assertions go through ZuCore's handler: logged like a throw, then a
// LogicErrorException.
#include <boost/assert.hpp>

#include <gtest/gtest.h>

#include <string>

#include <ZuCore/LogicErrorException.h>
#include <ZuCore/StringConversion.h>

#include "ZuTestSupport.h"

using namespace Varkel::Zu;

namespace {

int assertPositive(int value) {
    BOOST_ASSERT(value > 0);
    return value;
}

int assertPositiveWithMessage(int value) {
    BOOST_ASSERT_MSG(value > 0, "value must be positive");
    return value;
}

}  // namespace

TEST(AssertionHandlerTest, PassingAssertionDoesNothing) {
    EXPECT_EQ(assertPositive(2), 2);
    EXPECT_EQ(assertPositiveWithMessage(3), 3);
}

TEST(AssertionHandlerTest, FailedAssertionThrowsLogicErrorWithTheExpression) {
    ZuTest::LoggingConfigGuard guard;
    ZuTest::RecordCollector collector;
    try {
        assertPositive(0);
        FAIL() << "nothing thrown";
    } catch (const LogicErrorException& e) {
        EXPECT_EQ(getExceptionMessage(e), L"Assertion failed: value > 0");
        EXPECT_STREQ(e.getLocation().getFileName(), "tests/zu/AssertionHandlerTest.cpp");
        EXPECT_NE(std::string(e.getLocation().getFunctionName()).find("assertPositive"),
                  std::string::npos);
    }
    const auto records = collector.recordsOf("root");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, "error");
    EXPECT_EQ(narrow(records[0].message)
                  .rfind("THROWING EXCEPTION with message : Assertion failed: value > 0 in ", 0),
              0u);
}

TEST(AssertionHandlerTest, FailedAssertionWithMessageIncludesIt) {
    ZuTest::LoggingConfigGuard guard;
    EXPECT_THROW(
        {
            try {
                assertPositiveWithMessage(-1);
            } catch (const LogicErrorException& e) {
                EXPECT_EQ(getExceptionMessage(e),
                          L"Assertion failed: value > 0 (value must be positive)");
                throw;
            }
        },
        LogicErrorException);
}
