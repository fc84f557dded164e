#include "Console.h"

#include <cstdio>
#include <mutex>

#include <fcntl.h>
#include <unistd.h>

namespace tolva {

namespace {

// Never destroyed: the HTTP library's threads may still print while the process exits.
std::mutex& consoleMutex() {
    static std::mutex* const made = new std::mutex;
    return *made;
}
// The tool's standard output; stdout until claimStandardOutput moves it.
std::FILE* g_out = nullptr;

std::FILE* output() {
    return g_out ? g_out : stdout;
}

}  // namespace

void Console::claimStandardOutput(bool libraryPrintsVisible) {
    std::lock_guard<std::mutex> lock(consoleMutex());
    if (g_out) {
        return;
    }
    std::fflush(stdout);
    const int saved = ::dup(STDOUT_FILENO);
    if (saved < 0) {
        return;
    }
    std::FILE* claimed = ::fdopen(saved, "w");
    if (!claimed) {
        ::close(saved);
        return;
    }
    int target = STDERR_FILENO;
    int devNull = -1;
    if (!libraryPrintsVisible) {
        devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (devNull >= 0) {
            target = devNull;
        }
    }
    ::dup2(target, STDOUT_FILENO);
    if (devNull >= 0) {
        ::close(devNull);
    }
    g_out = claimed;
}

void Console::out(const std::string& line) {
    std::lock_guard<std::mutex> lock(consoleMutex());
    std::fwrite(line.data(), 1, line.size(), output());
    std::fputc('\n', output());
    std::fflush(output());
}

void Console::outPartial(const std::string& text) {
    std::lock_guard<std::mutex> lock(consoleMutex());
    std::fwrite(text.data(), 1, text.size(), output());
    std::fflush(output());
}

void Console::err(const std::string& line) {
    std::lock_guard<std::mutex> lock(consoleMutex());
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

}  // namespace tolva
