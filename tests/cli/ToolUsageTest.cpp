// The tool's command line itself: help, unknown commands and options, connection settings.
#include "ToolTestSupport.h"

#include <cpprest/json.h>

#include <fstream>

namespace TolvaTest {
namespace {

const std::vector<std::string> kCommands = {"token",    "post",   "listen", "request",
                                            "register", "verify", "demo"};

TEST(ToolUsage, WithoutArgumentsPrintsTheOverviewOnStandardErrorAndExitsTwo) {
    const auto run = runTool({});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    for (const auto& command : kCommands) {
        EXPECT_NE(run.err.find("  " + command + " "), std::string::npos) << command;
    }
}

TEST(ToolUsage, HelpListsEveryCommandOnStandardOutput) {
    const auto run = runTool({"--help"});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("Usage: tolva COMMAND"), std::string::npos);
    EXPECT_NE(run.out.find("QX_PLATFORM_CONFIG"), std::string::npos);
    for (const auto& command : kCommands) {
        EXPECT_NE(run.out.find("  " + command + " "), std::string::npos) << command;
    }
}

TEST(ToolUsage, EverySubcommandHasHelp) {
    for (const auto& command : kCommands) {
        const auto run = runTool({command, "--help"});
        EXPECT_EQ(run.status, 0) << command;
        EXPECT_EQ(run.out.rfind("Usage: tolva " + command, 0), 0u) << run.out;
        EXPECT_NE(run.out.find("--json"), std::string::npos) << command;
        EXPECT_EQ(run.err, "") << command;
        const auto viaHelp = runTool({"help", command});
        EXPECT_EQ(viaHelp.status, 0) << command;
        EXPECT_EQ(viaHelp.out, run.out) << command;
    }
}

TEST(ToolUsage, AnUnknownCommandIsAUsageError) {
    const auto run = runTool({"publish"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("tolva: unknown command \"publish\""), std::string::npos) << run.err;
}

TEST(ToolUsage, AnUnknownOptionIsAUsageError) {
    const auto run = runTool({"post", "a", "b", "--colour", "red"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("unknown option --colour for \"post\""), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("\"tolva post --help\" shows the usage"), std::string::npos);
}

TEST(ToolUsage, AMissingArgumentIsAUsageError) {
    const auto run =
        runTool({"post", "only.a.topic", "--url", "http://127.0.0.1:1", "--credentials", "k"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("\"post\" needs TOPIC CONTENT"), std::string::npos) << run.err;
}

TEST(ToolUsage, AnExtraArgumentIsAUsageError) {
    const auto run = runTool({"post", "a", "b", "c"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("unexpected argument \"c\""), std::string::npos) << run.err;
}

TEST(ToolUsage, AMissingOptionValueIsAUsageError) {
    const auto run = runTool({"post", "a", "b", "--ttl"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("--ttl needs a value (SECONDS)"), std::string::npos) << run.err;
}

TEST(ToolUsage, AMalformedNumberIsAUsageError) {
    const auto run = runTool({"post", "a", "b", "--ttl", "ten"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("--ttl needs a whole number from 0 to 2147483647, got \"ten\""),
              std::string::npos)
        << run.err;
}

TEST(ToolUsage, NoPlatformIsAUsageError) {
    const auto run = runTool({"token"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("no platform URL: give --url or set QX_PLATFORM_CONFIG"),
              std::string::npos)
        << run.err;
}

TEST(ToolUsage, NoCredentialsIsAUsageError) {
    const auto run = runTool({"token", "--url", "http://127.0.0.1:1"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("no API key"), std::string::npos) << run.err;
}

TEST(ToolUsage, ABadUrlIsAUsageError) {
    for (const std::string url : {"ftp://example.com", "not a url", "http://"}) {
        const auto run = runTool({"token", "--url", url, "--credentials", "k"});
        EXPECT_EQ(run.status, 2) << url;
        EXPECT_NE(run.err.find("not an http:// or https:// URL: \"" + url + "\""),
                  std::string::npos)
            << run.err;
    }
}

TEST(ToolUsage, AMalformedConfigurationVariableIsAUsageError) {
    const auto run = runTool({"token"}, {{"QX_PLATFORM_CONFIG", "{\"url\": 3"}});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("QX_PLATFORM_CONFIG is not a valid configuration document"),
              std::string::npos)
        << run.err;
}

TEST(ToolUsage, AMissingCredentialsFileIsAUsageError) {
    const auto run =
        runTool({"token", "--url", "http://127.0.0.1:1", "--credentials-file", "no-such-file.txt"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("cannot read the credentials file no-such-file.txt"), std::string::npos)
        << run.err;
}

TEST(ToolUsage, AnUnreachablePlatformFailsWithTheReason) {
    // Port 1 on loopback refuses connections at once.
    const auto run = runTool(
        {"post", "a.b", "c", "--url", "http://127.0.0.1:1", "--credentials", "a2V5OnNlY3JldA=="});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("tolva post: no access token from http://127.0.0.1:1: Get token failed"),
              std::string::npos)
        << run.err;
    EXPECT_EQ(run.out, "");
    // The library's own diagnostics stay out of the way without -v.
    EXPECT_EQ(run.err.find("#######"), std::string::npos) << run.err;
}

class ToolConnection : public ToolTest {};

TEST_F(ToolConnection, TheConfigurationVariableNamesThePlatform) {
    const auto run =
        runTool({"token", "--json"}, {{"QX_PLATFORM_CONFIG", emulator_.platformConfig()}});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(web::json::value::parse(run.out).at("account").as_string(), kAccount);
}

TEST_F(ToolConnection, OptionsOverrideTheConfigurationVariable) {
    const auto run =
        runTool(against({"token", "--json"}),
                {{"QX_PLATFORM_CONFIG",
                  R"({"url": "http://127.0.0.1:1", "logging": {"credentials": "x"}})"}});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(web::json::value::parse(run.out).at("url").as_string(), emulator_.baseUrl());
}

TEST_F(ToolConnection, TheKeyMayComeFromAFile) {
    std::ofstream("key.txt") << emulator_.apiKey() << "\n";
    const auto run =
        runTool({"token", "--url", emulator_.baseUrl(), "--credentials-file", "key.txt"});
    EXPECT_EQ(run.status, 0) << run.err;
    const auto tokenRequests = requestsTo("POST", "/identity/connect/token");
    ASSERT_EQ(tokenRequests.size(), 1u);
    EXPECT_EQ(tokenRequests[0].header("Authorization"), "Basic " + emulator_.apiKey());
}

TEST_F(ToolConnection, BothKeyOptionsAtOnceIsAUsageError) {
    std::ofstream("key.txt") << emulator_.apiKey() << "\n";
    const auto run = runTool(against({"token", "--credentials-file", "key.txt"}));
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("give either --credentials or --credentials-file, not both"),
              std::string::npos);
}

TEST_F(ToolConnection, AWrongKeyIsAPlatformFailure) {
    const auto run =
        runTool({"token", "--url", emulator_.baseUrl(), "--credentials", "dG9sdmEtY2xpOndyb25n"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("tolva token: no access token from " + emulator_.baseUrl()),
              std::string::npos)
        << run.err;
}

TEST_F(ToolConnection, VerboseShowsTheLibrarysRecordsButNoSecret) {
    const auto run = runTool(against({"post", "verbose.topic", "hello", "-v"}));
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.err.find("TolvaCore."), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find(emulator_.apiKey()), std::string::npos);
    EXPECT_FALSE(holdsJwt(run.err)) << run.err;
    EXPECT_FALSE(holdsJwt(run.out)) << run.out;
}

}  // namespace
}  // namespace TolvaTest
