// What a benchmark reads about its own process: resident memory, threads and open file
// descriptors from /proc, and the heap in use from the C library's allocator.
#pragma once

#include <malloc.h>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
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

// Resident KiB of this process by kind of mapping, from /proc/self/smaps: "allocator arenas"
// (glibc's per-thread arenas are anonymous mappings aligned to their 64 MiB heap size),
// "main heap" ([heap], the main arena), "other anonymous" (thread stacks, large blocks),
// "files" (code and data of the program and its libraries) and "other" ([stack], [vdso]).
inline std::map<std::string, long> residentKiBByKind() {
    constexpr std::uint64_t kArenaHeapSize = 64ull << 20;
    std::map<std::string, long> kiB;
    std::ifstream smaps("/proc/self/smaps");
    std::string kind;
    for (std::string line; std::getline(smaps, line);) {
        if (line.rfind("Rss:", 0) == 0) {
            kiB[kind] += std::stol(line.substr(4));
            continue;
        }
        const auto dash = line.find('-');
        if (dash == std::string::npos || line.find(':') < dash) {
            continue;  // another field of the current mapping
        }
        std::istringstream fields(line);
        std::string range, permissions, offset, device, inode, name;
        fields >> range >> permissions >> offset >> device >> inode >> name;
        const std::uint64_t start = std::stoull(range.substr(0, dash), nullptr, 16);
        if (name.empty()) {
            kind = start % kArenaHeapSize == 0 ? "allocator arenas" : "other anonymous";
        } else if (name == "[heap]") {
            kind = "main heap";
        } else if (name[0] == '[') {
            kind = "other";
        } else {
            kind = "files";
        }
    }
    return kiB;
}

}  // namespace TolvaBench
