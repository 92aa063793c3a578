// A progress bar with the time left, on stderr, while spectra are acquired.
//
// Acquiring blocks in the library until the instrument has integrated, so a
// thread of its own redraws the bar while the call waits. It is drawn only
// when stderr is a terminal: a log file or a pipe gets nothing.
#ifndef KAVREL_TOOLS_PROGRESS_H
#define KAVREL_TOOLS_PROGRESS_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

namespace kavrel::cli {

class Progress {
public:
    // total items expected to take about expected_ms each. Nothing is shown
    // unless enabled, nor for a single item expected to take under a second.
    Progress(bool enabled, size_t total, double expected_ms, bool utf8);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void begin_item();
    void end_item();

private:
    using Clock = std::chrono::steady_clock;
    void run();
    void draw();

    bool shown_;
    size_t total_;
    double expected_ms_;
    bool utf8_;

    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    size_t done_ = 0;
    double done_ms_ = 0;  // time the finished items took
    Clock::time_point item_start_;
    bool in_item_ = false;
    std::thread ticker_;
};

}  // namespace kavrel::cli

#endif
