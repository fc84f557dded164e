// tolva demo: the whole tour against its own emulator, in text and as JSON, and against a
// platform given to it: an emulator run as a process of its own, which the test asks afterwards
// what the tour left there, once when it allows every step and once when it refuses one.
#include "EmulatorProcess.h"
#include "ToolProcess.h"

// GoogleTest before cpprestsdk, whose U() macro would break GoogleTest's templates.
#include <gtest/gtest.h>

#include <cpprest/http_client.h>
#include <cpprest/json.h>

#include <regex>

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

// The emulator as a process of its own, and its control interface.
class ToolDemoOnAGivenPlatform : public ::testing::Test {
  protected:
    ToolDemoOnAGivenPlatform()
        : config_(web::json::value::parse(emulator_.config())),
          url_(config_.at("url").as_string()),
          key_(config_.at("logging").at("credentials").as_string()) {}

    // A control request to the emulator; its JSON answer (null when it has none).
    web::json::value control(const web::http::method& method, const std::string& path,
                             const web::json::value& body = web::json::value::null()) const {
        web::http::client::http_client client(url_);
        const auto response = body.is_null() ? client.request(method, path).get()
                                             : client.request(method, path, body).get();
        EXPECT_LT(response.status_code(), 300) << method << " " << path;
        const auto text = response.extract_string(true).get();
        return text.empty() ? web::json::value::null() : web::json::value::parse(text);
    }

    // What the tour left on the platform: its mailboxes and services.
    void expectNothingLeft() const {
        const auto state = control(web::http::methods::GET, "/_emulator/state");
        EXPECT_EQ(state.at("mailboxes").size(), 0u) << state.serialize();
        EXPECT_EQ(state.at("services").size(), 0u) << state.serialize();
    }

    EmulatorProcess emulator_;
    web::json::value config_;
    std::string url_;
    std::string key_;
};

TEST_F(ToolDemoOnAGivenPlatform, QxPlatformConfigNamesThePlatformAndTheTourLeavesNothingThere) {
    const auto run = runTool({"demo"}, {{"QX_PLATFORM_CONFIG", emulator_.config()}});
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    std::vector<std::string> steps = kSteps;
    steps[0] = "Use the platform at " + url_;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        EXPECT_NE(run.out.find("[" + std::to_string(i + 1) + "] " + steps[i] + "\n"),
                  std::string::npos)
            << steps[i];
        EXPECT_NE(run.out.find(" ms  " + steps[i] + "\n"), std::string::npos) << steps[i];
    }
    EXPECT_NE(run.out.find("given by QX_PLATFORM_CONFIG"), std::string::npos);
    EXPECT_NE(run.out.find("the platform took 1 heartbeat(s)"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("received demo.events: {\"hello\":\"from the demo\"}"),
              std::string::npos);
    EXPECT_NE(run.out.find("got \"pong: ping\" on demo.replies"), std::string::npos);
    EXPECT_NE(run.out.find("the platform no longer knows it (a heartbeat with its credentials "
                           "is answered 404)"),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("Nothing of the tour is left on " + url_ + ".\n"), std::string::npos);
    EXPECT_NE(run.out.find("All 10 steps passed in "), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("FAILED"), std::string::npos);
    EXPECT_EQ(run.out.find("eyJ"), std::string::npos);
    EXPECT_EQ(run.out.find(key_), std::string::npos);
    expectNothingLeft();
}

TEST_F(ToolDemoOnAGivenPlatform, AStepThePlatformRefusesIsSaidAndTheRestOfTheTourCleansUp) {
    auto rule = web::json::value::object();
    rule["method"] = web::json::value::string("POST");
    rule["pathPattern"] = web::json::value::string("/discovery/api/v1/service");
    rule["status"] = web::json::value::number(403);
    rule["body"] = web::json::value::string("services may not be registered by this client");
    rule["times"] = web::json::value::number(-1);
    control(web::http::methods::POST, "/_emulator/faults", rule);

    const auto run = runTool({"demo", "--url", url_, "--credentials", key_});
    EXPECT_EQ(run.status, 1) << run.out << run.err;
    EXPECT_NE(run.out.find("[4] Register a service\n    FAILED: this step cannot be done on " +
                           url_ + ": services may not be registered by this client\n"),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("[5] Keep it alive: wait for a heartbeat (one every 5 s)\n    skipped: "
                           "it needs step 4, which failed\n"),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("[9] Unregister the service\n    skipped: it needs step 4, which "
                           "failed\n"),
              std::string::npos)
        << run.out;
    // The steps that do not need a service still run, the clean-up included.
    EXPECT_NE(run.out.find("received demo.events: {\"hello\":\"from the demo\"}"),
              std::string::npos);
    EXPECT_NE(run.out.find("got \"pong: ping\" on demo.replies"), std::string::npos);
    // The summary's lines: outcome, time, step.
    EXPECT_TRUE(
        std::regex_search(run.out, std::regex("\n  FAILED +[0-9]+ ms  Register a service\n")))
        << run.out;
    EXPECT_TRUE(
        std::regex_search(run.out, std::regex("\n  skipped +0 ms  Unregister the service\n")));
    EXPECT_TRUE(std::regex_search(
        run.out, std::regex("\n  ok +[0-9]+ ms  Delete the mailboxes and shut down\n")));
    EXPECT_NE(run.out.find("Nothing of the tour is left on " + url_ + ".\n"), std::string::npos);
    EXPECT_NE(run.out.find("7 of 10 steps passed on " + url_ + " in "), std::string::npos);
    EXPECT_NE(run.out.find("; 1 could not be done there and 2 were skipped (see above).\n"),
              std::string::npos)
        << run.out;
    EXPECT_EQ(run.out.find(key_), std::string::npos);
    expectNothingLeft();

    // The same as JSON.
    const auto jsonRun = runTool({"demo", "--url", url_, "--credentials", key_, "--json"});
    EXPECT_EQ(jsonRun.status, 1) << jsonRun.out << jsonRun.err;
    const auto document = web::json::value::parse(jsonRun.out);
    EXPECT_FALSE(document.at("ok").as_bool());
    EXPECT_EQ(document.at("platform").as_string(), url_);
    EXPECT_EQ(document.at("leftOnPlatform").size(), 0u);
    const auto& steps = document.at("steps").as_array();
    ASSERT_EQ(steps.size(), kSteps.size());
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const bool refused = i == 3;
        const bool skipped = i == 4 || i == 8;
        EXPECT_EQ(steps.at(i).at("ok").as_bool(), !refused && !skipped) << i + 1;
        EXPECT_EQ(steps.at(i).at("skipped").as_bool(), skipped) << i + 1;
    }
    EXPECT_EQ(steps.at(3).at("details").at(0).as_string(),
              "FAILED: this step cannot be done on " + url_ +
                  ": services may not be registered by this client");
    expectNothingLeft();
}

TEST(ToolDemoUsage, TlsIsForTheBuiltInEmulatorOnly) {
    const auto run =
        runTool({"demo", "--tls", "--url", "http://127.0.0.1:1", "--credentials", "k"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("tolva demo: --tls serves the built-in emulator over HTTPS"),
              std::string::npos)
        << run.err;
}

}  // namespace
}  // namespace TolvaTest
