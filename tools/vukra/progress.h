// A transfer's progress on standard error, redrawn in place with \r: bytes
// so far of the total, percent, bytes per second and the time left. One
// line covers a whole transfer: a single file, every file of a tree, or
// the bytes of a card image that cross the line. Shown only for transfers
// of more than a few KiB, only when standard error is a terminal, and never
// with -q, so that logs and pipes get no such line. The tools' only drawer.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>

namespace vukra::cli {

// A total not known yet: nothing is drawn until it is.
inline constexpr std::uint64_t kTotalUnknown = std::numeric_limits<std::uint64_t>::max();

struct Progress {
    std::string label;
    std::uint64_t total = 0;
    std::uint64_t done = 0;
    bool shown = false; // whether this transfer shows a line at all
    std::chrono::steady_clock::time_point start{}, drawn{};
    bool drew = false;
};

// Starts a transfer of total bytes (or kTotalUnknown) named label.
Progress progress_start(const std::string& label, std::uint64_t total, bool quiet);
// Counts bytes more moved; redraws the line at most ten times a second.
void progress_add(Progress& p, std::uint64_t bytes);
// Sets how far a transfer followed from outside is; redraws as above.
void progress_set(Progress& p, std::uint64_t done, std::uint64_t total);
// Draws the last state and ends the line (nothing when no line was shown).
void progress_end(Progress& p);

} // namespace vukra::cli
