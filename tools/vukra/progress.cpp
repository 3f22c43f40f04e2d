#include "progress.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace vukra::cli {

namespace {

// Transfers up to this size finish before a line would tell anything.
constexpr std::uint64_t kShownAbove = 8 * 1024;

void draw(Progress& p, std::chrono::steady_clock::time_point now) {
    const std::uint64_t done = p.done;
    const double seconds = std::chrono::duration<double>(now - p.start).count();
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0.0;
    const unsigned percent = p.total > 0 ? static_cast<unsigned>(done * 100 / p.total) : 100;
    std::fprintf(stderr, "\r%s: %llu of %llu bytes (%u%%), %.0f bytes/s ", p.label.c_str(),
                 static_cast<unsigned long long>(done), static_cast<unsigned long long>(p.total),
                 percent > 100 ? 100 : percent, rate);
    std::fflush(stderr);
    p.drawn = now;
    p.drew = true;
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
    if (!p.shown) return;
    const auto now = std::chrono::steady_clock::now();
    if (p.drew && now - p.drawn < std::chrono::milliseconds(100)) return;
    draw(p, now);
}

void progress_end(Progress& p) {
    if (!p.shown) return;
    const int why = errno; // a failure's reason, for the message that follows
    draw(p, std::chrono::steady_clock::now());
    std::fputc('\n', stderr);
    std::fflush(stderr);
    p.shown = false; // ended once
    errno = why;
}

} // namespace vukra::cli
