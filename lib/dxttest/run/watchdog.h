// The watchdog of a run: a worker that stops making progress ends the run
// as hung, naming where it stuck, instead of holding it for ever. Fleets run
// the test unattended; a run that cannot end costs more than one that says
// where it stopped.
#ifndef TARNEL_DXTTEST_WATCHDOG_H
#define TARNEL_DXTTEST_WATCHDOG_H

#include <pthread.h>

#include <condition_variable>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "platform_ext.h"

namespace dxt {

// A worker alone after the others may take this many times as long as the
// slowest of them, and at least relative_floor_ms: workers of one machine do
// the same work on similar caches.
constexpr long long relative_factor = 10;
constexpr long long relative_floor_ms = 60000;

struct hang_finding {
    bool hung = false;
    std::vector<size_t> threads;  // the hung ones, as indices into what was looked at
    std::string detail;           // why, for the line that ends the run
};

// What the threads (as the platform lists them; times in CLOCK_MONOTONIC
// milliseconds) say at now_ms of a run that started at run_started_ms and
// may take limit_ms: past the limit the run has hung, with every thread
// still running; before it, a thread still running once every other one has
// finished has hung after max(relative_floor_ms, relative_factor times the
// slowest finished thread's time) since it started.
hang_finding find_hung(std::span<const platform_thread> threads, long long now_ms, long long run_started_ms,
                       long long limit_ms);

// Looks at the platform's threads four times a second from a thread of its
// own and calls on_hang, which must not return, with what it found. 0, or
// the error that kept its thread from starting.
using hang_handler = void (*)(const std::vector<platform_thread> &threads, const hang_finding &finding);
struct watchdog {
    long long start_ms = 0, limit_ms = 0;
    hang_handler on_hang = nullptr;
    pthread_t thread;
    bool running = false;
    std::mutex lock;
    std::condition_variable wake;
    bool stopping = false;  // under lock
};

int start_watchdog(watchdog &w, long long run_started_ms, long long limit_ms, hang_handler on_hang);
// Stops it and waits for its thread (a passing run leaves none behind).
void stop_watchdog(watchdog &w);

}  // namespace dxt

#endif
