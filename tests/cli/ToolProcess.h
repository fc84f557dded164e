// ToolProcess: the tolva tool run as a child process with its standard output and error
// captured to files, for end-to-end tests. The child gets this process's environment without
// QX_PLATFORM_CONFIG, ZU_LOG_* and http_proxy (so the test decides them), plus the given
// variables.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

namespace TolvaTest {

class ToolProcess {
  public:
    // Starts `tolva` with `arguments`; `input` is written to its standard input.
    explicit ToolProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment = {},
                         const std::string& input = "");
    // Kills the child if it still runs.
    ~ToolProcess();
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    // Sends a signal to the child.
    void signal(int number);

    // Waits for the child to end and returns its exit status (128 + N when signal N ended
    // it). After `timeout` the child is killed and -1 is returned.
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(60));

    // Waits until the child's standard error contains `text` or `timeout` passes.
    bool waitForError(const std::string& text,
                      std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;
    // The same for standard output.
    bool waitForOutput(const std::string& text,
                       std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

    // What the child wrote so far.
    std::string out() const;
    std::string err() const;

  private:
    static bool waitForText(const std::function<std::string()>& read, const std::string& text,
                            std::chrono::milliseconds timeout);
    pid_t pid_ = -1;
    int status_ = -1;
    std::filesystem::path outFile_;
    std::filesystem::path errFile_;
    std::filesystem::path inFile_;
};

// Runs the tool to its end: exit status, standard output and standard error.
struct ToolRun {
    int status;
    std::string out;
    std::string err;
};
ToolRun runTool(const std::vector<std::string>& arguments,
                const std::map<std::string, std::string>& environment = {},
                const std::string& input = "");

}  // namespace TolvaTest
