// qxp-emulator as a child process on a free port, so that a benchmark's memory, thread and
// descriptor figures are the library's alone. QXP_EMULATOR_PATH names the binary.
#pragma once

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TolvaBench {

class EmulatorProcess {
  public:
    // Starts the emulator with "--port 0 --threads 1" and `extra` arguments; returns once it
    // printed its configuration. Throws std::runtime_error when it does not start.
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
        pid_ = fork();
        if (pid_ == 0) {
            dup2(pipeFds[1], STDOUT_FILENO);
            close(pipeFds[0]);
            execv(QXP_EMULATOR_PATH, argv.data());
            _exit(127);
        }
        close(pipeFds[1]);
        reader_ = fdopen(pipeFds[0], "r");
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
            throw std::runtime_error("qxp-emulator did not start");
        }
    }
    ~EmulatorProcess() {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        std::fclose(reader_);
    }
    EmulatorProcess(const EmulatorProcess&) = delete;
    EmulatorProcess& operator=(const EmulatorProcess&) = delete;

    // The QX_PLATFORM_CONFIG document it printed.
    const std::string& config() const { return config_; }

  private:
    pid_t pid_ = -1;
    FILE* reader_ = nullptr;
    std::string config_;
};

}  // namespace TolvaBench
