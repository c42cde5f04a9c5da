// The run's output and the process's end. Every line goes out whole, under
// one lock; whoever ends the run takes that lock for good, so that no line
// follows a verdict. Output that could not be written (a full disk, a
// closed descriptor) showed nobody what the run found: it is said once on
// standard error, and a passing exit status becomes could-not-test.
#ifndef TARNEL_DXTTEST_OUTPUT_H
#define TARNEL_DXTTEST_OUTPUT_H

#include <unistd.h>

#include <atomic>
#include <mutex>

#include "text.h"

namespace dxt {

struct run_output {
    int fd = STDOUT_FILENO;
    std::mutex lock;
    // Set once by whoever ends the run (a message, a signal handler, the
    // watchdog): the first one wins, later ones print nothing.
    std::atomic<bool> ending{false};
    bool passed = false;  // the pass verdict was written; under lock
};

static_assert(std::atomic<bool>::is_always_lock_free, "the signal handlers need a lock-free flag");

// Async-signal-safe, all of them.
void note_lost_output(int error);
bool output_was_lost();
void write_text(int fd, const text_buffer &text);
inline void write_output(const text_buffer &text) { write_text(STDOUT_FILENO, text); }
// Ends the process at once, whatever its other threads are doing: the
// system call itself, so that no static destructor runs under a worker and
// a thread sanitizer's exit hook does not take the workers for leaked
// threads. A pass whose output was lost ends as could-not-test. exit_now
// is the signal handlers' (end_with flushes stdio first).
[[noreturn]] void exit_now(int status);
[[noreturn]] void end_with(int status);
// For a thread that must not go on once another has ended the run.
[[noreturn]] void hang();

}  // namespace dxt

#endif
