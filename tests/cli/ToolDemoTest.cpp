// tolva demo: the whole tour against its own emulator, in text and as JSON.
#include "ToolProcess.h"

// GoogleTest before cpprestsdk, whose U() macro would break GoogleTest's templates.
#include <gtest/gtest.h>

#include <cpprest/json.h>

namespace TolvaTest {
namespace {

const std::vector<std::string> kSteps = {
    "Start the platform emulator in this process",
    "Obtain an access token (OAuth2 client credentials)",
    "Verify the token against the platform's key set",
    "Register a service",
    "Keep it alive: wait for a heartbeat (one every 5 s)",
    "Create a mailbox subscribed to \"demo.events\", with a listener",
    "Post a notification and receive it",
    "Request and reply, answered by a second API object",
    "Unregister the service",
    "Delete the mailboxes and shut down",
};

TEST(ToolDemo, TheTourPassesEveryStep) {
    const auto run = runTool({"demo"});
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    for (std::size_t i = 0; i < kSteps.size(); ++i) {
        EXPECT_NE(run.out.find("[" + std::to_string(i + 1) + "] " + kSteps[i] + "\n"),
                  std::string::npos)
            << kSteps[i];
        EXPECT_NE(run.out.find(" ms  " + kSteps[i] + "\n"), std::string::npos) << kSteps[i];
    }
    EXPECT_NE(run.out.find("the platform's token: Verified"), std::string::npos);
    EXPECT_NE(run.out.find("with its signature changed: VerificationFailed"), std::string::npos);
    EXPECT_NE(run.out.find("the emulator sees: status passing, "), std::string::npos);
    EXPECT_NE(run.out.find("received demo.events: {\"hello\":\"from the demo\"}"),
              std::string::npos);
    EXPECT_NE(run.out.find("got \"pong: ping\" on demo.replies"), std::string::npos);
    EXPECT_NE(run.out.find("All 10 steps passed in "), std::string::npos) << run.out;
    // The final statistics of the tour's object: one post of its own and the request.
    EXPECT_NE(run.out.find("The tour's API object, statistics after "), std::string::npos);
    EXPECT_NE(run.out.find(": posts 2 sent, 0 failed"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("FAILED"), std::string::npos);
    EXPECT_EQ(run.out.find("eyJ"), std::string::npos);
}

TEST(ToolDemo, AsJsonEveryStepIsReported) {
    const auto run = runTool({"demo", "--json"});
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    const auto document = web::json::value::parse(run.out);
    EXPECT_TRUE(document.at("ok").as_bool());
    const auto& steps = document.at("steps").as_array();
    ASSERT_EQ(steps.size(), kSteps.size());
    for (std::size_t i = 0; i < kSteps.size(); ++i) {
        EXPECT_EQ(steps.at(i).at("step").as_string(), kSteps[i]);
        EXPECT_TRUE(steps.at(i).at("ok").as_bool()) << kSteps[i];
    }
    // Under a minute, heartbeat wait included.
    EXPECT_LT(document.at("totalMs").as_number().to_int64(), 60000);
    const auto& statistics = document.at("statistics");
    EXPECT_EQ(statistics.at("schema").as_string(), "tolva.statistics/1");
    EXPECT_EQ(statistics.at("posts").at("sent").as_integer(), 2);
    EXPECT_GE(statistics.at("heartbeats").at("sent").as_integer(), 1);
    // Two mailboxes made and deleted: the tour's own and request and reply's.
    EXPECT_EQ(statistics.at("mailboxes").at("created").as_integer(), 2);
    EXPECT_EQ(statistics.at("mailboxes").at("live").as_integer(), 0);
}

}  // namespace
}  // namespace TolvaTest
