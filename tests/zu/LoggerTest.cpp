#include <ZuCore/Logger.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>
#include <cstdio>

#include <ZuCore/LogMacros.h>

#include "ZuTestSupport.h"

using Varkel::Zu::Logger;
using Varkel::Zu::LoggerLocationInfo;

namespace {

using ZuTest::lines;
using ZuTest::readFile;

class LoggerTest : public ::testing::Test {
  protected:
    void TearDown() override { Logger::setLogFile(""); }
    ZuTest::LoggingConfigGuard guard_;
};

}  // namespace

TEST_F(LoggerTest, GetLoggerReturnsTheSameLoggerForTheSameName) {
    auto first = Logger::getLogger("TolvaCore.LoggerTest.Same");
    auto second = Logger::getLogger("TolvaCore.LoggerTest.Same");
    auto other = Logger::getLogger("TolvaCore.LoggerTest.Other");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first.get(), second.get());
    EXPECT_NE(first.get(), other.get());
    EXPECT_EQ(first->getName(), "TolvaCore.LoggerTest.Same");
}

TEST_F(LoggerTest, RootLoggerIsNamedRootAndReachableByName) {
    auto root = Logger::getRootLogger();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->getName(), "root");
    EXPECT_EQ(Logger::getLogger("root").get(), root.get());
    EXPECT_EQ(Logger::getLogger("").get(), root.get());
}

TEST_F(LoggerTest, GetLoggerIsSafeFromManyThreads) {
    std::vector<std::thread> threads;
    std::vector<const Logger*> seen(8);
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back(
            [&seen, i] { seen[i] = Logger::getLogger("TolvaCore.LoggerTest.Concurrent").get(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (const Logger* logger : seen) {
        EXPECT_EQ(logger, seen[0]);
    }
}

TEST_F(LoggerTest, LevelsAreOrderedAndNamed) {
    EXPECT_LT(Logger::getTraceLevel().toInt(), Logger::getDebugLevel().toInt());
    EXPECT_LT(Logger::getDebugLevel().toInt(), Logger::getInfoLevel().toInt());
    EXPECT_LT(Logger::getInfoLevel().toInt(), Logger::getWarnLevel().toInt());
    EXPECT_LT(Logger::getWarnLevel().toInt(), Logger::getErrorLevel().toInt());
    EXPECT_STREQ(Logger::getTraceLevel().getName(), "trace");
    EXPECT_STREQ(Logger::getDebugLevel().getName(), "debug");
    EXPECT_STREQ(Logger::getWarnLevel().getName(), "warn");
    EXPECT_STREQ(Logger::getErrorLevel().getName(), "error");
    EXPECT_EQ(&Logger::getErrorLevel(), &Logger::getErrorLevel());
    EXPECT_TRUE(Logger::getErrorLevel() == Logger::getErrorLevel());
    EXPECT_TRUE(Logger::getErrorLevel() != Logger::getWarnLevel());
}

TEST_F(LoggerTest, LevelFromNameAcceptsTheKnownNamesInAnyCase) {
    EXPECT_EQ(Logger::levelFromName("TRACE"), &Logger::getTraceLevel());
    EXPECT_EQ(Logger::levelFromName("debug"), &Logger::getDebugLevel());
    EXPECT_EQ(Logger::levelFromName("Info"), &Logger::getInfoLevel());
    EXPECT_EQ(Logger::levelFromName("warn"), &Logger::getWarnLevel());
    EXPECT_EQ(Logger::levelFromName("warning"), &Logger::getWarnLevel());
    EXPECT_EQ(Logger::levelFromName("error"), &Logger::getErrorLevel());
    EXPECT_EQ(Logger::levelFromName("off"), &Logger::getOffLevel());
    EXPECT_EQ(Logger::levelFromName("verbose"), nullptr);
    EXPECT_EQ(Logger::levelFromName(""), nullptr);
}

TEST_F(LoggerTest, DefaultLevelIsInfo) {
    auto logger = Logger::getLogger("TolvaCore.LoggerTest.Default");
    EXPECT_EQ(logger->getEffectiveLevel(), Logger::getInfoLevel());
    EXPECT_FALSE(logger->isEnabledFor(Logger::getTraceLevel()));
    EXPECT_FALSE(logger->isEnabledFor(Logger::getDebugLevel()));
    EXPECT_TRUE(logger->isEnabledFor(Logger::getWarnLevel()));
    EXPECT_TRUE(logger->isEnabledFor(Logger::getErrorLevel()));
}

TEST_F(LoggerTest, SetLevelChangesWhatIsEnabled) {
    auto logger = Logger::getLogger("TolvaCore.LoggerTest.SetLevel");
    logger->setLevel(Logger::getTraceLevel());
    EXPECT_TRUE(logger->isEnabledFor(Logger::getTraceLevel()));
    logger->setLevel(Logger::getErrorLevel());
    EXPECT_FALSE(logger->isEnabledFor(Logger::getWarnLevel()));
    EXPECT_TRUE(logger->isEnabledFor(Logger::getErrorLevel()));
    logger->setLevel(Logger::getOffLevel());
    EXPECT_FALSE(logger->isEnabledFor(Logger::getErrorLevel()));
    logger->clearLevel();
    EXPECT_EQ(logger->getEffectiveLevel(), Logger::getInfoLevel());
}

TEST_F(LoggerTest, OffLevelIsNeverEnabledForRecords) {
    auto logger = Logger::getLogger("TolvaCore.LoggerTest.OffRecords");
    logger->setLevel(Logger::getTraceLevel());
    EXPECT_FALSE(logger->isEnabledFor(Logger::getOffLevel()));
}

TEST_F(LoggerTest, LevelsAreInheritedFromDottedAncestorsAndTheRoot) {
    auto parent = Logger::getLogger("TolvaCore.LoggerTest.Tree");
    auto child = Logger::getLogger("TolvaCore.LoggerTest.Tree.Child");
    Logger::setGlobalLevel(Logger::getErrorLevel());
    EXPECT_EQ(child->getEffectiveLevel(), Logger::getErrorLevel());
    EXPECT_EQ(Logger::getRootLogger()->getEffectiveLevel(), Logger::getErrorLevel());

    parent->setLevel(Logger::getDebugLevel());
    EXPECT_EQ(child->getEffectiveLevel(), Logger::getDebugLevel());
    // Loggers made after the configuration follow it too.
    EXPECT_EQ(Logger::getLogger("TolvaCore.LoggerTest.Tree.Late")->getEffectiveLevel(),
              Logger::getDebugLevel());

    child->setLevel(Logger::getWarnLevel());
    EXPECT_EQ(child->getEffectiveLevel(), Logger::getWarnLevel());
    EXPECT_EQ(parent->getEffectiveLevel(), Logger::getDebugLevel());

    child->clearLevel();
    EXPECT_EQ(child->getEffectiveLevel(), Logger::getDebugLevel());
    // A name that merely starts with the same letters is not a descendant.
    EXPECT_EQ(Logger::getLogger("TolvaCore.LoggerTest.TreeHouse")->getEffectiveLevel(),
              Logger::getErrorLevel());
}

TEST_F(LoggerTest, ConfigureLevelsParsesTheListAndReportsBadEntries) {
    EXPECT_TRUE(Logger::configureLevels(
        " TolvaCore.LoggerTest.A = debug ,TolvaCore.LoggerTest.B=error;root=warn"));
    EXPECT_EQ(Logger::getLogger("TolvaCore.LoggerTest.A")->getEffectiveLevel(),
              Logger::getDebugLevel());
    EXPECT_EQ(Logger::getLogger("TolvaCore.LoggerTest.B")->getEffectiveLevel(),
              Logger::getErrorLevel());
    EXPECT_EQ(Logger::getRootLogger()->getEffectiveLevel(), Logger::getWarnLevel());

    EXPECT_FALSE(
        Logger::configureLevels("TolvaCore.LoggerTest.C=loud,TolvaCore.LoggerTest.D=trace,junk"));
    EXPECT_EQ(Logger::getLogger("TolvaCore.LoggerTest.C")->getEffectiveLevel(),
              Logger::getWarnLevel());
    EXPECT_EQ(Logger::getLogger("TolvaCore.LoggerTest.D")->getEffectiveLevel(),
              Logger::getTraceLevel());
}

TEST_F(LoggerTest, EnvironmentSetsGlobalAndPerLoggerLevels) {
    ::setenv("ZU_LOG_LEVEL", "warn", 1);
    ::setenv("ZU_LOG_LEVELS", "TolvaCore.QxPlatformApi=debug,TolvaCore.LoggerTest.Env=trace", 1);
    Logger::reloadConfiguration();
    EXPECT_EQ(Logger::getRootLogger()->getEffectiveLevel(), Logger::getWarnLevel());
    EXPECT_EQ(Logger::getLogger("TolvaCore.LoggerTest.Unlisted")->getEffectiveLevel(),
              Logger::getWarnLevel());
    EXPECT_TRUE(
        Logger::getLogger("TolvaCore.QxPlatformApi")->isEnabledFor(Logger::getDebugLevel()));
    EXPECT_TRUE(
        Logger::getLogger("TolvaCore.LoggerTest.Env")->isEnabledFor(Logger::getTraceLevel()));

    // Reloading without the variables goes back to the defaults.
    ::unsetenv("ZU_LOG_LEVEL");
    ::unsetenv("ZU_LOG_LEVELS");
    Logger::reloadConfiguration();
    EXPECT_EQ(Logger::getLogger("TolvaCore.QxPlatformApi")->getEffectiveLevel(),
              Logger::getInfoLevel());
}

TEST_F(LoggerTest, UnknownEnvironmentLevelIsIgnored) {
    ::setenv("ZU_LOG_LEVEL", "chatty", 1);
    Logger::reloadConfiguration();
    EXPECT_EQ(Logger::getRootLogger()->getEffectiveLevel(), Logger::getInfoLevel());
}

TEST_F(LoggerTest, LogWritesOneRecordToTheLogFile) {
    const auto path = std::filesystem::current_path() / "records.log";
    ASSERT_TRUE(Logger::setLogFile(path.string(), true));
    auto logger = Logger::getLogger("TolvaCore.LoggerTest.File");
    logger->log(L"hello r\u00e9cord", LoggerLocationInfo("dir/Source.cpp", "void f()", 42),
                Logger::getWarnLevel());

    const auto fileLines = lines(readFile(path));
    ASSERT_EQ(fileLines.size(), 1u);
    const std::string& line = fileLines[0];
    EXPECT_NE(line.find("TolvaCore.LoggerTest.File"), std::string::npos) << line;
    EXPECT_NE(line.find("warning"), std::string::npos) << line;
    EXPECT_NE(line.find("hello r\xc3\xa9"
                        "cord"),
              std::string::npos)
        << line;
    EXPECT_NE(line.find("[Source.cpp:42]"), std::string::npos) << line;
}

TEST_F(LoggerTest, DisabledLevelWritesNothing) {
    const auto path = std::filesystem::current_path() / "disabled.log";
    ASSERT_TRUE(Logger::setLogFile(path.string(), true));
    ZuTest::RecordCollector collector;
    auto logger = Logger::getLogger("TolvaCore.LoggerTest.Disabled");
    logger->setLevel(Logger::getErrorLevel());
    logger->log(L"not written", ZU_LOCATION, Logger::getWarnLevel());
    logger->log(L"written", ZU_LOCATION, Logger::getErrorLevel());
    const std::string text = readFile(path);
    EXPECT_EQ(text.find("not written"), std::string::npos);
    EXPECT_NE(text.find("written"), std::string::npos);
    ASSERT_EQ(collector.recordsOf("TolvaCore.LoggerTest.Disabled").size(), 1u);
}

TEST_F(LoggerTest, LogFileFromTheEnvironmentAppends) {
    const auto path = std::filesystem::current_path() / "env.log";
    { std::ofstream(path) << "earlier line\n"; }
    ::setenv("ZU_LOG_FILE", path.c_str(), 1);
    ::setenv("ZU_LOG_STDERR", "0", 1);
    Logger::reloadConfiguration();
    Logger::getLogger("TolvaCore.LoggerTest.EnvFile")
        ->log(L"from env", ZU_LOCATION, Logger::getErrorLevel());
    const auto fileLines = lines(readFile(path));
    ASSERT_EQ(fileLines.size(), 2u);
    EXPECT_EQ(fileLines[0], "earlier line");
    EXPECT_NE(fileLines[1].find("from env"), std::string::npos);
}

TEST_F(LoggerTest, SetLogFileReportsAFileThatCannotBeOpened) {
    const auto blocker = std::filesystem::current_path() / "not-a-folder";
    { std::ofstream(blocker) << "x"; }
    EXPECT_FALSE(Logger::setLogFile((blocker / "records.log").string()));
    // Logging still works (to standard error) and does not throw.
    Logger::getLogger("TolvaCore.LoggerTest.BadFile")
        ->log(L"still fine", ZU_LOCATION, Logger::getErrorLevel());
}

TEST_F(LoggerTest, StderrOutputCanBeTurnedOff) {
    // Standard error is file descriptor 2; route it to a file for the test.
    const auto path = std::filesystem::current_path() / "stderr.txt";
    std::fflush(stderr);
    const int saved = ::dup(2);
    FILE* capture = std::fopen(path.c_str(), "w");
    ASSERT_NE(capture, nullptr);
    ::dup2(::fileno(capture), 2);
    auto logger = Logger::getLogger("TolvaCore.LoggerTest.Stderr");
    logger->log(L"to stderr", ZU_LOCATION, Logger::getErrorLevel());
    Logger::setStderrEnabled(false);
    logger->log(L"suppressed output", ZU_LOCATION, Logger::getErrorLevel());
    Logger::setStderrEnabled(true);
    std::fflush(stderr);
    ::dup2(saved, 2);
    ::close(saved);
    std::fclose(capture);
    const std::string text = readFile(path);
    EXPECT_NE(text.find("to stderr"), std::string::npos) << text;
    EXPECT_EQ(text.find("suppressed output"), std::string::npos) << text;
}

TEST_F(LoggerTest, ObserversSeeEachWrittenRecordWithItsLocation) {
    ZuTest::RecordCollector collector;
    auto logger = Logger::getLogger("TolvaCore.LoggerTest.Observer");
    const int line = __LINE__ + 1;
    logger->log(L"observed", ZU_LOCATION, Logger::getErrorLevel());
    const auto records = collector.recordsOf("TolvaCore.LoggerTest.Observer");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].message, L"observed");
    EXPECT_EQ(records[0].level, "error");
    EXPECT_EQ(records[0].file, "tests/zu/LoggerTest.cpp");
    EXPECT_EQ(records[0].line, line);
    EXPECT_NE(records[0].function.find("TestBody"), std::string::npos);
}

TEST_F(LoggerTest, RemovedObserverIsNoLongerCalled) {
    std::atomic<int> calls{0};
    const std::size_t id =
        Logger::addRecordObserver([&calls](const Logger&, const Logger::Level&, const std::wstring&,
                                           const LoggerLocationInfo&) { ++calls; });
    auto logger = Logger::getLogger("TolvaCore.LoggerTest.Remove");
    logger->log(L"one", ZU_LOCATION, Logger::getErrorLevel());
    Logger::removeRecordObserver(id);
    logger->log(L"two", ZU_LOCATION, Logger::getErrorLevel());
    EXPECT_EQ(calls.load(), 1);
}

TEST_F(LoggerTest, ThrowingObserverDoesNotMakeLogThrow) {
    const std::size_t id = Logger::addRecordObserver(
        [](const Logger&, const Logger::Level&, const std::wstring&, const LoggerLocationInfo&) {
            throw std::runtime_error("observer failure");
        });
    ZuTest::RecordCollector collector;
    EXPECT_NO_THROW(Logger::getLogger("TolvaCore.LoggerTest.Throwing")
                        ->log(L"x", ZU_LOCATION, Logger::getErrorLevel()));
    Logger::removeRecordObserver(id);
    // Observers after the failing one still ran.
    EXPECT_EQ(collector.recordsOf("TolvaCore.LoggerTest.Throwing").size(), 1u);
}

TEST_F(LoggerTest, ConcurrentRecordsAreWrittenWhole) {
    const auto path = std::filesystem::current_path() / "concurrent.log";
    ASSERT_TRUE(Logger::setLogFile(path.string(), true));
    Logger::setStderrEnabled(false);
    auto logger = Logger::getLogger("TolvaCore.LoggerTest.Whole");
    constexpr int kThreads = 6;
    constexpr int kRecords = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&logger, t] {
            for (int i = 0; i < kRecords; ++i) {
                logger->log(L"thread " + std::to_wstring(t) + L" record " + std::to_wstring(i) +
                                L" " + std::wstring(50, L'x') + L" end",
                            ZU_LOCATION, Logger::getErrorLevel());
            }
        });
    }
    // Reconfiguring while others log must be safe as well.
    Logger::setGlobalLevel(Logger::getWarnLevel());
    for (auto& thread : threads) {
        thread.join();
    }
    Logger::setStderrEnabled(true);
    const auto fileLines = lines(readFile(path));
    ASSERT_EQ(fileLines.size(), static_cast<std::size_t>(kThreads * kRecords));
    std::set<std::string> distinct;
    for (const auto& line : fileLines) {
        const auto at = line.find("thread ");
        ASSERT_NE(at, std::string::npos) << line;
        EXPECT_NE(line.find(std::string(50, 'x') + " end ["), std::string::npos) << line;
        distinct.insert(line.substr(at, line.find(' ', line.find("record ") + 7) - at));
    }
    EXPECT_EQ(distinct.size(), static_cast<std::size_t>(kThreads * kRecords));
}

TEST_F(LoggerTest, SwitchingTheLogFileWhileOthersLogLosesAndDuplicatesNothing) {
    const auto first = std::filesystem::current_path() / "switch-first.log";
    const auto second = std::filesystem::current_path() / "switch-second.log";
    ASSERT_TRUE(Logger::setLogFile(first.string(), true));
    Logger::setStderrEnabled(false);
    auto logger = Logger::getLogger("TolvaCore.LoggerTest.Switch");
    constexpr int kThreads = 4;
    constexpr int kRecords = 300;
    std::atomic<int> started{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            ++started;
            for (int i = 0; i < kRecords; ++i) {
                logger->log(L"switching", ZU_LOCATION, Logger::getErrorLevel());
            }
        });
    }
    while (started.load() < kThreads) {
        std::this_thread::yield();
    }
    ASSERT_TRUE(Logger::setLogFile(second.string(), true));
    for (auto& thread : threads) {
        thread.join();
    }
    Logger::setStderrEnabled(true);
    const std::size_t total = lines(readFile(first)).size() + lines(readFile(second)).size();
    EXPECT_EQ(total, static_cast<std::size_t>(kThreads * kRecords));
}

TEST_F(LoggerTest, ObserversComeAndGoWhileOthersLog) {
    auto logger = Logger::getLogger("TolvaCore.LoggerTest.Churn");
    Logger::setStderrEnabled(false);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop.load()) {
            logger->log(L"churn", ZU_LOCATION, Logger::getErrorLevel());
        }
    });
    for (int i = 0; i < 50; ++i) {
        ZuTest::RecordCollector collector;
        logger->log(L"mine", ZU_LOCATION, Logger::getErrorLevel());
        bool sawMine = false;
        for (const auto& record : collector.recordsOf("TolvaCore.LoggerTest.Churn")) {
            sawMine = sawMine || record.message == L"mine";
        }
        EXPECT_TRUE(sawMine);
    }
    stop.store(true);
    writer.join();
    Logger::setStderrEnabled(true);
}
