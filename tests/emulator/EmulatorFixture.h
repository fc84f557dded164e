// Shared set-up for the emulator tests: a running emulator, a valid token and small
// helpers that talk to it over plain HTTP.
#pragma once

#include <gtest/gtest.h>
#include <qxpemu/Emulator.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "HttpTestClient.h"

namespace EmulatorTest {

constexpr char kMailboxA[] = "0b8e4c1a-5f3d-4e2a-9c71-2d6f8a0b1c3e";
constexpr char kMailboxB[] = "1c9f5d2b-6a4e-4f3b-8d82-3e7a9b1c2d4f";
constexpr char kMailboxC[] = "2daf6e3c-7b5f-4a4c-9e93-4f8bac2d3e5a";
constexpr char kServiceId[] = "3eb07f4d-8c6a-4b5d-8fa4-5a9cbd3e4f6b";

class EmulatorFixture : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Restarts the fixture's emulator with other options.
    void restart(qxpemu::EmulatorOptions options);
    static qxpemu::EmulatorOptions defaultOptions();

    // One request on the fixture's connection; `authorized` adds the bearer token.
    HttpResponse call(const std::string& method, const std::string& target,
                      const std::string& body = "", bool authorized = true,
                      HeaderList headers = {});

    nlohmann::json state();
    // Waits until `condition` holds or `timeout` passes; returns the last evaluation.
    static bool eventually(const std::function<bool()>& condition,
                           std::chrono::milliseconds timeout = std::chrono::seconds(10));

    HttpResponse createMailbox(const std::string& id, const std::string& subscription, int ttl = 0);
    HttpResponse publish(const std::string& topic, const std::string& content, int ttl = 0);
    HttpResponse poll(const std::string& id, int timeoutSeconds);
    nlohmann::json serviceRecord(const std::string& id = kServiceId);

    std::unique_ptr<qxpemu::Emulator> emulator;
    std::unique_ptr<HttpTestClient> client;
    std::string token;
};

}  // namespace EmulatorTest
