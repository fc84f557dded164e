// Console: where the tool writes. Results go to standard output, one line at a time, so that
// scripts can read them (with --json, one JSON document per line); progress, notes and errors
// go to standard error. The library may print its own diagnostics to standard output; the
// tool moves those out of the way (see claimStandardOutput) so that they never mix with its
// results.
#pragma once

#include <string>

namespace tolva {

class Console {
  public:
    // Keeps the process's standard output for the tool alone and points file descriptor 1
    // (where the library's own prints go) at standard error when `libraryPrintsVisible`, or
    // at /dev/null otherwise. Call once, before anything else prints.
    static void claimStandardOutput(bool libraryPrintsVisible);

    // Writes `line` and a newline to the tool's standard output and flushes. Any thread.
    static void out(const std::string& line);
    // Writes `text` without a newline and flushes (progress dots). Any thread.
    static void outPartial(const std::string& text);
    // Writes `line` and a newline to standard error. Any thread.
    static void err(const std::string& line);
};

}  // namespace tolva
