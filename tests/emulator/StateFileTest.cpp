// The state file: mailboxes and services kept across a restart of the emulator.
#include <qxpemu/Emulator.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "HttpTestClient.h"

namespace EmulatorTest {
namespace {

constexpr char kMailbox[] = "0b8e4c1a-5f3d-4e2a-9c71-2d6f8a0b1c3e";
constexpr char kService[] = "3eb07f4d-8c6a-4b5d-8fa4-5a9cbd3e4f6b";

class StateFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        path = (std::filesystem::temp_directory_path() /
                ("qxp-emulator-state-" + std::to_string(::getpid()) + ".json"))
                   .string();
        std::filesystem::remove(path);
    }
    void TearDown() override { std::filesystem::remove(path); }

    qxpemu::EmulatorOptions options() const {
        qxpemu::EmulatorOptions made;
        made.maxPollSeconds = 1;
        made.stateFile = path;
        made.stateSaveIntervalMs = 50;
        return made;
    }

    static HeaderList bearer(const qxpemu::Emulator& emulator) {
        return {{"Authorization", "Bearer " + emulator.issueToken("qxp-emulator-default-client")}};
    }

    std::string path;
};

TEST_F(StateFileTest, MailboxesServicesAndQueuedMailSurviveARestart) {
    std::string mailboxSecret;
    std::string serviceSecret;
    unsigned short port = 0;
    {
        qxpemu::Emulator first(options());
        first.start();
        port = first.port();
        HttpTestClient client(port);
        const HttpResponse created = client.request(
            "POST", "/notifications/api/v1/mailbox",
            std::string("{\"id\":\"") + kMailbox + "\",\"subscription\":\"Plant/Line1\"}",
            bearer(first));
        ASSERT_EQ(200, created.status);
        mailboxSecret = nlohmann::json::parse(created.body)["secret"];
        ASSERT_EQ(204, client
                           .request("POST",
                                    std::string("/notifications/api/v1/mailbox/") + kMailbox +
                                        "/subscribe/plant%2Fline2",
                                    "", bearer(first))
                           .status);
        const nlohmann::json record = {{"serviceId", kService},
                                       {"serviceType", "render"},
                                       {"serviceInstance", "render-01"},
                                       {"serviceAddress", "10.1.2.3"},
                                       {"servicePort", 8443},
                                       {"reverseProxyPathRule", "/render/"},
                                       {"serviceHealth", {{"health", "OK"}, {"healthText", ""}}}};
        const HttpResponse registered =
            client.request("POST", "/discovery/api/v1/service", record.dump(), bearer(first));
        ASSERT_EQ(201, registered.status);
        serviceSecret = nlohmann::json::parse(registered.body)["serviceSecret"];
        for (const char* topic : {"plant/line1", "plant/line2"}) {
            const nlohmann::json note = {{"id", "n"},
                                         {"time", "2026-01-01T00:00:00Z"},
                                         {"topic", topic},
                                         {"content", std::string("on ") + topic},
                                         {"source", "test"}};
            ASSERT_EQ(204, client
                               .request("POST", "/notifications/api/v1/notifications", note.dump(),
                                        bearer(first))
                               .status);
        }
        first.stop();  // saves once more
    }
    ASSERT_TRUE(std::filesystem::exists(path));

    qxpemu::EmulatorOptions again = options();
    again.port = port;
    qxpemu::Emulator second(again);
    second.start();
    HttpTestClient client(second.port());
    const HttpResponse polled = client.request(
        "GET", std::string("/notifications/api/v1/notifications/") + kMailbox + "?timeout=1", "",
        bearer(second));
    ASSERT_EQ(200, polled.status);
    const auto mail = nlohmann::json::parse(polled.body);
    ASSERT_EQ(2u, mail.size());
    EXPECT_EQ("on plant/line1", mail[0]["content"]);
    EXPECT_EQ("on plant/line2", mail[1]["content"]);
    EXPECT_EQ(204, client
                       .request("PUT",
                                std::string("/discovery/api/v1/service/") + kService + "/" +
                                    serviceSecret + "/health",
                                "null", bearer(second))
                       .status);
    EXPECT_EQ(204, client
                       .request("DELETE", "/notifications/api/v1/mailbox/" + mailboxSecret, "",
                                bearer(second))
                       .status);
}

TEST_F(StateFileTest, IsWrittenWhileTheServerRuns) {
    qxpemu::Emulator emulator(options());
    emulator.start();
    HttpTestClient client(emulator.port());
    ASSERT_EQ(200, client
                       .request("POST", "/notifications/api/v1/mailbox",
                                std::string("{\"id\":\"") + kMailbox + "\",\"subscription\":\"t\"}",
                                bearer(emulator))
                       .status);
    bool saved = false;
    for (int attempt = 0; attempt < 100 && !saved; ++attempt) {
        std::ifstream in(path);
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        saved = text.find(kMailbox) != std::string::npos;
        if (!saved) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    EXPECT_TRUE(saved);
}

TEST_F(StateFileTest, AMalformedFileStopsTheStart) {
    std::ofstream(path) << "{\"format\":\"something else\"}";
    EXPECT_THROW(qxpemu::Emulator emulator(options()), std::runtime_error);
    std::ofstream(path, std::ios::trunc) << "not json";
    EXPECT_THROW(qxpemu::Emulator emulator(options()), std::runtime_error);
}

TEST_F(StateFileTest, SaveStateNeedsAStateFile) {
    qxpemu::Emulator emulator;
    EXPECT_THROW(emulator.saveState(), std::logic_error);
}

}  // namespace
}  // namespace EmulatorTest
