#include <ZuCore/LogCappedData.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <ZuCore/Timer.h>

#include "ZuTestSupport.h"

using Varkel::Zu::LogCappedData;
using Varkel::Zu::Logger;

namespace {

const char kLoggerName[] = "TolvaCore.LogCappedDataTest";

class LogCappedDataTest : public ::testing::Test {
  protected:
    std::vector<ZuTest::CapturedRecord> records() const {
        return collector_.recordsOf(kLoggerName);
    }

    // Waits until `ms` milliseconds have passed since `timer` started: the cap interval is
    // the very thing under test, so the test has to let it run out.
    static void waitUntilElapsed(const Varkel::Zu::Timer& timer, std::uint64_t ms) {
        while (timer.getMilliseconds() < ms) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    ZuTest::LoggingConfigGuard guard_;
    ZuTest::RecordCollector collector_;
    std::shared_ptr<Logger> logger_ = Logger::getLogger(kLoggerName);
};

}  // namespace

TEST_F(LogCappedDataTest, FirstRecordIsWrittenAsGiven) {
    LogCappedData capped;
    capped.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), 60000, L"first");
    const auto written = records();
    ASSERT_EQ(written.size(), 1u);
    EXPECT_EQ(written[0].message, L"first");
    EXPECT_EQ(written[0].level, "error");
}

TEST_F(LogCappedDataTest, RecordsWithinTheIntervalAreSuppressedAndCounted) {
    LogCappedData capped;
    for (int i = 0; i < 5; ++i) {
        capped.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getWarnLevel(), 60000, L"again");
    }
    EXPECT_EQ(records().size(), 1u);
    EXPECT_EQ(capped.getSuppressedCount(), 4u);
}

TEST_F(LogCappedDataTest, NextRecordAfterTheIntervalSaysHowManyWereSuppressed) {
    LogCappedData capped;
    Varkel::Zu::Timer timer;
    constexpr unsigned kCapMs = 400;
    capped.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), kCapMs, L"failure");
    capped.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), kCapMs, L"failure");
    capped.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), kCapMs, L"failure");
    waitUntilElapsed(timer, kCapMs + 20);
    capped.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), kCapMs, L"failure");
    capped.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), kCapMs, L"failure");
    timer.reset();
    waitUntilElapsed(timer, kCapMs + 20);
    capped.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), kCapMs, L"failure");
    capped.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), kCapMs, L"failure");

    const auto written = records();
    ASSERT_EQ(written.size(), 3u);
    EXPECT_EQ(written[0].message, L"failure");
    EXPECT_EQ(written[1].message, L"failure (2 similar messages suppressed)");
    EXPECT_EQ(written[2].message, L"failure (1 similar message suppressed)");
    EXPECT_EQ(capped.getSuppressedCount(), 1u);
}

TEST_F(LogCappedDataTest, ZeroIntervalWritesEveryRecord) {
    LogCappedData capped;
    for (int i = 0; i < 3; ++i) {
        capped.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), 0, L"each");
    }
    EXPECT_EQ(records().size(), 3u);
}

TEST_F(LogCappedDataTest, DisabledLevelNeitherWritesNorCounts) {
    LogCappedData capped;
    logger_->setLevel(Logger::getErrorLevel());
    capped.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getDebugLevel(), 60000, L"debug");
    EXPECT_TRUE(records().empty());
    EXPECT_EQ(capped.getSuppressedCount(), 0u);
    // The disabled call did not use up the interval either.
    capped.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), 60000, L"error");
    ASSERT_EQ(records().size(), 1u);
    EXPECT_EQ(records()[0].message, L"error");
}

TEST_F(LogCappedDataTest, InstancesAreCappedIndependently) {
    LogCappedData first;
    LogCappedData second;
    first.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), 60000, L"a");
    second.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), 60000, L"b");
    first.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), 60000, L"a");
    EXPECT_EQ(records().size(), 2u);
}

TEST_F(LogCappedDataTest, NullLoggerIsIgnored) {
    LogCappedData capped;
    EXPECT_NO_THROW(
        capped.logCappedAtLevel(nullptr, ZU_LOCATION, Logger::getErrorLevel(), 0, L"x"));
    EXPECT_EQ(capped.getSuppressedCount(), 0u);
}

TEST_F(LogCappedDataTest, ConcurrentCallersGetExactlyOneRecordPerInterval) {
    LogCappedData capped;
    constexpr int kThreads = 8;
    constexpr int kCalls = 500;
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            while (!go.load()) {
                std::this_thread::yield();
            }
            for (int i = 0; i < kCalls; ++i) {
                capped.logCappedAtLevel(logger_, ZU_LOCATION, Logger::getErrorLevel(), 60000,
                                        L"contended");
            }
        });
    }
    go.store(true);
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(records().size(), 1u);
    EXPECT_EQ(capped.getSuppressedCount(), static_cast<std::uint64_t>(kThreads * kCalls - 1));
}

TEST_F(LogCappedDataTest, LazyFormBuildsTheMessageOnlyForWrittenRecords) {
    LogCappedData capped;
    int built = 0;
    for (int i = 0; i < 4; ++i) {
        capped.logCappedAtLevelWith(logger_, ZU_LOCATION, Logger::getErrorLevel(), 60000, [&] {
            ++built;
            return std::wstring(L"lazy");
        });
    }
    EXPECT_EQ(built, 1);
    EXPECT_EQ(records().size(), 1u);
}
