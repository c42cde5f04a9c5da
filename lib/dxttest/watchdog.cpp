// The watchdog (watchdog.h).
#include "watchdog.h"

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "dxttest_internal.h"

namespace dxt {

namespace {

std::string seconds_text(long long ms)
{
    line_buffer text;
    put_elapsed(text, ms);
    return {text.data, text.length};
}

std::mutex watch_lock;
std::condition_variable wake;
bool stopping = false;

}  // namespace

long long monotonic_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

hang_finding find_hung(std::span<const platform_thread> threads, long long now_ms, long long run_started_ms,
                       long long limit_ms)
{
    hang_finding found;
    std::vector<size_t> running;
    long long slowest = -1;
    for (size_t i = 0; i < threads.size(); i++) {
        if (!threads[i].exited)
            running.push_back(i);
        else
            slowest = std::max(slowest, threads[i].ended_ms - threads[i].started_ms);
    }
    if (now_ms - run_started_ms >= limit_ms) {
        found = {true, running, "the run is still going after its time limit of " + seconds_text(limit_ms)};
        return found;
    }
    if (running.size() != 1 || slowest < 0)
        return found;
    long long allowed = std::max(relative_floor_ms, relative_factor * slowest);
    const platform_thread &alone = threads[running[0]];
    if (now_ms - alone.started_ms < allowed)
        return found;
    found = {true, running,
             "a worker is still going " + seconds_text(now_ms - alone.started_ms) + " after it started, though every " +
                 "other worker finished, the slowest in " + seconds_text(slowest) + " (allowed: " +
                 seconds_text(allowed) + ", the larger of 60 s and 10 times that)"};
    return found;
}

namespace {

long long watched_start_ms, watched_limit_ms;
hang_handler watched_handler;
pthread_t watcher;
bool watching = false;

void *watch(void *)
{
    std::unique_lock<std::mutex> hold(watch_lock);
    while (!wake.wait_for(hold, std::chrono::milliseconds(250), [] { return stopping; })) {
        std::vector<platform_thread> threads(static_cast<size_t>(platform_threads(nullptr, 0)));
        threads.resize(static_cast<size_t>(platform_threads(threads.data(), static_cast<int>(threads.size()))));
        hang_finding found = find_hung(threads, monotonic_ms(), watched_start_ms, watched_limit_ms);
        if (found.hung)
            watched_handler(threads, found);
    }
    return nullptr;
}

}  // namespace

int start_watchdog(long long run_started_ms, long long limit_ms, hang_handler on_hang)
{
    watched_start_ms = run_started_ms;
    watched_limit_ms = limit_ms;
    watched_handler = on_hang;
    // Started with every signal blocked, so that the interrupts reach only
    // the thread that waits for them.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &old);
    int error = pthread_create(&watcher, nullptr, watch, nullptr);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    watching = error == 0;
    return error;
}

void stop_watchdog()
{
    if (!watching)
        return;
    {
        std::lock_guard<std::mutex> hold(watch_lock);
        stopping = true;
    }
    wake.notify_all();
    pthread_join(watcher, nullptr);
    watching = false;
}

}  // namespace dxt
