// A transfer's progress on standard error, redrawn in place with \r: bytes
// so far, percent, bytes per second. One line covers a whole transfer, a
// single file or every file of a tree. Shown only for transfers of more
// than a few KiB, only when standard error is a terminal, and never with
// -q, so that logs and pipes get no such line.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace vukra::cli {

struct Progress {
    std::string label;
    std::uint64_t total = 0;
    std::uint64_t done = 0;
    bool shown = false; // whether this transfer shows a line at all
    std::chrono::steady_clock::time_point start{}, drawn{};
    bool drew = false;
};

// Starts a transfer of total bytes named label.
Progress progress_start(const std::string& label, std::uint64_t total, bool quiet);
// Counts bytes more moved; redraws the line at most ten times a second.
void progress_add(Progress& p, std::uint64_t bytes);
// Draws the last state and ends the line (nothing when no line was shown).
void progress_end(Progress& p);

} // namespace vukra::cli
