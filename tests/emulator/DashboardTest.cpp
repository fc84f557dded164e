// The dashboard: its page at "/", the document it reads ("/_emulator/dashboard") with every
// section, bounds and paging, no secret anywhere, and the page rendered by a real browser.
#include "EmulatorFixture.h"

#include <TestSupport.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>

namespace EmulatorTest {
namespace {

constexpr char kChromium[] = "/usr/bin/chromium";

class DashboardTest : public EmulatorFixture {
  protected:
    nlohmann::json dashboard(int page = 0) {
        const HttpResponse answer =
            call("GET", "/_emulator/dashboard?page=" + std::to_string(page), "", false);
        EXPECT_EQ(answer.status, 200) << answer.body;
        lastText = answer.body;
        return nlohmann::json::parse(answer.body);
    }

    // Two mailboxes with subscriptions and queued mail, one healthy and one critical service,
    // a fault rule, and requests whose paths carry a mailbox and a service secret. Remembers
    // every secret the platform gave out.
    void fill() {
        qxpemu::EmulatorOptions options = defaultOptions();
        // Critical after three missed beats, 3 s: long enough for the healthy service, which
        // beats once, to stay passing while a slow (sanitized) run reads the page.
        options.heartbeatIntervalMs = 1000;
        restart(options);
        secrets = {token, emulator->apiKey()};
        for (const auto& [id, topic] :
             {std::pair{kMailboxA, "plant/line1"}, std::pair{kMailboxB, "plant/line2"}}) {
            const HttpResponse created = createMailbox(id, topic);
            ASSERT_EQ(created.status, 200) << created.body;
            secrets.push_back(nlohmann::json::parse(created.body)["secret"]);
        }
        ASSERT_EQ(call("POST", std::string("/notifications/api/v1/mailbox/") + kMailboxB +
                                   "/subscribe/plant%2Fall")
                      .status,
                  204);
        ASSERT_EQ(publish("plant/line1", "temperature 71\nsecond line").status, 204);
        ASSERT_EQ(publish("plant/line2", "pressure 3").status, 204);
        // A third mailbox, deleted by its secret.
        const HttpResponse third = createMailbox(kMailboxC, "plant/line3");
        const std::string thirdSecret = nlohmann::json::parse(third.body)["secret"];
        secrets.push_back(thirdSecret);
        ASSERT_EQ(call("DELETE", "/notifications/api/v1/mailbox/" + thirdSecret).status, 204);

        for (const auto& [id, instance] :
             {std::pair{std::string(kServiceId), "healthy-1"},
              std::pair{std::string("4fc18a5e-9d7b-4c6e-9ab5-6bade4f5a7c1"), "silent-1"}}) {
            nlohmann::json record = serviceRecord(id);
            record["serviceInstance"] = instance;
            const HttpResponse registered = call("POST", "/discovery/api/v1/service", record.dump(),
                                                 true, {{"Content-Type", "application/json"}});
            ASSERT_EQ(registered.status, 201) << registered.body;
            serviceSecrets.push_back(nlohmann::json::parse(registered.body)["serviceSecret"]);
            secrets.push_back(serviceSecrets.back());
        }
        // The silent service misses its beats; the healthy one beats once it has.
        ASSERT_TRUE(eventually([&] {
            const nlohmann::json current = state();
            for (const auto& service : current["services"]) {
                if (service["serviceInstance"] == "silent-1") {
                    return service["status"] == "critical";
                }
            }
            return false;
        }));
        beat();

        qxpemu::FaultRule rule;
        rule.method = "POST";
        rule.pathPattern = "/identity/connect/token";
        rule.status = 200;
        rule.body = "{\"access_token\":\"canned-token-0123456789\"}";
        rule.times = 5;
        emulator->addFault(rule);
        secrets.push_back("canned-token-0123456789");
    }

    void beat() {
        ASSERT_EQ(call("PUT",
                       std::string("/discovery/api/v1/service/") + kServiceId + "/" +
                           serviceSecrets.front() + "/health",
                       "null", true, {{"Content-Type", "application/json"}})
                      .status,
                  204);
    }

    void expectNoSecretIn(const std::string& text, const std::string& where) {
        for (const auto& secret : secrets) {
            ASSERT_GE(secret.size(), 8u);
            EXPECT_EQ(text.find(secret), std::string::npos) << where << " shows " << secret;
        }
    }

    std::vector<std::string> secrets;
    std::vector<std::string> serviceSecrets;
    std::string lastText;
};

TEST_F(DashboardTest, TheRootServesOneSelfContainedPage) {
    const HttpResponse page = call("GET", "/", "", false);
    ASSERT_EQ(page.status, 200);
    EXPECT_EQ(page.header("Content-Type"), "text/html; charset=utf-8");
    EXPECT_NE(page.body.find("<script>"), std::string::npos);
    EXPECT_NE(page.body.find("/_emulator/dashboard"), std::string::npos);
    // Nothing is fetched from elsewhere: no external script, style, font or image.
    EXPECT_EQ(page.body.find("src="), std::string::npos);
    EXPECT_EQ(page.body.find("<link"), std::string::npos);
    EXPECT_EQ(page.body.find("http://"), std::string::npos);
    EXPECT_EQ(page.body.find("https://"), std::string::npos);
    // The page is not a platform request.
    EXPECT_TRUE(emulator->requests().empty());
    EXPECT_EQ(call("POST", "/", "", false).status, 405);
}

TEST_F(DashboardTest, TheDocumentShowsEverySection) {
    fill();
    const nlohmann::json doc = dashboard();

    EXPECT_EQ(doc["identity"]["keys"].size(), 1u);
    EXPECT_EQ(doc["identity"]["tokenLifetimeSeconds"], 3600);
    EXPECT_GE(doc["identity"]["tokensIssued"].get<int>(), 1);

    const auto& boxes = doc["mailboxes"];
    EXPECT_EQ(boxes["total"], 2);
    EXPECT_EQ(boxes["queuedMail"], 2);
    ASSERT_EQ(boxes["items"].size(), 2u);
    EXPECT_EQ(boxes["items"][0]["id"], kMailboxA);
    EXPECT_EQ(boxes["items"][0]["subscriptions"], nlohmann::json({"plant/line1"}));
    EXPECT_EQ(boxes["items"][0]["queued"], 1);
    EXPECT_EQ(boxes["items"][0]["pollParked"], false);
    EXPECT_EQ(boxes["items"][1]["subscriptions"], nlohmann::json({"plant/all", "plant/line2"}));

    ASSERT_EQ(doc["services"].size(), 2u);
    std::map<std::string, nlohmann::json> services;
    for (const auto& service : doc["services"]) {
        services[service["serviceInstance"]] = service;
    }
    EXPECT_EQ(services["healthy-1"]["status"], "passing");
    EXPECT_EQ(services["healthy-1"]["heartbeats"], 1);
    EXPECT_EQ(services["healthy-1"]["serviceAddress"], "10.0.0.5");
    EXPECT_EQ(services["healthy-1"]["servicePort"], 8443);
    EXPECT_EQ(services["silent-1"]["status"], "critical");
    EXPECT_EQ(services["silent-1"]["heartbeats"], 0);

    ASSERT_EQ(doc["notifications"].size(), 2u);
    EXPECT_EQ(doc["notifications"][0]["topic"], "plant/line2");  // newest first
    EXPECT_EQ(doc["notifications"][0]["deliveredTo"], 1);
    EXPECT_EQ(doc["notifications"][1]["content"], "temperature 71 …");  // one line

    const auto& requests = doc["requests"];
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(requests[0]["method"], "PUT");
    EXPECT_EQ(requests[0]["path"],
              std::string("/discovery/api/v1/service/") + kServiceId + "/***/health");
    EXPECT_EQ(requests[0]["status"], 204);
    bool sawDelete = false;
    for (const auto& request : requests) {
        sawDelete |= request["method"] == "DELETE" &&
                     request["path"] == "/notifications/api/v1/mailbox/***" &&
                     request["status"] == 204;
    }
    EXPECT_TRUE(sawDelete);

    ASSERT_EQ(doc["faults"].size(), 1u);
    EXPECT_EQ(doc["faults"][0]["pathPattern"], "/identity/connect/token");
    EXPECT_EQ(doc["faults"][0]["times"], 5);
    EXPECT_FALSE(doc["faults"][0].contains("body"));
}

TEST_F(DashboardTest, NoSecretIsInTheDocument) {
    fill();
    dashboard();
    expectNoSecretIn(lastText, "the dashboard document");
}

TEST_F(DashboardTest, PathsThatCarrySecretsAreMasked) {
    EXPECT_EQ(call("DELETE", "/notifications/api/v1/mailbox/s3cret-mailbox-secret").status, 404);
    EXPECT_EQ(call("PUT",
                   std::string("/discovery/api/v1/service/") + kServiceId +
                       "/s3cret-service-secret/health",
                   "null")
                  .status,
              404);
    EXPECT_EQ(call("POST", std::string("/notifications/api/v1/mailbox/") + kMailboxA +
                               "/subscribe/plant%2Fline9")
                  .status,
              404);
    const nlohmann::json doc = dashboard();
    ASSERT_GE(doc["requests"].size(), 3u);
    EXPECT_EQ(doc["requests"][0]["path"], std::string("/notifications/api/v1/mailbox/") +
                                              kMailboxA + "/subscribe/plant%2Fline9");
    EXPECT_EQ(doc["requests"][1]["path"],
              std::string("/discovery/api/v1/service/") + kServiceId + "/***/health");
    EXPECT_EQ(doc["requests"][2]["path"], "/notifications/api/v1/mailbox/***");
    EXPECT_EQ(lastText.find("s3cret"), std::string::npos);
}

TEST_F(DashboardTest, KeepsTheLastHundredNotificationsAndRequests) {
    for (int i = 0; i < 130; ++i) {
        ASSERT_EQ(publish("bulk", "n" + std::to_string(i)).status, 204);
    }
    const nlohmann::json doc = dashboard();
    ASSERT_EQ(doc["notifications"].size(), 100u);
    EXPECT_EQ(doc["notifications"][0]["content"], "n129");
    EXPECT_EQ(doc["notifications"][99]["content"], "n30");
    EXPECT_EQ(doc["requests"].size(), 100u);
}

TEST_F(DashboardTest, ManyMailboxesArePaged) {
    // Enough for fifteen pages; made one request at a time, so a sanitized run stays quick.
    constexpr int kMailboxes = 1500;
    for (int i = 0; i < kMailboxes; ++i) {
        char id[40];
        std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", i);
        ASSERT_EQ(createMailbox(id, "bulk/" + std::to_string(i % 7)).status, 200);
    }
    nlohmann::json doc = dashboard();
    EXPECT_EQ(doc["mailboxes"]["total"], kMailboxes);
    EXPECT_EQ(doc["mailboxes"]["pages"], kMailboxes / 100);
    EXPECT_EQ(doc["mailboxes"]["items"].size(), 100u);
    // A page stays small: what the browser reads each second does not grow with the count.
    EXPECT_LT(lastText.size(), 64u * 1024u);
    doc = dashboard(kMailboxes / 100 - 1);
    ASSERT_EQ(doc["mailboxes"]["items"].size(), 100u);
    EXPECT_EQ(doc["mailboxes"]["items"][99]["id"], "00000000-0000-4000-8000-000000001499");
    EXPECT_TRUE(dashboard(kMailboxes / 100)["mailboxes"]["items"].empty());
    EXPECT_EQ(call("GET", "/_emulator/dashboard?page=x", "", false).status, 400);
}

// Runs `command` through the shell; returns its exit status.
int run(const std::string& command) {
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST_F(DashboardTest, ABrowserRendersEverySectionAndNoSecret) {
    if (!std::filesystem::exists(kChromium)) {
        GTEST_SKIP() << "no Chromium at " << kChromium
                     << " (install the Debian package chromium to run this test)";
    }
    fill();
    const std::string url = emulator->baseUrl() + "/";
    const std::filesystem::path dir = std::filesystem::current_path();
    const std::string flags = std::string(kChromium) +
                              " --headless --no-sandbox --disable-gpu --disable-dev-shm-usage "
                              "--no-first-run --user-data-dir=" +
                              (dir / "chromium-profile").string() + " --virtual-time-budget=5000 ";
    // The healthy service keeps beating (every 100 ms, with 300 ms expected) while the browser
    // starts and looks, on a connection of its own.
    std::atomic<bool> beating{true};
    std::thread beater([&] {
        HttpTestClient own(emulator->port());
        const std::string target = std::string("/discovery/api/v1/service/") + kServiceId + "/" +
                                   serviceSecrets.front() + "/health";
        while (beating) {
            own.request(
                "PUT", target, "null",
                {{"Authorization", "Bearer " + token}, {"Content-Type", "application/json"}});
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    const int domStatus = run(flags + "--dump-dom " + url + " > dom.html 2> chromium.log");
    const int shotStatus =
        run(flags + "--window-size=1280,2200 --screenshot=" + (dir / "dashboard.png").string() +
            " " + url + " 2>> chromium.log");
    beating = false;
    beater.join();
    ASSERT_EQ(domStatus, 0) << readFile(dir / "chromium.log");
    ASSERT_EQ(shotStatus, 0) << readFile(dir / "chromium.log");
    std::printf("dashboard screenshot: %s\n", (dir / "dashboard.png").c_str());
    EXPECT_GT(std::filesystem::file_size(dir / "dashboard.png"), 10000u);

    const std::string dom = readFile(dir / "dom.html");
    // The script ran and filled every section.
    EXPECT_NE(dom.find("updated "), std::string::npos) << dom.substr(0, 2000);
    EXPECT_NE(dom.find("tokens issued: "), std::string::npos);
    EXPECT_NE(dom.find(kMailboxA), std::string::npos);
    EXPECT_NE(dom.find(kMailboxB), std::string::npos);
    EXPECT_NE(dom.find("plant/all, plant/line2"), std::string::npos);
    EXPECT_NE(dom.find("mail queued: 2"), std::string::npos);
    EXPECT_NE(dom.find("healthy-1"), std::string::npos);
    EXPECT_NE(dom.find("<td class=\"passing\">passing</td>"), std::string::npos);
    EXPECT_NE(dom.find("silent-1"), std::string::npos);
    EXPECT_NE(dom.find("<td class=\"critical\">critical</td>"), std::string::npos);
    EXPECT_NE(dom.find("temperature 71"), std::string::npos);
    EXPECT_NE(dom.find("/notifications/api/v1/mailbox/***"), std::string::npos);
    EXPECT_NE(dom.find("/identity/connect/token</td>"), std::string::npos);  // the fault rule
    expectNoSecretIn(dom, "the rendered page");
}

}  // namespace
}  // namespace EmulatorTest
