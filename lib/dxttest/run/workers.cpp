// What the workers did (workers.h).
#include "workers.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "platform.h"
#include "testinfo.h"

namespace dxt {

namespace {

// The calling thread's own entry, once it claimed one, and the processor it
// tests (-2: not looked up yet). A thread's, so no lock and no search on
// every message.
struct thread_place {
    worker_progress *progress = nullptr;
    int cpu = -2;
};

thread_local thread_place here;

// The worker's announcement of the geometry it sized its buffers from.
constexpr char geometry_announcement[] = "Cache Access stress for cache_size %x line_size %x num_loops %d\n";

// The processor a worker thread tests: the program starts each worker with
// its processor id as the argument, so this is known before the worker
// binds itself, and stays so when the binding fails. -1 for any other.
int worker_processor()
{
    if (here.cpu == -2) {
        here.cpu = -1;
        int tid = static_cast<int>(gettid());
        for (const platform_thread &t : all_threads())
            if (t.tid == tid)
                here.cpu = processor_of(t);
    }
    return here.cpu;
}

// What the run meant to test and did not, from 4006 (the worker was never
// created; the message names the worker table's entry, filled like
// machine->tested) and 4003 (it could not be bound).
void note_lost_processor(worker_log &log, int number, int value)
{
    int cpu = value;
    const char *reason = "not-bound";
    int entry = -1;
    if (number == MSG_THREAD_CREATE_FAILED) {
        if (value < 0 || static_cast<size_t>(value) >= log.machine->tested.size())
            return;
        cpu = log.machine->tested[static_cast<size_t>(value)];
        reason = "thread-not-created";
        entry = value;
    }
    std::lock_guard<std::mutex> hold(log.lock);
    int n = log.lost_count.load();
    if (was_lost({log.lost, static_cast<size_t>(n)}, cpu))
        return;
    if (n < max_reported) {
        log.lost[n] = {cpu, reason, entry};
        log.lost_count.store(n + 1);
    }
}

// The geometry a bound worker announced; none when the announcing thread
// is bound to no tested processor.
std::optional<l2_geometry> note_geometry(worker_log &log, uint32_t size, uint32_t line)
{
    int cpu = platform_bound_processor();
    const auto &tested = log.machine->tested;
    auto found = std::find(tested.begin(), tested.end(), cpu);
    if (found == tested.end())
        return std::nullopt;
    l2_geometry g = announced_l2(cpu, size, line, log.machine->shared_cpus[size_t(found - tested.begin())]);
    // Appended whole before it is counted, and never moved: a reader, a
    // signal handler among them, reads only entries no one writes.
    std::lock_guard<std::mutex> hold(log.lock);
    int n = log.announced_count.load();
    if (n >= max_reported)
        return std::nullopt;
    log.announced[n] = g;
    log.announced_count.store(n + 1);
    return g;
}

const worker_progress *progress_of(const worker_log &log, int tid)
{
    int claimed = std::min(log.workers_claimed.load(), max_workers);
    for (int i = 0; i < claimed; i++)
        if (log.workers[i].tid.load() == tid)
            return &log.workers[i];
    return nullptr;
}

// The subtests one of which a thread was in when it failed; none for the
// main thread, which runs no subtest.
subtest_set subtests_of(const worker_progress *p, bool main_thread, bool status_known, intptr_t status,
                        bool running = false)
{
    if (p == nullptr)
        return main_thread ? subtest_set{} : possible_subtests(test_mask, -1, false, status_known, status, running);
    return possible_subtests(test_mask, p->last_started.load(), p->ended.load(), status_known, status, running);
}

}  // namespace

bool note_progress(worker_log &log, int number)
{
    int begun = subtest_started_by(number);
    int done = subtest_ended_by(number);
    if (begun < 0 && done < 0)
        return false;
    worker_progress *mine = here.progress;
    if (mine == nullptr) {
        int slot = log.workers_claimed.fetch_add(1);
        if (slot >= max_workers)
            return false;
        mine = &log.workers[slot];
        mine->tid = static_cast<int>(gettid());
        here.progress = mine;
    }
    int previous = mine->last_started.load();
    if (begun >= 0) {
        // A subtest without an end message ends where the next one begins.
        if (previous >= 0 && !mine->ended.load())
            log.finished_on[previous]++;
        mine->last_started = begun;
        mine->ended = false;
        log.started_on[begun]++;
        log.current_subtest = begun;
    } else if (previous == done && !mine->ended.load()) {
        mine->ended = true;
        log.finished_on[done]++;
    }
    return true;
}

std::optional<l2_geometry> note_report(worker_log &log, int number, const char *tag, va_list args)
{
    if (log.machine == nullptr)
        return std::nullopt;
    if (number == MSG_THREAD_CREATE_FAILED || number == MSG_BIND_FAILED) {
        note_lost_processor(log, number, va_arg(args, int));
        return std::nullopt;
    }
    if (number != MSG_FREE_TEXT)
        return std::nullopt;
    const char *format = va_arg(args, const char *);
    // Every buffer's lock-failure text says so; the run goes on unlocked.
    if (format != nullptr && strstr(format, "mlock failed") != nullptr)
        log.lock_failures++;
    if (format == nullptr || tag == nullptr || strcmp(tag, "l2cache") != 0 || strcmp(format, geometry_announcement) != 0)
        return std::nullopt;
    uint32_t size = va_arg(args, uint32_t);
    uint32_t line = va_arg(args, uint32_t);
    return note_geometry(log, size, line);
}

void note_failed_allocation(worker_log &log)
{
    // Only a worker's allocations are the test's; a subtest that gives up
    // on its memory ends its worker with status 12, which the join shows,
    // so only a kernel skipped in silence is kept here.
    int cpu = platform_bound_processor();
    if (cpu < 0 || on_main_thread())
        return;
    failure_site site;
    site.cpu = cpu;
    site.no_memory = true;
    subtest_set may_be_in = subtests_of(here.progress, false, false, 0, true);
    for (int i = 0; i < may_be_in.count; i++)
        if (subtests()[static_cast<size_t>(may_be_in.index[i])].skips_without_memory)
            site.subtests.index[site.subtests.count++] = may_be_in.index[i];
    if (site.subtests.count == 0)
        return;
    std::lock_guard<std::mutex> hold(log.lock);
    int n = log.skipped_count.load();
    for (int i = 0; i < n; i++)
        if (log.skipped[i].cpu == cpu && log.skipped[i].subtests.index[0] == site.subtests.index[0])
            return;
    if (n < max_reported) {
        log.skipped[n] = site;
        log.skipped_count.store(n + 1);
    }
}

std::span<const left_out_processor> lost_so_far(const worker_log &log)
{
    return {log.lost, static_cast<size_t>(log.lost_count.load())};
}

std::span<const failure_site> skipped_so_far(const worker_log &log)
{
    return {log.skipped, static_cast<size_t>(log.skipped_count.load())};
}

std::span<const l2_geometry> announced_so_far(const worker_log &log)
{
    return {log.announced, static_cast<size_t>(log.announced_count.load())};
}

std::span<const l2_geometry> announced_in_order(const worker_log &log, std::span<l2_geometry> room)
{
    std::span<const l2_geometry> announced = announced_so_far(log);
    size_t n = std::min(announced.size(), room.size());
    std::copy_n(announced.begin(), n, room.begin());
    std::sort(room.begin(), room.begin() + n, [](const l2_geometry &a, const l2_geometry &b) { return a.cpu < b.cpu; });
    return room.first(n);
}

bool on_main_thread() { return gettid() == getpid(); }

int reporting_processor()
{
    int cpu = on_main_thread() ? -1 : worker_processor();
    return cpu >= 0 ? cpu : sched_getcpu();
}

std::vector<platform_thread> all_threads()
{
    std::vector<platform_thread> threads(static_cast<size_t>(platform_threads(nullptr, 0)));
    threads.resize(static_cast<size_t>(platform_threads(threads.data(), static_cast<int>(threads.size()))));
    return threads;
}

int processor_of(const platform_thread &t) { return static_cast<int>(t.arg); }

failure_site own_failure(int number)
{
    failure_site site;
    site.cpu = worker_processor() >= 0 ? worker_processor() : platform_bound_processor();
    site.message = number;
    site.no_memory = lacks_memory(number);
    int named = subtest_ending_with(number);
    if (named >= 0) {
        site.subtests.index[site.subtests.count++] = named;
        return site;
    }
    site.subtests = subtests_of(here.progress, on_main_thread(), false, 0);
    return site;
}

failure_site own_bus_error(int cpu, uintptr_t address)
{
    failure_site site;
    site.cpu = cpu;
    site.subtests = subtests_of(here.progress, on_main_thread(), false, 0);
    site.address_known = true;
    site.address = address;
    return site;
}

std::vector<failure_site> failed_workers(const worker_log &log, bool none_is_unknown)
{
    std::vector<failure_site> sites;
    for (const platform_thread &t : all_threads()) {
        if (!t.exited || t.status == 0)
            continue;
        failure_site site;
        site.cpu = processor_of(t);
        site.message = MSG_WORKERS_FAILED;
        site.status_known = true;
        site.status = t.status;
        site.no_memory = lacks_memory_status(t.status);
        site.subtests = subtests_of(progress_of(log, t.tid), false, true, t.status);
        sites.push_back(site);
    }
    if (sites.empty() && none_is_unknown) {
        failure_site unknown;
        unknown.message = MSG_WORKERS_FAILED;
        sites.push_back(unknown);
    }
    return sites;
}

failure_site hung_worker(const worker_log &log, const platform_thread &t)
{
    failure_site site;
    site.cpu = processor_of(t);
    site.hung = true;
    site.subtests = subtests_of(progress_of(log, t.tid), false, false, 0, true);
    return site;
}

std::vector<left_out_processor> left_out_at_end(const worker_log &log, std::span<const failure_site> failures)
{
    std::span<const left_out_processor> so_far = lost_so_far(log);
    std::vector<left_out_processor> left(so_far.begin(), so_far.end());
    if (log.machine == nullptr)
        return left;
    std::vector<platform_thread> threads = all_threads();
    for (int cpu : log.machine->tested) {
        bool failed = std::any_of(failures.begin(), failures.end(), [cpu](const auto &f) { return f.cpu == cpu; });
        auto worker = std::find_if(threads.begin(), threads.end(), [cpu](const auto &t) { return processor_of(t) == cpu; });
        if (!failed && !was_lost(left, cpu) && (worker == threads.end() || !worker->exited))
            left.push_back({cpu, "cut-short"});
    }
    return left;
}

}  // namespace dxt
