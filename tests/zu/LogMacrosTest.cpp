#include <ZuCore/LogMacros.h>

#include <gtest/gtest.h>

#include <string>

#include "ZuTestSupport.h"

using Varkel::Zu::Logger;

namespace {

class LogMacrosTest : public ::testing::Test {
  protected:
    ZuTest::LoggingConfigGuard guard_;
    ZuTest::RecordCollector collector_;
    std::shared_ptr<Logger> logger_ = Logger::getLogger("TolvaCore.LogMacrosTest");
    int built_ = 0;

    std::wstring build(const std::wstring& text) {
        ++built_;
        return text;
    }
};

}  // namespace

TEST_F(LogMacrosTest, DisabledLevelDoesNotBuildTheMessage) {
    logger_->setLevel(Logger::getErrorLevel());
    ZU_LOG_TRACE(logger_, build(L"trace"));
    ZU_LOG_DEBUG(logger_, build(L"debug"));
    ZU_LOG_INFO(logger_, build(L"info"));
    ZU_LOG_WARN(logger_, build(L"warn"));
    EXPECT_EQ(built_, 0);
    EXPECT_TRUE(collector_.recordsOf("TolvaCore.LogMacrosTest").empty());
}

TEST_F(LogMacrosTest, EnabledLevelsWriteOneRecordEach) {
    logger_->setLevel(Logger::getTraceLevel());
    ZU_LOG_TRACE(logger_, build(L"t"));
    ZU_LOG_DEBUG(logger_, build(L"d"));
    ZU_LOG_INFO(logger_, build(L"i"));
    ZU_LOG_WARN(logger_, build(L"w"));
    ZU_LOG_ERROR(logger_, L"e" + std::to_wstring(5));
    EXPECT_EQ(built_, 4);
    const auto records = collector_.recordsOf("TolvaCore.LogMacrosTest");
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[0].level, "trace");
    EXPECT_EQ(records[1].level, "debug");
    EXPECT_EQ(records[2].level, "info");
    EXPECT_EQ(records[3].level, "warn");
    EXPECT_EQ(records[4].level, "error");
    EXPECT_EQ(records[4].message, L"e5");
}

TEST_F(LogMacrosTest, RecordCarriesTheCallSite) {
    const int line = __LINE__ + 1;
    ZU_LOG_ERROR(logger_, L"located");
    const auto records = collector_.recordsOf("TolvaCore.LogMacrosTest");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].file, "tests/zu/LogMacrosTest.cpp");
    EXPECT_EQ(records[0].line, line);
}

TEST_F(LogMacrosTest, NullLoggerLogsNothing) {
    std::shared_ptr<Logger> none;
    ZU_LOG_ERROR(none, build(L"x"));
    ZU_LOG_CAPPED(none, Logger::getErrorLevel(), 1000, build(L"y"));
    EXPECT_EQ(built_, 0);
}

TEST_F(LogMacrosTest, CappedMacroBuildsOnlyTheMessagesItWrites) {
    // The call site's LogCappedData is static: when the test is repeated in one process, the
    // interval opened by the first run is still running.
    static int runs = 0;
    const std::size_t expected = ++runs == 1 ? 1 : 0;
    for (int i = 0; i < 10; ++i) {
        ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), 60000, build(L"capped"));
    }
    EXPECT_EQ(static_cast<std::size_t>(built_), expected);
    EXPECT_EQ(collector_.recordsOf("TolvaCore.LogMacrosTest").size(), expected);

    logger_->setLevel(Logger::getOffLevel());
    ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), 0, build(L"off"));
    EXPECT_EQ(static_cast<std::size_t>(built_), expected);
}

TEST_F(LogMacrosTest, EachCappedCallSiteHasItsOwnLimit) {
    static int runs = 0;  // See CappedMacroBuildsOnlyTheMessagesItWrites.
    const std::size_t expected = ++runs == 1 ? 2 : 0;
    ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), 60000, L"first site");
    ZU_LOG_CAPPED(logger_, Logger::getErrorLevel(), 60000, L"second site");
    EXPECT_EQ(collector_.recordsOf("TolvaCore.LogMacrosTest").size(), expected);
}
