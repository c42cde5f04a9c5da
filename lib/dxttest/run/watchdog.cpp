// The watchdog (watchdog.h).
#include "watchdog.h"

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "text.h"
#include "workers.h"

namespace dxt {

namespace {

std::string seconds_text(long long ms)
{
    line_buffer text;
    put_elapsed(text, ms);
    return {text.data, text.length};
}

}  // namespace

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

void *watch(void *context)
{
    watchdog &w = *static_cast<watchdog *>(context);
    std::unique_lock<std::mutex> hold(w.lock);
    while (!w.wake.wait_for(hold, std::chrono::milliseconds(250), [&] { return w.stopping; })) {
        std::vector<platform_thread> threads = all_threads();
        hang_finding found = find_hung(threads, monotonic_ms(), w.start_ms, w.limit_ms);
        if (found.hung)
            w.on_hang(threads, found);
    }
    return nullptr;
}

}  // namespace

int start_watchdog(watchdog &w, long long run_started_ms, long long limit_ms, hang_handler on_hang)
{
    w.start_ms = run_started_ms;
    w.limit_ms = limit_ms;
    w.on_hang = on_hang;
    // Started with every signal blocked, so that the interrupts reach only
    // the thread that waits for them.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &old);
    int error = pthread_create(&w.thread, nullptr, watch, &w);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    w.running = error == 0;
    return error;
}

void stop_watchdog(watchdog &w)
{
    if (!w.running)
        return;
    {
        std::lock_guard<std::mutex> hold(w.lock);
        w.stopping = true;
    }
    w.wake.notify_all();
    pthread_join(w.thread, nullptr);
    w.running = false;
}

}  // namespace dxt
