// Every subcommand end to end against the emulator: what it sends, what it prints (text and
// JSON), its exit status, and what it does with bad input.
#include "ToolTestSupport.h"

#include <cpprest/json.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <sstream>

namespace TolvaTest {
namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> all;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        all.push_back(line);
    }
    return all;
}

// Lines of `text` that start with `prefix`.
std::vector<std::string> linesStartingWith(const std::string& text, const std::string& prefix) {
    std::vector<std::string> found;
    for (const auto& line : lines(text)) {
        if (line.rfind(prefix, 0) == 0) {
            found.push_back(line);
        }
    }
    return found;
}

// The id in listen's "listening on mailbox <id>; Ctrl-C to stop" ("" when not printed yet).
std::string listeningMailbox(const std::string& err) {
    const std::string marker = "listening on mailbox ";
    const auto at = err.find(marker);
    if (at == std::string::npos) {
        return "";
    }
    const auto begin = at + marker.size();
    return err.substr(begin, err.find_first_of("; \n", begin) - begin);
}

class ToolCommands : public ToolTest {
  protected:
    std::string issuedToken() const { return emulator_.issueToken("tolva-cli"); }

    web::json::value platformState() const { return web::json::value::parse(emulator_.state()); }

    // The mailboxes the platform still holds.
    std::size_t mailboxesOnThePlatform() const {
        return platformState().at("mailboxes").as_array().size();
    }

    // Waits until `ready` holds for the platform's state or `timeout` passes.
    bool waitForState(const std::function<bool(const web::json::value&)>& ready,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            const std::size_t seen = emulator_.requests().size();
            if (ready(platformState())) {
                return true;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
            // The state changes only with a request, but its handling may end after the
            // request was recorded: look again on the next request or shortly.
            emulator_.waitForRequests(seen + 1, std::chrono::milliseconds(20));
        }
    }

    // A fault rule answering the next `times` polls of any mailbox with `status`.
    void failPolls(int status, int times, const std::string& body) {
        qxpemu::FaultRule rule;
        rule.method = "GET";
        rule.pathPattern = "/notifications/api/v1/notifications/.*";
        rule.status = status;
        rule.body = body;
        rule.times = times;
        emulator_.addFault(rule);
    }
};

// --- token ---

TEST_F(ToolCommands, TokenPrintsAccountExpiryAndVerificationButNotTheToken) {
    const auto run = runTool(against({"token"}));
    ASSERT_EQ(run.status, 0) << run.err;
    const auto text = lines(run.out);
    ASSERT_EQ(text.size(), 4u) << run.out;
    EXPECT_EQ(text[0], "platform      " + emulator_.baseUrl());
    EXPECT_EQ(text[1], std::string("account       ") + kAccount);
    EXPECT_EQ(text[2].rfind("expires       20", 0), 0u) << text[2];
    EXPECT_NE(text[2].find("Z (in 3"), std::string::npos) << text[2];
    EXPECT_EQ(text[3], "verification  Verified");
    EXPECT_FALSE(holdsJwt(run.out + run.err));
    EXPECT_EQ(requestsTo("POST", "/identity/connect/token").size(), 1u);
    EXPECT_EQ(requestsTo("GET", "/identity/.well-known/openid-configuration/jwks").size(), 1u);
}

TEST_F(ToolCommands, TokenAsJsonShowsTheTokenOnlyWhenAsked) {
    const auto plain = runTool(against({"token", "--json"}));
    ASSERT_EQ(plain.status, 0) << plain.err;
    const auto document = web::json::value::parse(plain.out);
    EXPECT_EQ(document.at("account").as_string(), kAccount);
    EXPECT_EQ(document.at("verification").as_string(), "Verified");
    EXPECT_GT(document.at("expiresIn").as_number().to_int64(), 3500);
    EXPECT_FALSE(document.has_field("token"));
    EXPECT_FALSE(holdsJwt(plain.out));

    const auto shown = runTool(against({"token", "--json", "--show-token"}));
    ASSERT_EQ(shown.status, 0) << shown.err;
    const std::string token = web::json::value::parse(shown.out).at("token").as_string();
    EXPECT_EQ(token.rfind("eyJ", 0), 0u);
    EXPECT_EQ(std::count(token.begin(), token.end(), '.'), 2);
}

// --- post ---

TEST_F(ToolCommands, PostSendsTheNotification) {
    const auto run = runTool(against({"post", "Studio/Alerts", "{\"level\":1}", "--ttl", "60"}));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out.rfind("posted to Studio/Alerts in ", 0), 0u) << run.out;
    const auto posts = requestsTo("POST", "/notifications/api/v1/notifications");
    ASSERT_EQ(posts.size(), 1u);
    const auto body = web::json::value::parse(posts[0].body);
    EXPECT_EQ(body.at("topic").as_string(), "studio/alerts");
    EXPECT_EQ(body.at("content").as_string(), "{\"level\":1}");
    EXPECT_EQ(body.at("ttl").as_number().to_int64(), 60);
    EXPECT_EQ(posts[0].header("Authorization").rfind("Bearer eyJ", 0), 0u);
}

TEST_F(ToolCommands, PostAsJson) {
    const auto run = runTool(against({"post", "a.b", "c", "--json"}));
    ASSERT_EQ(run.status, 0) << run.err;
    const auto document = web::json::value::parse(run.out);
    EXPECT_TRUE(document.at("posted").as_bool());
    EXPECT_EQ(document.at("topic").as_string(), "a.b");
    EXPECT_EQ(document.at("ttl").as_number().to_int64(), 0);
    const auto body =
        web::json::value::parse(requestsTo("POST", "/notifications/api/v1/notifications")[0].body);
    EXPECT_FALSE(body.has_field("ttl"));
}

TEST_F(ToolCommands, APostThePlatformRefusesIsAFailure) {
    qxpemu::FaultRule busy;
    busy.method = "POST";
    busy.pathPattern = "/notifications/api/v1/notifications";
    busy.status = 503;
    busy.body = "platform busy";
    emulator_.addFault(busy);
    const auto run = runTool(against({"post", "a.b", "c"}));
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("tolva post: platform busy"), std::string::npos) << run.err;
}

TEST_F(ToolCommands, AnEmptyTopicIsAUsageError) {
    const auto run = runTool(against({"post", "", "c"}));
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("TOPIC must not be empty"), std::string::npos);
}

// --- listen ---

TEST_F(ToolCommands, ListenPrintsMailUntilTheCountAndDeletesTheMailbox) {
    ToolProcess listener(against({"listen", "alpha.one", "beta.two", "--count", "2", "--json"}));
    // Printed once the mailbox exists with both subscriptions (its first poll may come
    // before the second subscription).
    ASSERT_TRUE(listener.waitForError("listening on mailbox")) << listener.err();
    const auto creates = requestsTo("POST", "/notifications/api/v1/mailbox");
    ASSERT_EQ(creates.size(), 2u);  // creation, then the second topic's subscription
    EXPECT_EQ(web::json::value::parse(creates[0].body).at("subscription").as_string(), "alpha.one");
    EXPECT_NE(creates[1].target.find("/subscribe/beta.two"), std::string::npos);

    ASSERT_EQ(runTool(against({"post", "alpha.one", "first"})).status, 0);
    ASSERT_EQ(runTool(against({"post", "beta.two", "second"})).status, 0);
    ASSERT_EQ(listener.wait(), 0) << listener.err();

    const auto printed = lines(listener.out());
    ASSERT_EQ(printed.size(), 2u) << listener.out();
    const auto first = web::json::value::parse(printed[0]);
    EXPECT_EQ(first.at("topic").as_string(), "alpha.one");
    EXPECT_EQ(first.at("content").as_string(), "first");
    EXPECT_TRUE(first.has_string_field("time"));
    EXPECT_EQ(web::json::value::parse(printed[1]).at("content").as_string(), "second");
    EXPECT_EQ(requestsTo("DELETE", "/notifications/api/v1/mailbox/").size(), 1u);
}

TEST_F(ToolCommands, ListenWithStatsPrintsSnapshotsAsItGoesAndAtTheEnd) {
    ToolProcess listener(
        against({"listen", "stats.one", "--count", "2", "--stats", "1", "--json"}));
    ASSERT_TRUE(listener.waitForError("listening on mailbox")) << listener.err();
    // At least one periodic snapshot comes before the mail.
    ASSERT_TRUE(listener.waitForOutput("{\"statistics\":")) << listener.out();
    ASSERT_EQ(runTool(against({"post", "stats.one", "first"})).status, 0);
    ASSERT_EQ(runTool(against({"post", "stats.one", "second"})).status, 0);
    ASSERT_EQ(listener.wait(), 0) << listener.err();

    std::vector<web::json::value> mail;
    std::vector<web::json::value> snapshots;
    for (const auto& line : lines(listener.out())) {
        const auto document = web::json::value::parse(line);
        (document.has_field("statistics") ? snapshots : mail).push_back(document);
    }
    ASSERT_EQ(mail.size(), 2u) << listener.out();
    ASSERT_GE(snapshots.size(), 2u) << listener.out();
    // The last one is taken at the end, after the mailbox was deleted.
    const auto& last = snapshots.back().at("statistics");
    EXPECT_EQ(last.at("schema").as_string(), "tolva.statistics/1");
    EXPECT_EQ(last.at("mail").at("delivered").as_integer(), 2);
    EXPECT_EQ(last.at("mailboxes").at("created").as_integer(), 1);
    EXPECT_EQ(last.at("mailboxes").at("deleted").as_integer(), 1);
    EXPECT_EQ(last.at("mailboxes").at("live").as_integer(), 0);
    EXPECT_GE(last.at("polls").at("withMail").as_integer(), 1);
    EXPECT_EQ(snapshots.front().at("statistics").at("mail").at("delivered").as_integer(), 0);
}

TEST_F(ToolCommands, ListenEndsOnCtrlCAndDeletesTheMailbox) {
    ToolProcess listener(against({"listen", "gamma"}));
    ASSERT_TRUE(waitForRequestsTo("GET", "/notifications/api/v1/notifications/", 1));
    ASSERT_EQ(runTool(against({"post", "gamma", "hello"})).status, 0);
    ASSERT_TRUE(waitForRequestsTo("GET", "/notifications/api/v1/notifications/", 2));
    listener.signal(SIGINT);
    EXPECT_EQ(listener.wait(), 0) << listener.err();
    EXPECT_EQ(listener.out(), "gamma: hello\n");
    EXPECT_NE(listener.err().find("received 1 notification"), std::string::npos);
    EXPECT_EQ(requestsTo("DELETE", "/notifications/api/v1/mailbox/").size(), 1u);
}

TEST_F(ToolCommands, ListenWithFewerThanTheCountInTimeIsAFailure) {
    const auto run = runTool(against({"listen", "quiet", "--count", "1", "--timeout", "1"}));
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("0 of 1 notifications arrived within 1 s"), std::string::npos)
        << run.err;
    EXPECT_EQ(requestsTo("DELETE", "/notifications/api/v1/mailbox/").size(), 1u);
}

TEST_F(ToolCommands, ListenKeepsItsMailboxWhenThePlatformLosesIt) {
    ToolProcess listener(against({"listen", "delta", "--count", "1"}));
    ASSERT_TRUE(listener.waitForError("listening on mailbox")) << listener.err();
    const std::string id = listeningMailbox(listener.err());
    ASSERT_EQ(id.size(), 36u) << listener.err();
    ASSERT_TRUE(waitForRequestsTo("GET", "/notifications/api/v1/notifications/" + id, 1));
    // The platform forgets its mailboxes, as after a restart: the parked poll is answered 404.
    emulator_.reset();
    ASSERT_TRUE(listener.waitForError("tolva: event mailboxRecreated " + id)) << listener.err();
    // Created again under the same id with its subscription; no other mailbox was made. (The
    // re-creation may reach the emulator before the reset has forgotten the recorded
    // requests, so the platform's state is what tells.)
    const auto mailboxes = platformState().at("mailboxes").as_array();
    ASSERT_EQ(mailboxes.size(), 1u) << emulator_.state();
    EXPECT_EQ(mailboxes.at(0).at("id").as_string(), id);
    EXPECT_EQ(mailboxes.at(0).at("subscriptions").serialize(), "[\"delta\"]");
    for (const auto& create : requestsTo("POST", "/notifications/api/v1/mailbox")) {
        EXPECT_EQ(web::json::value::parse(create.body).at("id").as_string(), id);
    }

    ASSERT_EQ(runTool(against({"post", "delta", "after the restart"})).status, 0);
    EXPECT_EQ(listener.wait(), 0) << listener.err();
    EXPECT_EQ(listener.out(), "delta: after the restart\n");
    const auto recreated = linesStartingWith(listener.err(), "tolva: event mailboxRecreated ");
    ASSERT_EQ(recreated.size(), 1u) << listener.err();
    EXPECT_NE(recreated[0].find("(HTTP 404)"), std::string::npos) << recreated[0];
    EXPECT_EQ(requestsTo("DELETE", "/notifications/api/v1/mailbox/").size(), 1u);
    EXPECT_EQ(mailboxesOnThePlatform(), 0u) << emulator_.state();
}

TEST_F(ToolCommands, ListenRidesOutBadGatewayAnswersOnTheSameMailbox) {
    // A proxy in front of the platform answers the first three polls 502.
    failPolls(502, 3, "bad gateway");
    ToolProcess listener(against({"listen", "epsilon"}));
    ASSERT_TRUE(listener.waitForError("tolva: event mailboxBackingOff ")) << listener.err();
    ASSERT_TRUE(listener.waitForError("listening on mailbox")) << listener.err();
    const std::string id = listeningMailbox(listener.err());
    // The fourth poll reaches the platform and waits there for mail.
    ASSERT_TRUE(waitForRequestsTo("GET", "/notifications/api/v1/notifications/" + id, 4));
    ASSERT_EQ(runTool(against({"post", "epsilon", "through the gateway"})).status, 0);
    ASSERT_TRUE(listener.waitForOutput("epsilon: through the gateway")) << listener.err();
    ASSERT_TRUE(listener.waitForError("tolva: event mailboxPollingAgain " + id)) << listener.err();
    listener.signal(SIGINT);
    EXPECT_EQ(listener.wait(), 0) << listener.err();
    EXPECT_EQ(listener.out(), "epsilon: through the gateway\n");

    // Reported once for the run of failures, with the status.
    const auto backingOff = linesStartingWith(listener.err(), "tolva: event mailboxBackingOff ");
    ASSERT_EQ(backingOff.size(), 1u) << listener.err();
    EXPECT_EQ(backingOff[0].rfind("tolva: event mailboxBackingOff " + id + " (HTTP 502)", 0), 0u)
        << backingOff[0];
    EXPECT_EQ(listener.err().find("mailboxStopped"), std::string::npos) << listener.err();
    // One mailbox all along, deleted at the end.
    EXPECT_EQ(requestsTo("POST", "/notifications/api/v1/mailbox").size(), 1u);
    EXPECT_EQ(requestsTo("DELETE", "/notifications/api/v1/mailbox/").size(), 1u);
    EXPECT_EQ(mailboxesOnThePlatform(), 0u) << emulator_.state();
}

TEST_F(ToolCommands, ListenAsJsonPrintsEachEventAsAJsonLineOnStandardError) {
    failPolls(503, 1, "busy");
    ToolProcess listener(against({"listen", "zeta", "--count", "1", "--json"}));
    ASSERT_TRUE(listener.waitForError("\"event\":\"mailboxBackingOff\"")) << listener.err();
    ASSERT_TRUE(listener.waitForError("listening on mailbox")) << listener.err();
    const std::string id = listeningMailbox(listener.err());
    ASSERT_TRUE(waitForRequestsTo("GET", "/notifications/api/v1/notifications/" + id, 2));
    ASSERT_EQ(runTool(against({"post", "zeta", "json"})).status, 0);
    EXPECT_EQ(listener.wait(), 0) << listener.err();

    // Standard output holds the mail only.
    const auto printed = lines(listener.out());
    ASSERT_EQ(printed.size(), 1u) << listener.out();
    EXPECT_EQ(web::json::value::parse(printed[0]).at("content").as_string(), "json");
    const auto documents = linesStartingWith(listener.err(), "{");
    ASSERT_GE(documents.size(), 1u) << listener.err();
    const auto event = web::json::value::parse(documents[0]);
    EXPECT_EQ(event.at("event").as_string(), "mailboxBackingOff");
    EXPECT_EQ(event.at("subject").as_string(), id);
    EXPECT_EQ(event.at("httpStatus").as_integer(), 503);
    EXPECT_EQ(event.at("at").as_string().rfind("20", 0), 0u);
    EXPECT_TRUE(event.has_string_field("reason"));
    EXPECT_EQ(listener.err().find("tolva: event"), std::string::npos) << listener.err();
    EXPECT_EQ(mailboxesOnThePlatform(), 0u) << emulator_.state();
}

TEST_F(ToolCommands, ListenEndsWhenTheMailboxIsStoppedForGood) {
    // An answer the library does not recover from stops the mailbox.
    failPolls(500, 1, "internal failure");
    const auto run = runTool(against({"listen", "eta", "--timeout", "30"}));
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_EQ(run.out, "");
    const std::string id = listeningMailbox(run.err);
    ASSERT_EQ(id.size(), 36u) << run.err;
    EXPECT_NE(run.err.find("tolva: event mailboxStopped " + id + " (HTTP 500)"), std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("tolva: mailbox " + id + " was stopped (HTTP 500"), std::string::npos)
        << run.err;
    // Deleted all the same: nothing is left on the platform.
    EXPECT_EQ(requestsTo("DELETE", "/notifications/api/v1/mailbox/").size(), 1u);
    EXPECT_EQ(mailboxesOnThePlatform(), 0u) << emulator_.state();
}

// --- request ---

TEST_F(ToolCommands, RequestPrintsTheReply) {
    ToolProcess requester(
        against({"request", "questions", "ping", "--reply-topic", "answers", "--timeout", "30"}));
    ASSERT_TRUE(waitForRequestsTo("POST", "/notifications/api/v1/notifications", 1));
    const auto question =
        web::json::value::parse(requestsTo("POST", "/notifications/api/v1/notifications")[0].body);
    EXPECT_EQ(question.at("topic").as_string(), "questions");
    EXPECT_EQ(question.at("content").as_string(), "ping");
    ASSERT_EQ(runTool(against({"post", "answers", "pong"})).status, 0);
    EXPECT_EQ(requester.wait(), 0) << requester.err();
    EXPECT_EQ(requester.out(), "pong\n");
}

TEST_F(ToolCommands, RequestWithoutAReplyInTimeIsAFailure) {
    const auto run =
        runTool(against({"request", "q", "ping", "--reply-topic", "nobody", "--timeout", "1"}));
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("no reply on nobody within 1 s"), std::string::npos) << run.err;
}

TEST_F(ToolCommands, RequestNeedsAReplyTopic) {
    const auto run = runTool(against({"request", "q", "ping"}));
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("\"request\" needs --reply-topic TOPIC"), std::string::npos);
}

// --- register ---

TEST_F(ToolCommands, RegisterRegistersAndUnregisters) {
    const auto run = runTool(
        against({"register", "--type",     "render", "--instance",  "render-01", "--address",
                 "10.1.2.3", "--port",     "8443",   "--path-rule", "/render/",  "--tag",
                 "gpu",      "--tag",      "eu",     "--health",    "Warning",   "--health-text",
                 "warm",     "--duration", "1",      "--json"}));
    ASSERT_EQ(run.status, 0) << run.err;
    const auto printed = lines(run.out);
    ASSERT_EQ(printed.size(), 2u) << run.out;
    const std::string id = web::json::value::parse(printed[0]).at("serviceId").as_string();
    EXPECT_TRUE(web::json::value::parse(printed[1]).at("unregistered").as_bool());

    const auto registrations = requestsTo("POST", "/discovery/api/v1/service");
    ASSERT_EQ(registrations.size(), 1u);
    const auto body = web::json::value::parse(registrations[0].body);
    EXPECT_EQ(body.at("serviceId").as_string(), id);
    EXPECT_EQ(body.at("serviceType").as_string(), "render");
    EXPECT_EQ(body.at("serviceInstance").as_string(), "render-01");
    EXPECT_EQ(body.at("serviceAddress").as_string(), "10.1.2.3");
    EXPECT_EQ(body.at("servicePort").as_number().to_int64(), 8443);
    EXPECT_EQ(body.at("reverseProxyPathRule").as_string(), "/render/");
    EXPECT_EQ(body.at("serviceTags").serialize(), "[\"gpu\",\"eu\"]");
    EXPECT_EQ(body.at("serviceHealth").at("health").as_string(), "Warning");
    EXPECT_EQ(body.at("serviceHealth").at("healthText").as_string(), "warm");
    const auto removals = requestsTo("DELETE", "/discovery/api/v1/service/" + id + "/");
    EXPECT_EQ(removals.size(), 1u);
}

TEST_F(ToolCommands, RegisterWithStatsPrintsTheHeartbeatsAsText) {
    const auto run = runTool(
        against({"register", "--type", "render", "--instance", "render-01", "--address", "10.1.2.3",
                 "--port", "8443", "--path-rule", "/render/", "--duration", "6", "--stats", "2"}));
    ASSERT_EQ(run.status, 0) << run.err;
    // Standard output keeps the command's own lines; the snapshots go to standard error.
    EXPECT_EQ(lines(run.out).size(), 2u) << run.out;
    std::vector<std::string> snapshots;
    for (const auto& line : lines(run.err)) {
        if (line.rfind("statistics after ", 0) == 0) {
            snapshots.push_back(line);
        }
    }
    ASSERT_GE(snapshots.size(), 3u) << run.err;
    // Registered at the start; the final snapshot comes after unregistering.
    EXPECT_NE(snapshots.front().find("services 1 registered"), std::string::npos) << run.err;
    EXPECT_NE(snapshots.back().find("heartbeats 1 sent, 0 failed; services 0 registered"),
              std::string::npos)
        << run.err;
}

TEST_F(ToolCommands, StatsNeedsANumberOfSeconds) {
    const auto run = runTool(against({"listen", "stats.bad", "--stats", "often"}));
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_NE(run.err.find("--stats"), std::string::npos) << run.err;
}

TEST_F(ToolCommands, RegisterUnregistersOnCtrlC) {
    ToolProcess service(against({"register", "--type", "t", "--instance", "i", "--address",
                                 "127.0.0.1", "--port", "1", "--path-rule", "/t/"}));
    ASSERT_TRUE(waitForRequestsTo("POST", "/discovery/api/v1/service", 1));
    ASSERT_TRUE(service.waitForError("Ctrl-C to unregister")) << service.err();
    service.signal(SIGINT);
    EXPECT_EQ(service.wait(), 0) << service.err();
    EXPECT_EQ(requestsTo("DELETE", "/discovery/api/v1/service/").size(), 1u);
    EXPECT_NE(service.out().find("unregistered service "), std::string::npos);
}

TEST_F(ToolCommands, RegisterRegistersAgainWhenThePlatformLosesTheService) {
    ToolProcess service(against({"register", "--type", "t", "--instance", "i", "--address",
                                 "127.0.0.1", "--port", "1", "--path-rule", "/t/"}));
    ASSERT_TRUE(service.waitForError("Ctrl-C to unregister")) << service.err();
    // The platform forgets its services, as after a restart: the next heartbeat gets 404 and
    // the library registers the service again.
    emulator_.reset();
    ASSERT_TRUE(
        service.waitForError("tolva: event serviceRegisteredAgain ", std::chrono::seconds(20)))
        << service.err();
    EXPECT_NE(service.err().find("tolva: event serviceRegistrationLost "), std::string::npos)
        << service.err();
    const auto again = linesStartingWith(service.err(), "tolva: event serviceRegisteredAgain ");
    ASSERT_EQ(again.size(), 1u) << service.err();
    const auto arrow = again[0].find(" -> ");
    ASSERT_NE(arrow, std::string::npos) << again[0];
    const std::string newId = again[0].substr(arrow + 4, again[0].find(':', arrow) - arrow - 4);
    ASSERT_EQ(newId.size(), 36u) << again[0];
    // Registered once more, under the id the platform returned.
    const auto services = platformState().at("services").as_array();
    ASSERT_EQ(services.size(), 1u) << emulator_.state();
    EXPECT_EQ(services.at(0).at("serviceId").as_string(), newId);

    // The heartbeats go on for the id the platform returned.
    const std::string heartbeats = "/discovery/api/v1/service/" + newId + "/";
    const std::size_t sent = requestsTo("PUT", heartbeats).size();
    ASSERT_TRUE(waitForRequestsTo("PUT", heartbeats, sent + 1, std::chrono::seconds(20)));
    EXPECT_TRUE(waitForState([&newId](const web::json::value& state) {
        for (const auto& record : state.at("services").as_array()) {
            if (record.at("serviceId").as_string() == newId &&
                record.at("heartbeats").as_integer() >= 1) {
                return record.at("serviceType").as_string() == "t";
            }
        }
        return false;
    })) << emulator_.state();

    service.signal(SIGINT);
    EXPECT_EQ(service.wait(), 0) << service.err();
    EXPECT_EQ(requestsTo("DELETE", heartbeats).size(), 1u);
    EXPECT_EQ(lines(service.out()).back(), "unregistered service " + newId);
    EXPECT_TRUE(platformState().at("services").as_array().size() == 0) << emulator_.state();
}

TEST_F(ToolCommands, RegisterChecksItsOptions) {
    const std::vector<std::string> complete = {"register", "--type",      "t",  "--instance",
                                               "i",        "--address",   "a",  "--port",
                                               "1",        "--path-rule", "/p/"};
    auto withoutPort = complete;
    withoutPort.erase(withoutPort.begin() + 7, withoutPort.begin() + 9);
    auto run = runTool(against(withoutPort));
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("\"register\" needs --port"), std::string::npos) << run.err;

    auto badPort = complete;
    badPort[8] = "70000";
    run = runTool(against(badPort));
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("--port needs a whole number from 0 to 65535"), std::string::npos);

    auto badHealth = complete;
    badHealth.insert(badHealth.end(), {"--health", "Sick"});
    run = runTool(against(badHealth));
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("--health needs OK, Warning or Error, got \"Sick\""), std::string::npos);
    EXPECT_TRUE(requestsTo("POST", "/discovery/api/v1/service").empty());
}

// --- verify ---

TEST_F(ToolCommands, VerifyAgainstAKeySetFile) {
    std::ofstream("jwks.json") << emulator_.keySet();
    const auto run = runTool({"verify", issuedToken(), "--jwks", "jwks.json", "--json"});
    ASSERT_EQ(run.status, 0) << run.err;
    const auto document = web::json::value::parse(run.out);
    EXPECT_EQ(document.at("result").as_string(), "Verified");
    EXPECT_EQ(document.at("claims").at("acc").as_string(), kAccount);
    EXPECT_TRUE(emulator_.requests().empty());
}

TEST_F(ToolCommands, VerifyReadsTheTokenFromStandardInput) {
    std::ofstream("jwks.json") << emulator_.keySet();
    const auto run = runTool({"verify", "-", "--jwks", "jwks.json"}, {}, issuedToken() + "\n");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(lines(run.out).at(0), "result  Verified");
    EXPECT_NE(run.out.find(std::string("\"acc\":\"") + kAccount + "\""), std::string::npos);
}

TEST_F(ToolCommands, VerifyAgainstThePlatformsKeySet) {
    const auto run = runTool(against({"verify", issuedToken(), "--from-platform"}));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(lines(run.out).at(0), "result  Verified");
    EXPECT_EQ(requestsTo("GET", "/identity/.well-known/openid-configuration/jwks").size(), 1u);
}

TEST_F(ToolCommands, VerifyReportsATamperedToken) {
    std::ofstream("jwks.json") << emulator_.keySet();
    std::string token = issuedToken();
    char& last = token[token.size() - 2];
    last = last == 'A' ? 'B' : 'A';
    const auto run = runTool({"verify", token, "--jwks", "jwks.json"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(lines(run.out).at(0), "result  VerificationFailed");
    EXPECT_NE(run.err.find("tolva: the token does not verify: VerificationFailed"),
              std::string::npos)
        << run.err;
}

TEST_F(ToolCommands, VerifyReportsAnExpiredToken) {
    std::ofstream("jwks.json") << emulator_.keySet();
    emulator_.setTokenLifetime(-60);
    const auto run = runTool({"verify", issuedToken(), "--jwks", "jwks.json"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(lines(run.out).at(0), "result  TokenExpired");
}

TEST_F(ToolCommands, VerifyReportsAMalformedToken) {
    std::ofstream("jwks.json") << emulator_.keySet();
    const auto run = runTool({"verify", "not-a-token", "--jwks", "jwks.json"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(lines(run.out).at(0), "result  InvalidToken");
}

TEST_F(ToolCommands, AMalformedKeySetFileIsAUsageError) {
    std::ofstream("broken.json") << "{\"keys\": [";
    auto run = runTool({"verify", issuedToken(), "--jwks", "broken.json"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("the key set file broken.json is not JSON"), std::string::npos)
        << run.err;

    std::ofstream("object.json") << "{\"keyz\": []}";
    run = runTool({"verify", issuedToken(), "--jwks", "object.json"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("is not a JSON Web Key Set"), std::string::npos) << run.err;

    run = runTool({"verify", issuedToken(), "--jwks", "missing.json"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("cannot read the key set file missing.json"), std::string::npos);
}

}  // namespace
}  // namespace TolvaTest
