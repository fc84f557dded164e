#include <ZuCore/ThrowException.h>

#include <gtest/gtest.h>

#include <string>

#include <ZuCore/IllegalStateException.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/Logger.h>
#include <ZuCore/StringConversion.h>

#include "ZuTestSupport.h"

using namespace Varkel::Zu;

namespace {

class ThrowExceptionTest : public ::testing::Test {
  protected:
    ZuTest::LoggingConfigGuard guard_;
    ZuTest::RecordCollector collector_;
};

int g_throwLine = 0;
std::string g_throwFunction;

void throwsInvalidArgument(int value) {
    g_throwFunction = __PRETTY_FUNCTION__;
    g_throwLine = __LINE__ + 1;
    ZU_THROW(InvalidArgumentException, L"Bad value " + std::to_wstring(value));
}

}  // namespace

TEST_F(ThrowExceptionTest, ThrowsTheTypeWithMessageAndLocation) {
    try {
        throwsInvalidArgument(7);
        FAIL() << "nothing thrown";
    } catch (const InvalidArgumentException& e) {
        EXPECT_EQ(getExceptionMessage(e), L"Bad value 7");
        EXPECT_STREQ(e.getLocation().getFileName(), "tests/zu/ThrowExceptionTest.cpp");
        EXPECT_EQ(e.getLocation().getFunctionName(), g_throwFunction);
        EXPECT_EQ(e.getLocation().getLineNumber(), g_throwLine);
    }
}

TEST_F(ThrowExceptionTest, LogsTheThrowLineOnTheRootLoggerAtErrorLevel) {
    EXPECT_THROW(throwsInvalidArgument(3), InvalidArgumentException);
    const auto records = collector_.recordsOf("root");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, "error");
    EXPECT_EQ(narrow(records[0].message), "THROWING EXCEPTION with message : Bad value 3 in " +
                                              g_throwFunction + " (tests/zu/ThrowExceptionTest(" +
                                              std::to_string(g_throwLine) + "))");
    EXPECT_NE(g_throwFunction.find("throwsInvalidArgument(int)"), std::string::npos);
    EXPECT_EQ(records[0].line, g_throwLine);
}

TEST_F(ThrowExceptionTest, FunctionFormUsesTheGivenLocation) {
    const LoggerLocationInfo where("api/Tolva/Tolva/TolvaCore/QxPlatformApi.cpp",
                                   "void Varkel::Tolva::QxPlatformApi::unregisterService()", 420);
    EXPECT_THROW(throwException<IllegalStateException>(L"Service not found", where),
                 IllegalStateException);
    const auto records = collector_.recordsOf("root");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].message,
              L"THROWING EXCEPTION with message : Service not found in void "
              L"Varkel::Tolva::QxPlatformApi::unregisterService() "
              L"(api/Tolva/Tolva/TolvaCore/QxPlatformApi(420))");
}

TEST_F(ThrowExceptionTest, LogThrowingOnlyLogs) {
    const LoggerLocationInfo where("src/A.cpp", "int g()", 9);
    logThrowing(std::wstring(L"wide \u00e9"), where);
    logThrowing(std::string("narrow \xc3\xa9"), where);
    const auto records = collector_.recordsOf("root");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].message,
              L"THROWING EXCEPTION with message : wide \u00e9 in int g() (src/A(9))");
    EXPECT_EQ(records[1].message,
              L"THROWING EXCEPTION with message : narrow \u00e9 in int g() (src/A(9))");
}

TEST_F(ThrowExceptionTest, FormatKeepsPathsWithoutExtensionAsTheyAre) {
    EXPECT_EQ(formatThrowingLine(L"m", LoggerLocationInfo("dir.d/Makefile", "f", 1)),
              L"THROWING EXCEPTION with message : m in f (dir.d/Makefile(1))");
}

TEST_F(ThrowExceptionTest, StillThrowsWhenTheRootLoggerIsOff) {
    Logger::getRootLogger()->setLevel(Logger::getOffLevel());
    EXPECT_THROW(throwsInvalidArgument(1), InvalidArgumentException);
    EXPECT_TRUE(collector_.recordsOf("root").empty());
}
