#include "ToolProcess.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace TolvaTest {

namespace {

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool dropped(const std::string& entry) {
    // http_proxy too: a proxy set on the machine would stand between the tool and the
    // emulator on loopback (a test that wants one passes it in `environment`).
    return entry.rfind("QX_PLATFORM_CONFIG=", 0) == 0 || entry.rfind("ZU_LOG_", 0) == 0 ||
           entry.rfind("http_proxy=", 0) == 0;
}

}  // namespace

ToolProcess::ToolProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment,
                         const std::string& input) {
    static int counter = 0;
    const std::string stem = "tool-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    outFile_ = std::filesystem::current_path() / (stem + ".out");
    errFile_ = std::filesystem::current_path() / (stem + ".err");
    inFile_ = std::filesystem::current_path() / (stem + ".in");
    std::ofstream(inFile_, std::ios::binary) << input;

    std::vector<std::string> words{TOLVA_TOOL_PATH};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    std::vector<std::string> variables;
    for (char** entry = environ; *entry; ++entry) {
        if (dropped(*entry)) {
            continue;
        }
        variables.emplace_back(*entry);
        // Under AddressSanitizer the tool's leak reports are matched against suppressions
        // by their stacks; the fast unwinder stops in libcrypto (built without frame
        // pointers), so the tool unwinds the slow way: its runs are short.
        if (variables.back().rfind("ASAN_OPTIONS=", 0) == 0) {
            variables.back() += ":fast_unwind_on_malloc=0";
        }
    }
    for (const auto& [name, value] : environment) {
        variables.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (auto& variable : variables) {
        envp.push_back(variable.data());
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, inFile_.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, 2, errFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    const int rc = posix_spawn(&pid_, TOLVA_TOOL_PATH, &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        pid_ = -1;
        throw std::runtime_error(std::string("cannot start the tool: ") + std::strerror(rc));
    }
}

ToolProcess::~ToolProcess() {
    if (pid_ > 0 && status_ < 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

void ToolProcess::signal(int number) {
    if (pid_ > 0 && status_ < 0) {
        ::kill(pid_, number);
    }
}

int ToolProcess::wait(std::chrono::milliseconds timeout) {
    if (status_ >= 0) {
        return status_;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int raw = 0;
        const pid_t done = ::waitpid(pid_, &raw, WNOHANG);
        if (done == pid_) {
            status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
            return status_;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            status_ = 128 + SIGKILL;
            return -1;
        }
        // A child's end cannot be awaited with a timeout through waitpid; look again shortly.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

bool ToolProcess::waitForError(const std::string& text, std::chrono::milliseconds timeout) const {
    return waitForText([this] { return err(); }, text, timeout);
}

bool ToolProcess::waitForOutput(const std::string& text, std::chrono::milliseconds timeout) const {
    return waitForText([this] { return out(); }, text, timeout);
}

bool ToolProcess::waitForText(const std::function<std::string()>& read, const std::string& text,
                              std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (read().find(text) != std::string::npos) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        // A file's growth cannot be awaited without inotify; look again shortly.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::string ToolProcess::out() const {
    return readFile(outFile_);
}

std::string ToolProcess::err() const {
    return readFile(errFile_);
}

ToolRun runTool(const std::vector<std::string>& arguments,
                const std::map<std::string, std::string>& environment, const std::string& input) {
    ToolProcess process(arguments, environment, input);
    const int status = process.wait();
    return {status, process.out(), process.err()};
}

}  // namespace TolvaTest
