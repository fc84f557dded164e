// The qxp-emulator binary: prints its URL and a usable configuration, serves, and stops
// cleanly on Ctrl-C (SIGINT).
#ifdef QXP_EMULATOR_BINARY

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "HttpTestClient.h"

namespace EmulatorTest {
namespace {

class RunningBinary {
  public:
    explicit RunningBinary(std::vector<std::string> arguments) {
        int out[2];
        if (pipe(out) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(out[1], STDERR_FILENO);
            close(out[0]);
            close(out[1]);
            std::vector<char*> argv;
            argv.push_back(const_cast<char*>(QXP_EMULATOR_BINARY));
            for (auto& argument : arguments) {
                argv.push_back(argument.data());
            }
            argv.push_back(nullptr);
            execv(QXP_EMULATOR_BINARY, argv.data());
            _exit(127);
        }
        close(out[1]);
        outFd_ = out[0];
    }
    ~RunningBinary() {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (outFd_ >= 0) {
            close(outFd_);
        }
    }
    // Reads output until it contains `marker` or the deadline passes.
    std::string readUntil(const std::string& marker, std::chrono::seconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (output_.find(marker) == std::string::npos &&
               std::chrono::steady_clock::now() < deadline) {
            pollfd ready{outFd_, POLLIN, 0};
            if (::poll(&ready, 1, 100) <= 0) {
                continue;
            }
            char chunk[4096];
            const ssize_t count = read(outFd_, chunk, sizeof chunk);
            if (count <= 0) {
                break;
            }
            output_.append(chunk, std::size_t(count));
        }
        return output_;
    }
    // Sends `signal` and returns the exit status, -1 when it did not exit normally.
    int stopWith(int signal) {
        kill(pid_, signal);
        int status = 0;
        waitpid(pid_, &status, 0);
        reaped_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    pid_t pid_ = -1;
    int outFd_ = -1;
    bool reaped_ = false;
    std::string output_;
};

TEST(CommandLineTest, PrintsAConfigurationThatWorksAndStopsOnCtrlC) {
    RunningBinary binary({"--port", "0", "--max-poll", "1", "--token-lifetime", "120"});
    const std::string output = binary.readUntil("Press Ctrl-C", std::chrono::seconds(30));
    const auto configStart = output.find("QX_PLATFORM_CONFIG='");
    ASSERT_NE(std::string::npos, configStart) << output;
    const auto valueStart = configStart + std::string("QX_PLATFORM_CONFIG='").size();
    const auto config = nlohmann::json::parse(
        output.substr(valueStart, output.find('\'', valueStart) - valueStart));
    const std::string url = config["url"];
    const std::string apiKey = config["logging"]["credentials"];
    EXPECT_GT(apiKey.size(), 100u);
    EXPECT_NE(std::string::npos, output.find("listening on " + url));
    const unsigned short port =
        static_cast<unsigned short>(std::stoi(url.substr(url.rfind(':') + 1)));

    HttpTestClient client(port);
    const auto token = client.request("POST", "/identity/connect/token",
                                      "grant_type=client_credentials&scope=platform+cluster",
                                      {{"Authorization", "Basic " + apiKey},
                                       {"Content-Type", "application/x-www-form-urlencoded"}});
    ASSERT_EQ(200, token.status) << token.body;
    EXPECT_EQ(120, nlohmann::json::parse(token.body)["expires_in"]);
    EXPECT_EQ(
        1, nlohmann::json::parse(client.request("GET", "/_emulator/state").body)["maxPollSeconds"]);

    EXPECT_EQ(0, binary.stopWith(SIGINT));
}

TEST(CommandLineTest, RejectsUnknownOptionsAndBadValues) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"--frobnicate", "1"},
                                                      {"--port", "70000"},
                                                      {"--client", "no-colons"},
                                                      {"--max-poll"}}) {
        RunningBinary binary(arguments);
        const std::string output = binary.readUntil("Usage:", std::chrono::seconds(30));
        EXPECT_NE(std::string::npos, output.find("qxp-emulator: ")) << output;
        EXPECT_EQ(2, binary.stopWith(0));
    }
}

}  // namespace
}  // namespace EmulatorTest

#endif
