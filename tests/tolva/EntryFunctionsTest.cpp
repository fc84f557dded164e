// The exported entry functions InitializeQXPlatform and GetQXInstance.
#include "FacadeTestSupport.h"

#include <gtest/gtest.h>

#include <TestSupport.h>
#include <qxpemu/Emulator.h>

#include <cpprest/json.h>

#include <cstdlib>
#include <string>

using FacadeTest::FacadeFixture;

namespace {

class EntryFunctionsTest : public FacadeFixture {};

TEST_F(EntryFunctionsTest, InitializeReturnsTheSingleton) {
    CTolvaPlatformIF* facade = InitializeQXPlatform("", "", "", "", "", "", "");
    ASSERT_NE(facade, nullptr);
    EXPECT_EQ(facade, CTolvaPlatform::getInstance());
    EXPECT_EQ(CTolvaPlatform::CreateInstance("x", "", "", "", "", "", ""), facade);
}

TEST_F(EntryFunctionsTest, GetQXInstanceWithoutConfigurationPrintsNothing) {
    TolvaTest::StdoutCapture capture;
    EXPECT_NO_THROW(GetQXInstance());
    ::setenv("QX_PLATFORM_CONFIG", "", 1);
    EXPECT_NO_THROW(GetQXInstance());
    EXPECT_NO_THROW(InitializeQXPlatform("", "", "", "", "", "", ""));
    EXPECT_EQ(capture.text(), "");
}

TEST_F(EntryFunctionsTest, GetQXInstanceWithConfigurationPrintsApiGotten) {
    qxpemu::Emulator emulator;
    emulator.start();
    ::setenv("QX_PLATFORM_CONFIG", emulator.platformConfig().c_str(), 1);

    TolvaTest::StdoutCapture capture;
    GetQXInstance();
    const std::string printed = capture.text();
    const std::string expected = "Api gotten!";
    ASSERT_GE(printed.size(), expected.size());
    EXPECT_EQ(printed.substr(printed.size() - expected.size()), expected);
    EXPECT_EQ(printed.find(expected), printed.size() - expected.size());
    // The API object was made (it asked for a token) and then released again.
    EXPECT_FALSE(emulator.requests().empty());
    EXPECT_EQ(CTolvaPlatform::getInstance(), nullptr);
}

TEST_F(EntryFunctionsTest, EveryInitializeRunsGetQXInstance) {
    qxpemu::Emulator emulator;
    emulator.start();
    CTolvaPlatformIF* first = nullptr;
    {
        TolvaTest::StdoutCapture capture;
        first = InitializeQXPlatform("", "", "", "", "", "", "");
        EXPECT_EQ(capture.text(), "");
    }
    ::setenv("QX_PLATFORM_CONFIG", emulator.platformConfig().c_str(), 1);
    TolvaTest::StdoutCapture capture;
    CTolvaPlatformIF* second = InitializeQXPlatform("", "", "", "", "", "", "");
    EXPECT_EQ(second, first);
    const std::string printed = capture.text();
    EXPECT_NE(printed.find("Api gotten!"), std::string::npos);
    // The facade keeps nothing of that API object.
    EXPECT_EQ(CTolvaPlatform::getInstance()->getQxAPI(), nullptr);
}

TEST_F(EntryFunctionsTest, MalformedConfigurationThrowsOutOfInitializeAfterSingletonIsMade) {
    ::setenv("QX_PLATFORM_CONFIG", "{not json", 1);
    TolvaTest::StdoutCapture capture;
    // The JSON library's own parse error comes out unchanged, not a translated one.
    try {
        InitializeQXPlatform("", "", "", "", "", "guid", "");
        ADD_FAILURE() << "InitializeQXPlatform returned";
    } catch (const web::json::json_exception& e) {
        EXPECT_NE(std::string(e.what()).find("Malformed"), std::string::npos) << e.what();
    }
    EXPECT_EQ(capture.text(), "");
    ASSERT_NE(CTolvaPlatform::getInstance(), nullptr);
    EXPECT_EQ(CTolvaPlatform::getInstance()->getParentGUID(), "guid");
}

}  // namespace
