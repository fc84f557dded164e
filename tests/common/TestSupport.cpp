#include "TestSupport.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace TolvaTest {

namespace {
std::filesystem::path g_workDirectory;
}

void setWorkDirectory(const std::filesystem::path& dir) {
    g_workDirectory = dir;
}

const std::filesystem::path& workDirectory() {
    return g_workDirectory;
}

std::filesystem::path debugLogPath() {
    return std::filesystem::current_path() / "C:" / "logs" / "ZuLog.txt";
}

std::size_t threadsNamed(const std::string& prefix) {
    std::size_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        if (std::getline(comm, name) && name.rfind(prefix, 0) == 0) {
            ++count;
        }
    }
    return count;
}

std::string readDebugLog() {
    std::ifstream in(debugLogPath(), std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

StdoutCapture::StdoutCapture() {
    std::fflush(stdout);
    std::cout.flush();
    static int counter = 0;
    file_ = std::filesystem::current_path() /
            ("stdout-capture-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
    int fd = ::open(file_.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
    if (fd < 0)
        throw std::runtime_error("cannot open stdout capture file");
    savedFd_ = ::dup(1);
    ::dup2(fd, 1);
    ::close(fd);
}

StdoutCapture::~StdoutCapture() {
    text();
}

std::string StdoutCapture::text() {
    if (!done_) {
        done_ = true;
        std::fflush(stdout);
        std::cout.flush();
        ::dup2(savedFd_, 1);
        ::close(savedFd_);
        std::ifstream in(file_, std::ios::binary);
        std::ostringstream out;
        out << in.rdbuf();
        captured_ = out.str();
        std::error_code ignored;
        std::filesystem::remove(file_, ignored);
    }
    return captured_;
}

}  // namespace TolvaTest
