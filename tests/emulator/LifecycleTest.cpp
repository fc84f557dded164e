// Starting, stopping and restarting an embedded emulator.
#include <qxpemu/Emulator.h>

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include <nlohmann/json.hpp>

#include "HttpTestClient.h"

namespace EmulatorTest {
namespace {

TEST(LifecycleTest, StartsOnAFreePortAndStops) {
    qxpemu::Emulator emulator;
    EXPECT_EQ(0, emulator.port());
    emulator.start();
    ASSERT_NE(0, emulator.port());
    HttpTestClient client(emulator.port());
    EXPECT_EQ(200, client.request("GET", "/identity/.well-known/openid-configuration/jwks").status);
    emulator.stop();
    emulator.stop();
    HttpTestClient after(emulator.port());
    EXPECT_EQ(0, after.request("GET", "/identity/.well-known/openid-configuration/jwks").status);
}

TEST(LifecycleTest, RestartKeepsPortAndState) {
    qxpemu::EmulatorOptions options;
    options.maxPollSeconds = 1;
    qxpemu::Emulator emulator(options);
    emulator.start();
    const unsigned short port = emulator.port();
    const std::string token = emulator.issueToken("qxp-emulator-default-client");
    HttpTestClient client(port);
    ASSERT_EQ(200, client
                       .request("POST", "/notifications/api/v1/mailbox",
                                "{\"id\":\"0b8e4c1a-5f3d-4e2a-9c71-2d6f8a0b1c3e\","
                                "\"subscription\":\"t\"}",
                                {{"Authorization", "Bearer " + token}})
                       .status);
    emulator.stop();
    emulator.start();
    EXPECT_EQ(port, emulator.port());
    EXPECT_EQ(1u, nlohmann::json::parse(emulator.state())["mailboxes"].size());
    HttpTestClient again(port);
    EXPECT_EQ(200, again
                       .request("GET", "/discovery/api/v1/service", "",
                                {{"Authorization", "Bearer " + token}})
                       .status);
}

TEST(LifecycleTest, StopCutsOffParkedPolls) {
    qxpemu::EmulatorOptions options;
    options.maxPollSeconds = 30;
    qxpemu::Emulator emulator(options);
    emulator.start();
    const std::string token = emulator.issueToken("qxp-emulator-default-client");
    HttpTestClient client(emulator.port());
    ASSERT_EQ(200, client
                       .request("POST", "/notifications/api/v1/mailbox",
                                "{\"id\":\"0b8e4c1a-5f3d-4e2a-9c71-2d6f8a0b1c3e\","
                                "\"subscription\":\"t\"}",
                                {{"Authorization", "Bearer " + token}})
                       .status);
    auto pending = std::async(std::launch::async, [&] {
        HttpTestClient own(emulator.port());
        return own.request("GET",
                           "/notifications/api/v1/notifications/"
                           "0b8e4c1a-5f3d-4e2a-9c71-2d6f8a0b1c3e?timeout=30",
                           "", {{"Authorization", "Bearer " + token}});
    });
    ASSERT_GE(emulator.waitForRequests(2, std::chrono::seconds(10)).size(), 2u);
    // The poll is recorded before it is parked; wait until the mailbox shows it parked.
    const auto parked = [&] {
        return nlohmann::json::parse(emulator.state())["mailboxes"][0]["polling"].get<bool>();
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!parked() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(parked());
    emulator.stop();
    const auto response = pending.get();
    EXPECT_EQ(0, response.status);
}

TEST(LifecycleTest, StartFailsWhenThePortIsTaken) {
    qxpemu::Emulator first;
    first.start();
    qxpemu::EmulatorOptions options;
    options.port = first.port();
    qxpemu::Emulator second(options);
    EXPECT_THROW(second.start(), std::runtime_error);
    EXPECT_THROW(first.start(), std::runtime_error);
}

TEST(LifecycleTest, BadBindAddressFails) {
    qxpemu::EmulatorOptions options;
    options.bindAddress = "not an address";
    qxpemu::Emulator emulator(options);
    EXPECT_THROW(emulator.start(), std::runtime_error);
}

TEST(LifecycleTest, SeveralIoThreadsServeConcurrently) {
    qxpemu::EmulatorOptions options;
    options.threads = 2;
    qxpemu::Emulator emulator(options);
    emulator.start();
    std::vector<std::future<int>> results;
    for (int i = 0; i < 8; ++i) {
        results.push_back(std::async(std::launch::async, [&] {
            HttpTestClient own(emulator.port());
            int ok = 0;
            for (int k = 0; k < 20; ++k) {
                ok +=
                    own.request("GET", "/identity/.well-known/openid-configuration/jwks").status ==
                    200;
            }
            return ok;
        }));
    }
    for (auto& result : results) {
        EXPECT_EQ(20, result.get());
    }
    EXPECT_EQ(160u, emulator.requests().size());
}

}  // namespace
}  // namespace EmulatorTest
