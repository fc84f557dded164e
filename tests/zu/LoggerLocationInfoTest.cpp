#include <ZuCore/LoggerLocationInfo.h>

#include <gtest/gtest.h>

#include <string>

using Varkel::Zu::LoggerLocationInfo;

TEST(LoggerLocationInfoTest, ZuLocationNamesTheCallSite) {
    const int line = __LINE__ + 1;
    const LoggerLocationInfo where = ZU_LOCATION;
    EXPECT_STREQ(where.getFileName(), "tests/zu/LoggerLocationInfoTest.cpp");
    EXPECT_EQ(where.getLineNumber(), line);
    EXPECT_NE(std::string(where.getFunctionName()).find("ZuLocationNamesTheCallSite"),
              std::string::npos);
    EXPECT_EQ(where.getFileNameWithoutExtension(), "tests/zu/LoggerLocationInfoTest");
}

TEST(LoggerLocationInfoTest, DefaultIsUnknown) {
    const LoggerLocationInfo where;
    EXPECT_STREQ(where.getFileName(), "?");
    EXPECT_STREQ(where.getFunctionName(), "?");
    EXPECT_EQ(where.getLineNumber(), -1);
}

TEST(LoggerLocationInfoTest, NullTextsBecomeUnknown) {
    const LoggerLocationInfo where(nullptr, nullptr, 5);
    EXPECT_STREQ(where.getFileName(), "?");
    EXPECT_STREQ(where.getFunctionName(), "?");
    EXPECT_EQ(where.getLineNumber(), 5);
}

TEST(LoggerLocationInfoTest, ExtensionIsRemovedFromTheLastComponentOnly) {
    EXPECT_EQ(LoggerLocationInfo("api/Tolva/Tolva/TolvaCore/QxPlatformApi.cpp", "f", 1)
                  .getFileNameWithoutExtension(),
              "api/Tolva/Tolva/TolvaCore/QxPlatformApi");
    EXPECT_EQ(LoggerLocationInfo("a.b/c", "f", 1).getFileNameWithoutExtension(), "a.b/c");
    EXPECT_EQ(LoggerLocationInfo("x/.hidden", "f", 1).getFileNameWithoutExtension(), "x/.hidden");
    EXPECT_EQ(LoggerLocationInfo("x/a.tar.gz", "f", 1).getFileNameWithoutExtension(), "x/a.tar");
    EXPECT_EQ(LoggerLocationInfo("plain.h", "f", 1).getFileNameWithoutExtension(), "plain");
}

TEST(LoggerLocationInfoTest, CopiesShareTheTexts) {
    const LoggerLocationInfo original("file.cpp", "fn", 3);
    LoggerLocationInfo copy;
    copy = original;
    EXPECT_EQ(copy.getFileName(), original.getFileName());
    EXPECT_EQ(copy.getLineNumber(), 3);
}
