#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace kavrel::cli {

Progress::Progress(bool enabled, size_t total, double expected_ms, bool utf8)
    : shown_(enabled && total > 0 && (total > 1 || expected_ms >= 1000)),
      total_(total),
      expected_ms_(expected_ms),
      utf8_(utf8) {
    if (!shown_) return;
    draw();
    ticker_ = std::thread([this] { run(); });
}

Progress::~Progress() {
    if (!shown_) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    ticker_.join();
    // Leave the line empty for what follows.
    std::fprintf(stderr, "\r%*s\r", 72, "");
    std::fflush(stderr);
}

void Progress::begin_item() {
    std::lock_guard<std::mutex> lock(mutex_);
    item_start_ = Clock::now();
    in_item_ = true;
}

void Progress::end_item() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (in_item_) done_ms_ += std::chrono::duration<double, std::milli>(Clock::now() - item_start_).count();
        in_item_ = false;
        ++done_;
        if (shown_) draw();
    }
}

void Progress::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop_) {
        wake_.wait_for(lock, std::chrono::milliseconds(100));
        if (!stop_) draw();
    }
}

void Progress::draw() {
    // What one item takes: measured once one has finished, else expected.
    const double each = done_ > 0 ? done_ms_ / static_cast<double>(done_) : std::max(expected_ms_, 1.0);
    const double current =
        in_item_ ? std::chrono::duration<double, std::milli>(Clock::now() - item_start_).count() : 0.0;
    const double fraction =
        std::min(1.0, (static_cast<double>(done_) + std::min(current / each, 0.99)) / static_cast<double>(total_));
    const double left_ms = std::max(0.0, each * static_cast<double>(total_ - std::min(done_, total_)) - current);

    constexpr int kBar = 30;
    const int full = static_cast<int>(fraction * kBar);
    std::string bar;
    for (int i = 0; i < kBar; ++i) bar += i < full ? (utf8_ ? "\u2588" : "#") : (utf8_ ? "\u2591" : "-");
    const auto seconds = static_cast<long>(left_ms / 1000 + 0.5);
    std::fprintf(stderr, "\r%s %3.0f%%  %zu/%zu  %ld:%02ld left ", bar.c_str(), fraction * 100, done_, total_,
                 seconds / 60, seconds % 60);
    std::fflush(stderr);
}

}  // namespace kavrel::cli
