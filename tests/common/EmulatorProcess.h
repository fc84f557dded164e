// EmulatorProcess: qxp-emulator run as a child process, for tests that stop and restart a real
// platform process and for benchmarks whose memory, thread and descriptor figures must be the
// library's alone. QXP_EMULATOR_PATH names the binary.
#pragma once

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace TolvaTest {

class EmulatorProcess {
  public:
    // Starts the emulator with "--port 0 --threads 1" followed by `extra` arguments (a later
    // "--port N" wins); returns once it printed its configuration. Throws std::runtime_error
    // when it does not start.
    explicit EmulatorProcess(const std::vector<std::string>& extra = {}) {
        int pipeFds[2];
        if (pipe(pipeFds) != 0) {
            throw std::runtime_error("pipe failed");
        }
        std::vector<std::string> words = {"qxp-emulator", "--port", "0", "--threads", "1"};
        words.insert(words.end(), extra.begin(), extra.end());
        std::vector<char*> argv;
        for (auto& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        // posix_spawn rather than fork: the parent has threads, and the child runs nothing of
        // the parent's before its exec.
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
        posix_spawn_file_actions_addclose(&actions, pipeFds[1]);
        const int spawned =
            posix_spawn(&pid_, QXP_EMULATOR_PATH, &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(pipeFds[1]);
        reader_ = fdopen(pipeFds[0], "r");
        if (spawned != 0 || reader_ == nullptr) {
            if (reader_ == nullptr) {
                close(pipeFds[0]);
            }
            end(SIGKILL);
            throw std::runtime_error("qxp-emulator could not be started");
        }
        char line[4096];
        while (std::fgets(line, sizeof line, reader_) != nullptr) {
            const std::string text(line);
            const std::string prefix = "QX_PLATFORM_CONFIG='";
            if (text.rfind(prefix, 0) == 0) {
                config_ = text.substr(prefix.size(), text.rfind('\'') - prefix.size());
                break;
            }
        }
        if (config_.empty()) {
            end(SIGKILL);
            throw std::runtime_error("qxp-emulator did not start");
        }
    }
    ~EmulatorProcess() { end(SIGTERM); }
    EmulatorProcess(const EmulatorProcess&) = delete;
    EmulatorProcess& operator=(const EmulatorProcess&) = delete;

    // Ends the process with `signal` and waits for it; later calls do nothing.
    void end(int signal) {
        if (pid_ > 0) {
            kill(pid_, signal);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
        if (reader_ != nullptr) {
            std::fclose(reader_);
            reader_ = nullptr;
        }
    }

    // An empty text while the process runs, otherwise how it ended ("exit 1", "signal 9").
    std::string endedHow() const {
        if (pid_ <= 0) {
            return "ended";
        }
        siginfo_t info{};
        if (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
            info.si_pid == 0) {
            return {};
        }
        return (info.si_code == CLD_EXITED ? "exit " : "signal ") + std::to_string(info.si_status);
    }

    // The QX_PLATFORM_CONFIG document it printed.
    const std::string& config() const { return config_; }

    // The port it listens on, read from the document's "url".
    std::string port() const {
        const auto url = config_.find("\"url\":\"");
        const auto colon = config_.find(':', config_.find("//", url));
        const auto end = config_.find('"', colon);
        if (url == std::string::npos || colon == std::string::npos || end == std::string::npos) {
            throw std::runtime_error("no port in the emulator's configuration");
        }
        return config_.substr(colon + 1, end - colon - 1);
    }

  private:
    pid_t pid_ = -1;
    FILE* reader_ = nullptr;
    std::string config_;
};

}  // namespace TolvaTest
