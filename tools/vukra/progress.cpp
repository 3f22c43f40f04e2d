#include "progress.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <unistd.h>

namespace vukra::cli {

namespace {

// Transfers up to this size finish before a line would tell anything.
constexpr std::uint64_t kShownAbove = 8 * 1024;

// "1:05" or "1:02:05": what is left at the rate so far; "?" before a rate.
std::string time_left(std::uint64_t left, double rate) {
    if (rate <= 0) return "?";
    const auto seconds = static_cast<unsigned long long>(static_cast<double>(left) / rate + 0.5);
    char text[32];
    if (seconds >= 3600)
        std::snprintf(text, sizeof text, "%llu:%02llu:%02llu", seconds / 3600, seconds / 60 % 60, seconds % 60);
    else
        std::snprintf(text, sizeof text, "%llu:%02llu", seconds / 60, seconds % 60);
    return text;
}

void draw(Progress& p, std::chrono::steady_clock::time_point now) {
    if (p.total == kTotalUnknown) return;
    const std::uint64_t done = p.done < p.total ? p.done : p.total;
    const double seconds = std::chrono::duration<double>(now - p.start).count();
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0.0;
    const unsigned percent = p.total > 0 ? static_cast<unsigned>(done * 100 / p.total) : 100;
    std::fprintf(stderr, "\r%s: %llu of %llu bytes (%u%%), %.0f bytes/s, %s left ", p.label.c_str(),
                 static_cast<unsigned long long>(done), static_cast<unsigned long long>(p.total), percent, rate,
                 time_left(p.total - done, done > 0 ? rate : 0.0).c_str());
    std::fflush(stderr);
    p.drawn = now;
    p.drew = true;
}

void redraw(Progress& p) {
    if (!p.shown) return;
    const auto now = std::chrono::steady_clock::now();
    if (p.drew && now - p.drawn < std::chrono::milliseconds(100)) return;
    draw(p, now);
}

} // namespace

Progress progress_start(const std::string& label, std::uint64_t total, bool quiet) {
    Progress p;
    p.label = label;
    p.total = total;
    p.shown = !quiet && total > kShownAbove && isatty(STDERR_FILENO) == 1;
    p.start = std::chrono::steady_clock::now();
    return p;
}

void progress_add(Progress& p, std::uint64_t bytes) {
    p.done += bytes;
    redraw(p);
}

void progress_set(Progress& p, std::uint64_t done, std::uint64_t total) {
    p.done = done;
    p.total = total;
    redraw(p);
}

void progress_end(Progress& p) {
    if (!p.shown) return;
    const int why = errno; // a failure's reason, for the message that follows
    draw(p, std::chrono::steady_clock::now());
    if (p.drew) std::fputc('\n', stderr);
    std::fflush(stderr);
    p.shown = false; // ended once
    errno = why;
}

} // namespace vukra::cli
