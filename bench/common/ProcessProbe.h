// What a benchmark reads about its own process: resident memory, threads and open file
// descriptors from /proc, and the heap in use from the C library's allocator.
#pragma once

#include <malloc.h>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>

namespace TolvaBench {

// VmRSS of this process, in KiB.
inline long residentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return 0;
}

// Bytes the allocator has handed out and not had back, in KiB: unlike the resident size, free
// memory the allocator keeps does not count, so growth here is memory still held.
inline long heapInUseKiB() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
}

inline std::size_t entriesIn(const char* folder) {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) {
        ++count;
    }
    return count;
}

inline std::size_t threadCount() {
    return entriesIn("/proc/self/task");
}

inline std::size_t openDescriptors() {
    return entriesIn("/proc/self/fd");
}

}  // namespace TolvaBench
