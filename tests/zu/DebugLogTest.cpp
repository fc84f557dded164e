#include <ZuCore/DebugLog.h>

#include <gtest/gtest.h>

#include <TestSupport.h>

#include "ZuTestSupport.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using Varkel::Zu::DebugLog;

namespace {

using ZuTest::lines;
using ZuTest::readFile;

// A folder of its own for each call, also when a test is repeated in one process.
std::filesystem::path uniquePath(const std::string& name) {
    static int counter = 0;
    return std::filesystem::current_path() / (name + "-" + std::to_string(++counter));
}

std::filesystem::path freshFolder(const std::string& name) {
    const auto folder = uniquePath(name);
    std::filesystem::create_directories(folder);
    return folder;
}

}  // namespace

TEST(DebugLogTest, PathIsTheFixedLiteral) {
    EXPECT_STREQ(DebugLog::kPath, "C://logs//ZuLog.txt");
    EXPECT_EQ(DebugLog::instance().getPath(), "C://logs//ZuLog.txt");
    EXPECT_EQ(&DebugLog::instance(), &DebugLog::instance());
}

TEST(DebugLogTest, TraceAndErrorWriteFlushedPrefixedLines) {
    DebugLog::trace(std::wstring(L"Obtaining a new access token"));
    // Flushed at once: the file shows the line without any further action.
    EXPECT_NE(TolvaTest::readDebugLog().find("TRACE: Obtaining a new access token\n"),
              std::string::npos);
    DebugLog::error(std::wstring(L"Get token failed 401 Unauthorized"));
    DebugLog::trace(std::string("narrow text"));
    DebugLog::error(std::string("narrow error"));
    const std::string text = TolvaTest::readDebugLog();
    EXPECT_NE(text.find("ERROR: Get token failed 401 Unauthorized\n"), std::string::npos);
    EXPECT_NE(text.find("TRACE: narrow text\n"), std::string::npos);
    EXPECT_NE(text.find("ERROR: narrow error\n"), std::string::npos);
    EXPECT_TRUE(DebugLog::instance().isOpen());
}

TEST(DebugLogTest, WritesUtf8) {
    DebugLog::trace(std::wstring(L"caf\u00e9 \u20ac \U0001F600"));
    EXPECT_NE(TolvaTest::readDebugLog().find("TRACE: caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\n"),
              std::string::npos);
}

TEST(DebugLogTest, OpensAtFirstWriteAndTruncates) {
    const auto path = freshFolder("truncate") / "ZuLog.txt";
    { std::ofstream(path) << "left over from an earlier run\n"; }
    DebugLog log(path.string());
    EXPECT_FALSE(log.isOpen());
    // Not touched before the first write.
    EXPECT_EQ(readFile(path), "left over from an earlier run\n");
    log.writeLine("TRACE: ", std::wstring(L"first"));
    log.writeLine("ERROR: ", std::wstring(L"second"));
    EXPECT_EQ(readFile(path), "TRACE: first\nERROR: second\n");
}

TEST(DebugLogTest, MissingFolderDropsWritesSilently) {
    const auto path = uniquePath("no-such-folder") / "ZuLog.txt";
    DebugLog log(path.string());
    EXPECT_NO_THROW(log.writeLine("TRACE: ", std::wstring(L"dropped")));
    EXPECT_FALSE(log.isOpen());
    // Opening is attempted once only: a folder that appears later does not revive it.
    std::filesystem::create_directories(path.parent_path());
    log.writeLine("TRACE: ", std::wstring(L"still dropped"));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(DebugLogTest, ConcurrentWritersProduceWholeLines) {
    const auto path = freshFolder("concurrent") / "ZuLog.txt";
    DebugLog log(path.string());
    constexpr int kThreads = 8;
    constexpr int kLines = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < kLines; ++i) {
                log.writeLine("TRACE: ", L"writer " + std::to_wstring(t) + L" line " +
                                             std::to_wstring(i) + L" " + std::wstring(80, L'z'));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const auto written = lines(readFile(path));
    ASSERT_EQ(written.size(), static_cast<std::size_t>(kThreads * kLines));
    std::map<int, int> nextLineOf;
    for (const auto& line : written) {
        int writer = -1;
        int index = -1;
        char tail[128] = {};
        ASSERT_EQ(
            std::sscanf(line.c_str(), "TRACE: writer %d line %d %127s", &writer, &index, tail), 3)
            << line;
        EXPECT_EQ(std::string(tail), std::string(80, 'z')) << line;
        // Each writer's lines appear in the order it wrote them.
        EXPECT_EQ(index, nextLineOf[writer]++) << line;
    }
}

TEST(DebugLogTest, ProcessWideLogSurvivesConcurrentStaticWriters) {
    constexpr int kThreads = 4;
    constexpr int kLines = 100;
    static int runs = 0;  // Tells this run's lines from a repeated run's.
    const std::string tag = "static run " + std::to_string(++runs) + " ";
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &tag] {
            for (int i = 0; i < kLines; ++i) {
                DebugLog::error(tag + std::to_string(t) + "/" + std::to_string(i));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    int found = 0;
    for (const auto& line : lines(TolvaTest::readDebugLog())) {
        if (line.rfind("ERROR: " + tag, 0) == 0) {
            ++found;
        }
    }
    EXPECT_EQ(found, kThreads * kLines);
}
