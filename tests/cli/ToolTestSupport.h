// Fixture of the tool's end-to-end tests: an emulator with a known client, and helpers that
// build command lines against it and look at what it received.
#pragma once

#include "ToolProcess.h"

#include <qxpemu/Emulator.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace TolvaTest {

class ToolTest : public ::testing::Test {
  public:
    static constexpr const char* kAccount = "tolva-cli-account";

    static qxpemu::EmulatorOptions options() {
        qxpemu::EmulatorOptions options;
        options.clients = {{"tolva-cli", "cli-secret-0123456789", kAccount}};
        return options;
    }

  protected:
    ToolTest() : ToolTest(options()) {}
    explicit ToolTest(qxpemu::EmulatorOptions emulatorOptions)
        : emulator_(std::move(emulatorOptions)) {
        emulator_.start();
    }

    // `arguments` followed by --url and --credentials of the emulator.
    std::vector<std::string> against(std::vector<std::string> arguments) const {
        arguments.insert(arguments.end(),
                         {"--url", emulator_.baseUrl(), "--credentials", emulator_.apiKey()});
        return arguments;
    }

    std::vector<qxpemu::RecordedRequest> requestsTo(const std::string& method,
                                                    const std::string& targetPrefix) const {
        std::vector<qxpemu::RecordedRequest> found;
        for (const auto& request : emulator_.requests()) {
            if (request.method == method && request.target.rfind(targetPrefix, 0) == 0) {
                found.push_back(request);
            }
        }
        return found;
    }

    // Waits until at least `count` requests with this method and target prefix arrived.
    bool waitForRequestsTo(const std::string& method, const std::string& targetPrefix,
                           std::size_t count,
                           std::chrono::milliseconds timeout = std::chrono::seconds(30)) const {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            const std::size_t seen = emulator_.requests().size();
            if (requestsTo(method, targetPrefix).size() >= count) {
                return true;
            }
            const auto now = std::chrono::steady_clock::now();
            if (now >= deadline) {
                return false;
            }
            emulator_.waitForRequests(
                seen + 1, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now));
        }
    }

    qxpemu::Emulator emulator_;
};

// Whether `text` holds something that looks like a JWT (every JWT header starts "eyJ").
inline bool holdsJwt(const std::string& text) {
    return text.find("eyJ") != std::string::npos;
}

}  // namespace TolvaTest
