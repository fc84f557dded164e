// Helpers shared by the test suites.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace TolvaTest {

// The fresh working directory that TestMain made for this test process.
const std::filesystem::path& workDirectory();

// Path of the debug log in the current working directory ("C://logs//ZuLog.txt").
std::filesystem::path debugLogPath();

// Whole content of the debug log as UTF-8 text; empty when the file does not exist.
std::string readDebugLog();

// Number of this process's threads whose system name starts with `prefix` (Linux keeps the
// first 15 bytes of a thread's name).
std::size_t threadsNamed(const std::string& prefix);

// Captures what the process writes to standard output (file descriptor 1, so printf and
// std::cout alike) between construction and text().
class StdoutCapture {
  public:
    StdoutCapture();
    ~StdoutCapture();
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;

    // Stops capturing (once) and returns everything captured.
    std::string text();

  private:
    int savedFd_ = -1;
    std::filesystem::path file_;
    std::string captured_;
    bool done_ = false;
};

}  // namespace TolvaTest
