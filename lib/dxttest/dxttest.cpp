// This project's test harness: it takes the test's command line, hands the
// -o text to the test's option parser, shows every message as one whole line
// (text or JSON) on standard output, follows each worker thread's subtests,
// and ends the process with a verdict and an exit status that say what
// happened, where, and on which machine. The README ("Output", "JSON
// output", "Exit status") and tarneltest(1) give the forms and the statuses;
// verdict.h assembles the verdict, burnin.cpp runs a burn-in.
//
// The option parser is called exactly once, with "" when no -o was given;
// repeated -o texts are joined with commas.
#include <pthread.h>
#include <signal.h>
#include <sched.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "allocations.h"
#include "burnin.h"
#include "textfile.h"
#include "dxttest_internal.h"
#include "testinfo.h"
#include "platform_ext.h"
#include "conditions.h"
#include "metrics.h"
#include "reports.h"
#include "verdict.h"
#include "watchdog.h"

const char *test_name;
const char *device_name;
int test_modes;
const char *func_name;

namespace {

dxt::display_mode display;
int output_fd = STDOUT_FILENO;
// A run of a burn-in: where its failures also go, for the burn-in (-1: not
// one).
int failures_fd = -1;
const char *options_text = "";
timespec started;
std::string subopts;  // the parser's text; it may keep pointers into it
std::string given_options;  // the -o text as given, for the verdict
long long timeout_ms = dxt::default_timeout_seconds * 1000;  // the watchdog's limit
// --metrics: where the result goes for Prometheus ("": nowhere), with room
// assembled before the run for a signal handler's ending. Written once:
// an ending after a failed write would find the same file.
dxt::metrics_file metrics_target;
char *metrics_storage = nullptr;
size_t metrics_capacity = 0;
std::atomic<bool> metrics_written{false};

// What test_init learned before the run; never freed, since workers may
// still run while the process ends.
const dxt::machine_description *machine = nullptr;
// Each processor's part and the machine's identity, for the record.
std::vector<dxt::processor_entry> *processors = nullptr;
dxt::machine_entry host_identity{};
// What the machine's error reporting said before the run, and the
// rasdaemon database read.
ras::snapshot reports_before;
dxt::conditions conditions_before;
std::atomic<int> lock_failures{0};  // buffers the test could not lock, as its debug texts say
std::string ras_database = ras::default_database;
// The machine's name for the verdict record (fleets collect records from
// many hosts); read once, since a signal handler cannot ask.
char host_name[256];
// Room for a verdict assembled in a signal handler, which cannot allocate.
char *signal_storage = nullptr;
size_t signal_capacity = 0;

// Every line is written under this lock. Whoever ends the run takes it and
// never gives it back, so no line follows a verdict.
std::mutex output_lock;
// Set once by whoever ends the run (a message or a signal handler): the
// first one wins, later ones print nothing.
std::atomic<bool> ending{false};
// test_end gave the pass verdict; guarded by output_lock.
bool passed = false;

// What the program's own reports say of each processor, recorded as they
// pass through dxt_message, shown or not: processors the run meant to test
// but did not, from 4006 (its worker was never created; the message names
// the worker table's entry, filled like machine->tested) and 4003 (its
// worker could not be bound to it); and the geometry each bound worker
// announced before its first subtest. Added under report_lock, read lock
// free (a signal handler reads them).
constexpr int max_reported = 4096;
std::mutex report_lock;
dxt::left_out_processor lost[max_reported];
std::atomic<int> lost_count{0};
dxt::l2_geometry announced[max_reported];
std::atomic<int> announced_count{0};
// The worker's announcement of the geometry it sized its buffers from.
constexpr char geometry_announcement[] = "Cache Access stress for cache_size %x line_size %x num_loops %d\n";
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handlers need a lock-free flag");

// The subtest a worker thread announced last, found by its kernel id. Lock
// free, so a signal handler can read it; a thread claims its entry with its
// first start message.
struct worker_progress {
    std::atomic<int> tid{0};
    std::atomic<int> last_started{-1};  // index into dxt::subtests()
    std::atomic<bool> ended{false};     // its end message came
};
constexpr int max_workers = 4096;
worker_progress workers[max_workers];
std::atomic<int> workers_claimed{0};
thread_local worker_progress *own_progress = nullptr;

// The progress line: per subtest, on how many processors it started and
// finished, and the subtest announced last.
constexpr int max_subtests = 16;
std::atomic<int> started_on[max_subtests];
std::atomic<int> finished_on[max_subtests];
std::atomic<int> current_subtest{-1};
bool progress_on = false;                // -q, not --json, a terminal
std::atomic<bool> progress_shown{false};  // a progress line is on the screen
int terminal_columns = 80;
constexpr std::string_view clear_line = "\r\033[K";

// Kernels a subtest skipped because their memory could not be had, by
// processor and the subtests the worker may have been in: work the run
// meant to do and did not. Added under report_lock.
dxt::failure_site skipped[max_reported];
std::atomic<int> skipped_count{0};

const char *name_of_test() { return test_name != nullptr ? test_name : "the test"; }

// A run whose output was lost (a full disk, a closed descriptor) showed
// nobody what it found, so it cannot pass: said once on standard error, and
// a passing exit status becomes could-not-test. Async-signal-safe.
std::atomic<bool> output_lost{false};

void note_lost_output(int error)
{
    if (output_lost.exchange(true))
        return;
    dxt::line_buffer text;
    dxt::put(text, name_of_test(), ": cannot write standard output (", dxt::error_text(error));
    dxt::put(text, "): the run's output is lost, so it cannot pass (exit status 3 unless a fault is found)\n");
    dxt::write_all(STDERR_FILENO, text.data, text.length);
}

void write_text(int fd, const dxt::text_buffer &text)
{
    if (int error = dxt::write_all(fd, text.data, text.length))
        note_lost_output(error);
}

long long now_seconds()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

long long elapsed_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - started.tv_sec) * 1000LL + (now.tv_nsec - started.tv_nsec) / 1000000;
}

[[noreturn]] void hang()
{
    for (;;)
        pause();
}

// Ends the process at once, whatever its other threads are doing (the
// system call itself, so that a thread sanitizer's exit hook does not take
// the workers still in the process for leaked threads). Async-signal-safe.
[[noreturn]] void exit_now(int status)
{
    if (status == dxt::exit_passed && output_lost.load())
        status = dxt::exit_could_not_test;
    for (;;)
        syscall(SYS_exit_group, status);
}

// Workers may still be running: no static destructor may run under them.
[[noreturn]] void end_process(int status)
{
    std::fflush(nullptr);
    exit_now(status);
}

std::string_view view(const dxt::text_buffer &b) { return {b.data, b.length}; }

// The verdict's sentence: the reason, the processors that failed, the status.
void put_status_reason(dxt::text_buffer &text, std::string_view reason, int status,
                       std::span<const dxt::failure_site> failures = {})
{
    dxt::put(text, reason);
    // A fault names where it was found; a lack of memory, where it was.
    bool faults = std::any_of(failures.begin(), failures.end(), dxt::is_fault);
    for (size_t i = 0, named = 0; i < failures.size(); i++) {
        if (dxt::is_fault(failures[i]) != faults || !dxt::names_new_cpu(failures, i))
            continue;
        dxt::put(text, named++ == 0 ? " on cpu" : ", cpu", failures[i].cpu);
    }
    dxt::put(text, " (exit status ", status, ")");
}

// output_lock is held (or, in a signal handler, the run is ending).
void clear_progress()
{
    if (progress_shown.exchange(false))
        dxt::write_all(output_fd, clear_line.data(), clear_line.size());
}

// output_lock is held.
void draw_progress()
{
    if (!progress_on || ending.load())
        return;
    dxt::line_buffer text;
    int subtest = current_subtest.load();
    int processors = machine != nullptr ? static_cast<int>(machine->tested.size()) : 0;
    dxt::put_progress_text(text, subtest, subtest >= 0 ? started_on[subtest].load() : 0,
                           subtest >= 0 ? finished_on[subtest].load() : 0, processors);
    // One screen line, or the next \r would not reach its start.
    size_t width = terminal_columns > 1 ? static_cast<size_t>(terminal_columns - 1) : 1;
    if (text.length > width)
        text.length = width;
    dxt::write_all(output_fd, clear_line.data(), clear_line.size());
    write_text(output_fd, text);
    progress_shown = true;
}

void note_lost_processor(int number, int value)
{
    int cpu = value;
    const char *reason = "not-bound";
    int entry = -1;
    if (number == MSG_THREAD_CREATE_FAILED) {
        if (machine == nullptr || value < 0 || static_cast<size_t>(value) >= machine->tested.size())
            return;
        cpu = machine->tested[static_cast<size_t>(value)];
        reason = "thread-not-created";
        entry = value;
    }
    std::lock_guard<std::mutex> hold(report_lock);
    int n = lost_count.load();
    if (dxt::was_lost({lost, static_cast<size_t>(n)}, cpu))
        return;
    if (n < max_reported) {
        lost[n] = {cpu, reason, entry};
        lost_count.store(n + 1);
    }
}

// The geometry a bound worker announced; none when the announcing thread
// is bound to no tested processor.
std::optional<dxt::l2_geometry> note_geometry(uint32_t size, uint32_t line)
{
    int cpu = platform_bound_processor();
    const auto &tested = machine->tested;
    auto found = std::find(tested.begin(), tested.end(), cpu);
    if (found == tested.end())
        return std::nullopt;
    dxt::l2_geometry g = dxt::announced_l2(cpu, size, line, machine->shared_cpus[size_t(found - tested.begin())]);
    // Kept in processor order, whatever order the workers announce in; a
    // signal handler reading during an insertion may see one entry twice.
    std::lock_guard<std::mutex> hold(report_lock);
    int n = announced_count.load();
    if (n >= max_reported)
        return std::nullopt;
    int at = n;
    for (; at > 0 && announced[at - 1].cpu > cpu; at--)
        announced[at] = announced[at - 1];
    announced[at] = g;
    announced_count.store(n + 1);
    return g;
}

// Records what a report says of a processor; the geometry it announced, if
// it is an announcement.
std::optional<dxt::l2_geometry> note_report(int number, const char *tag, va_list args)
{
    if (machine == nullptr)
        return std::nullopt;
    if (number == MSG_THREAD_CREATE_FAILED || number == MSG_BIND_FAILED) {
        note_lost_processor(number, va_arg(args, int));
        return std::nullopt;
    }
    if (number != MSG_FREE_TEXT)
        return std::nullopt;
    const char *format = va_arg(args, const char *);
    // Every buffer's lock-failure text says so; the run goes on unlocked.
    if (format != nullptr && strstr(format, "mlock failed") != nullptr)
        lock_failures++;
    if (format == nullptr || tag == nullptr || strcmp(tag, "l2cache") != 0 || strcmp(format, geometry_announcement) != 0)
        return std::nullopt;
    uint32_t size = va_arg(args, uint32_t);
    uint32_t line = va_arg(args, uint32_t);
    return note_geometry(size, line);
}

bool on_main_thread() { return gettid() == getpid(); }

// Every thread the platform started for the program, in creation order.
std::vector<platform_thread> all_threads()
{
    std::vector<platform_thread> threads(static_cast<size_t>(platform_threads(nullptr, 0)));
    threads.resize(static_cast<size_t>(platform_threads(threads.data(), static_cast<int>(threads.size()))));
    return threads;
}

// The processor a worker thread tests: the program starts each worker with
// its processor id as the argument, so this is known before the worker binds
// itself, and stays so when the binding fails. -1 for any other thread.
int processor_of(const platform_thread &t) { return static_cast<int>(t.arg); }

int worker_processor()
{
    thread_local int cpu = -2;  // -2: not looked up yet
    if (cpu == -2) {
        cpu = -1;
        int tid = static_cast<int>(gettid());
        for (const platform_thread &t : all_threads())
            if (t.tid == tid)
                cpu = processor_of(t);
    }
    return cpu;
}

// Where a message's line says it comes from: the main thread, a worker's
// processor, or where any other thread runs.
int reporting_processor()
{
    int cpu = on_main_thread() ? -1 : worker_processor();
    return cpu >= 0 ? cpu : sched_getcpu();
}

std::span<const dxt::failure_site> skipped_so_far()
{
    return {skipped, static_cast<size_t>(skipped_count.load())};
}

// A verdict with what every verdict of this run carries.
std::span<const dxt::left_out_processor> lost_so_far() { return {lost, static_cast<size_t>(lost_count.load())}; }

dxt::verdict_record run_record(long long time, int status, const dxt::text_buffer &text, int cpu,
                               std::span<const dxt::failure_site> failures, const dxt::hardware_report *reports,
                               std::span<const dxt::left_out_processor> left_out = lost_so_far())
{
    return {time,
            status,
            elapsed_ms(),
            view(text),
            cpu,
            machine,
            failures,
            reports,
            host_name,
            left_out,
            given_options,
            dxt_test_version,
            TARNEL_BUILD,
            {announced, static_cast<size_t>(announced_count.load())},
            processors != nullptr ? std::span<const dxt::processor_entry>(*processors)
                                  : std::span<const dxt::processor_entry>(),
            processors != nullptr ? &host_identity : nullptr};
}

worker_progress *progress_of(int tid)
{
    int claimed = std::min(workers_claimed.load(), max_workers);
    for (int i = 0; i < claimed; i++)
        if (workers[i].tid.load() == tid)
            return &workers[i];
    return nullptr;
}

// Follows the calling thread's start and end messages.
void note_progress(int number)
{
    int begun = dxt::subtest_started_by(number);
    int done = dxt::subtest_ended_by(number);
    if (begun < 0 && done < 0)
        return;
    worker_progress *mine = own_progress;
    if (mine == nullptr) {
        int slot = workers_claimed.fetch_add(1);
        if (slot >= max_workers)
            return;
        mine = &workers[slot];
        mine->tid = static_cast<int>(gettid());
        own_progress = mine;
    }
    int previous = mine->last_started.load();
    if (begun >= 0) {
        // A subtest without an end message ends where the next one begins.
        if (previous >= 0 && !mine->ended.load())
            finished_on[previous]++;
        mine->last_started = begun;
        mine->ended = false;
        started_on[begun]++;
        current_subtest = begun;
    } else if (previous == done && !mine->ended.load()) {
        mine->ended = true;
        finished_on[done]++;
    }
    if (progress_on) {
        std::lock_guard<std::mutex> hold(output_lock);
        draw_progress();
    }
}

// The subtests one of which a thread was in when it failed; none for the
// main thread, which runs no subtest.
dxt::subtest_set subtests_of(const worker_progress *p, bool main_thread, bool status_known, intptr_t status,
                             bool running = false)
{
    if (p == nullptr)
        return main_thread ? dxt::subtest_set{}
                           : dxt::possible_subtests(test_mask, -1, false, status_known, status, running);
    return dxt::possible_subtests(test_mask, p->last_started.load(), p->ended.load(), status_known, status, running);
}

// Where the calling thread failed: its binding and its subtest.
dxt::failure_site own_failure(int number)
{
    dxt::failure_site site;
    site.cpu = worker_processor() >= 0 ? worker_processor() : platform_bound_processor();
    site.message = number;
    site.no_memory = dxt::lacks_memory(number);
    int named = dxt::subtest_ending_with(number);
    if (named >= 0) {
        site.subtests.index[site.subtests.count++] = named;
        return site;
    }
    site.subtests = subtests_of(own_progress, gettid() == getpid(), false, 0);
    return site;
}

// The workers the platform saw end with a non-zero status, after the join
// that found them (8011), each with its processor and subtest.
std::vector<dxt::failure_site> failed_workers(bool none_is_unknown = true)
{
    std::vector<dxt::failure_site> sites;
    for (const platform_thread &t : all_threads()) {
        if (!t.exited || t.status == 0)
            continue;
        dxt::failure_site site;
        site.cpu = processor_of(t);
        site.message = MSG_WORKERS_FAILED;
        site.status_known = true;
        site.status = t.status;
        site.no_memory = dxt::lacks_memory_status(t.status);
        site.subtests = subtests_of(progress_of(t.tid), false, true, t.status);
        sites.push_back(site);
    }
    if (sites.empty() && none_is_unknown) {
        dxt::failure_site unknown;
        unknown.message = MSG_WORKERS_FAILED;
        sites.push_back(unknown);
    }
    return sites;
}

// What the machine's error reporting saw since test_init.
dxt::hardware_report check_reports()
{
    if (machine == nullptr)
        return {};
    dxt::hardware_report r = dxt::compare_reports(reports_before, ras::read_snapshot("", ras_database), ras_database);
    r.conditions = dxt::condition_warnings(conditions_before, dxt::read_conditions(machine->tested), lock_failures);
    return r;
}

// The verdict in the run's form, after what goes before it.
void put_verdict(dxt::text_buffer &out, const dxt::verdict_record &record)
{
    if (display.json)
        dxt::put_verdict_record(out, record);
    else
        dxt::put_verdict_block(out, record, display.quiet);
    if (failures_fd >= 0)
        for (const dxt::failure_site &f : record.failures) {
            if (!dxt::is_fault(f))
                continue;
            dxt::line_buffer line;
            dxt::put_failure_brief(line, f);
            dxt::write_all(failures_fd, line.data, line.length);
        }
}

// Room for a verdict that a signal handler assembles.
dxt::text_buffer signal_buffer(dxt::line_buffer &fallback)
{
    if (signal_storage != nullptr)
        return {signal_storage, signal_capacity, 0};
    return {fallback.data, fallback.capacity, 0};
}

// The record's metrics, once, when --metrics asks for them; 0, or the error
// that stopped the write (said on standard error). A signal handler uses the
// room set aside before the run.
int write_metrics(const dxt::verdict_record &record, bool in_handler)
{
    if (metrics_target.path.empty() || metrics_written.exchange(true))
        return 0;
    std::vector<char> own;
    if (!in_handler)
        own.resize(dxt::run_metrics_room(record));
    dxt::text_buffer out = in_handler ? dxt::text_buffer{metrics_storage, metrics_capacity}
                                      : dxt::text_buffer{own.data(), own.size()};
    if (out.data == nullptr)
        return 0;
    dxt::put_run_metrics(out, record);
    return dxt::write_metrics_file(metrics_target, out, name_of_test());
}

// Writes the text as the run's last output, and the metrics, and ends the
// process. After a pass verdict the process is ending anyway: the verdict
// stands.
[[noreturn]] void write_last(const dxt::text_buffer &text, int status, const dxt::verdict_record &record)
{
    output_lock.lock();
    if (passed)
        end_process(dxt::exit_passed);
    if (ending.exchange(true))
        hang();
    clear_progress();
    write_text(output_fd, text);
    write_metrics(record, false);
    end_process(status);
}

// The processors left out so far and those whose workers had not finished
// (or not started) when the run ended early: they were not tested, whatever
// the others found. The failing ones are where a fault was found.
std::vector<dxt::left_out_processor> left_out_at_end(std::span<const dxt::failure_site> failures)
{
    std::span<const dxt::left_out_processor> so_far = lost_so_far();
    std::vector<dxt::left_out_processor> left(so_far.begin(), so_far.end());
    if (machine == nullptr)
        return left;
    std::vector<platform_thread> threads = all_threads();
    for (int cpu : machine->tested) {
        bool failed = std::any_of(failures.begin(), failures.end(), [cpu](const auto &f) { return f.cpu == cpu; });
        auto worker = std::find_if(threads.begin(), threads.end(), [cpu](const auto &t) { return processor_of(t) == cpu; });
        if (!failed && !dxt::was_lost(left, cpu) && (worker == threads.end() || !worker->exited))
            left.push_back({cpu, "cut-short"});
    }
    return left;
}

// How a run ends, unless it passes: the line that ended it (none for an
// interrupt or a refused command line), the exit status, the verdict's
// reason and where it failed. A signal handler cannot lock, allocate or
// read the counters, so its ending leaves out the counters and the
// processors cut short.
struct run_end {
    long long time;
    int status;
    std::string_view reason;
    std::span<const dxt::failure_site> failures = {};
    int cpu = -1;  // the worker that ended the run; -1: the main thread
    const dxt::message_fields *lead = nullptr;
    bool in_handler = false;
    const dxt::hardware_report *reports = nullptr;  // read already; nullptr: read them now
};

// The one way a run ends but a pass: the lead line and the verdict, as the
// run's last output, and the exit status.
[[noreturn]] void finish(const run_end &e)
{
    dxt::line_buffer reason;
    put_status_reason(reason, e.reason, e.status, e.failures);
    if (e.in_handler) {
        dxt::line_buffer fallback;
        dxt::text_buffer out = signal_buffer(fallback);
        if (e.lead != nullptr)
            dxt::put_message_line(out, *e.lead, display.json);
        dxt::verdict_record record = run_record(e.time, e.status, reason, e.cpu, e.failures, nullptr);
        put_verdict(out, record);
        clear_progress();
        write_text(output_fd, out);
        write_metrics(record, true);
        exit_now(e.status);
    }
    std::vector<dxt::failure_site> failures(e.failures.begin(), e.failures.end());
    for (const dxt::failure_site &s : skipped_so_far())
        if (!std::any_of(failures.begin(), failures.end(), [&](const auto &f) { return f.no_memory && f.cpu == s.cpu; }))
            failures.push_back(s);
    std::vector<dxt::left_out_processor> left = left_out_at_end(failures);
    dxt::hardware_report read_now = e.reports == nullptr ? check_reports() : dxt::hardware_report{};
    const dxt::hardware_report *reports = e.reports != nullptr ? e.reports : machine != nullptr ? &read_now : nullptr;
    dxt::verdict_record record = run_record(e.time, e.status, reason, e.cpu, failures, reports, left);
    std::vector<char> storage(dxt::line_capacity + dxt::verdict_room(record));
    dxt::text_buffer out{storage.data(), storage.size()};
    if (e.lead != nullptr)
        dxt::put_message_line(out, *e.lead, display.json);
    put_verdict(out, record);
    write_last(out, e.status, record);
}

[[noreturn]] void end_run(const dxt::message_fields &m)
{
    std::vector<dxt::failure_site> failures =
        m.number == MSG_WORKERS_FAILED ? failed_workers() : std::vector<dxt::failure_site>{own_failure(m.number)};
    // Workers that could not get their memory found nothing wrong.
    dxt::run_ending ending = dxt::ending_of(dxt::exit_status_of(m.number, m.exit_flag), failures);
    finish({m.time, ending.status, ending.reason, failures, m.main_thread ? -1 : m.cpu, &m});
}

// The watchdog found the run hung: every hung worker with the subtests it
// can be in; a fault another worker found still decides the status.
[[noreturn]] void end_hung(const std::vector<platform_thread> &threads, const dxt::hang_finding &found)
{
    std::vector<dxt::failure_site> failures = failed_workers(false);
    bool fault = !failures.empty();
    for (size_t i : found.threads) {
        dxt::failure_site site;
        site.cpu = processor_of(threads[i]);
        site.hung = true;
        site.subtests = subtests_of(progress_of(threads[i].tid), false, false, 0, true);
        failures.push_back(site);
    }
    // No worker is going: the main thread is what stalled.
    if (found.threads.empty()) {
        dxt::failure_site site;
        site.hung = true;
        site.stalled = threads.empty() ? "the main thread, before any worker started"
                                       : "the main thread, after every worker finished";
        failures.push_back(site);
    }
    int status = fault ? dxt::exit_fault_found : dxt::exit_hung;
    dxt::message_fields lead{now_seconds(), LVL_FATAL, -1, true, "dxttest", MSG_FREE_TEXT, DXT_FATAL, found.detail};
    finish({lead.time, status,
            fault || !found.threads.empty() ? dxt::verdict_reason(status) : "the main thread stopped making progress",
            failures, -1, &lead});
}

void show_message(int exit_flag, int level, const char *tag, int number, std::string_view text)
{
    dxt::message_fields m{now_seconds(), level, reporting_processor(), on_main_thread(), tag, number, exit_flag, text};
    if (exit_flag != 0)
        end_run(m);
    dxt::line_buffer line;
    dxt::put_message_line(line, m, display.json);
    std::lock_guard<std::mutex> hold(output_lock);
    if (ending.load())
        return;
    clear_progress();
    write_text(output_fd, line);
    draw_progress();
}

void show_usage(int (*usage)(void))
{
    if (usage != nullptr)
        usage();
    else
        dxt_message(DXT_RETURN, LVL_USAGE, nullptr, MSG_USAGE, name_of_test());
}

[[noreturn]] void refuse(const char *program, const std::string &what, int (*usage)(void))
{
    dxt::line_buffer text;
    dxt::put(text, program, ": ");
    dxt::put_visible(text, what);
    dxt::put(text, "\n");
    dxt::write_all(STDERR_FILENO, text.data, text.length);
    // The usage goes where the error went; the verdict (the record, with
    // --json) to standard output. Nothing was tested: it says only what was
    // wrong, and the -o text as given.
    int out_fd = output_fd;
    output_fd = STDERR_FILENO;
    show_usage(usage);
    output_fd = out_fd;
    finish({now_seconds(), dxt::exit_usage, what});
}

// --describe: what a run would test, and nothing tested.
[[noreturn]] void describe()
{
    dxt::machine_description m = dxt::describe_machine();
    std::vector<dxt::processor_entry> all = dxt::describe_processors(m);
    // A recording names its own host, or none.
    std::string_view sysroot = dxt_tlib_sysroot();
    std::string recorded_host = sysroot.empty() ? "" : read_first_line(std::string(sysroot) + "/proc/sys/kernel/hostname");
    dxt::machine_entry host = dxt::describe_host(now_seconds(), sysroot.empty() ? host_name : recorded_host);
    std::vector<char> storage(4096 + all.size() * 1536);
    dxt::text_buffer out{storage.data(), storage.size()};
    if (display.json) {
        dxt::put(out, "{\"schema_version\":", dxt::verdict_schema_version);
        dxt::put_identity_json(out, all, host);
        dxt::put(out, "}\n");
    } else {
        dxt::put_describe_text(out, all, host);
    }
    write_text(output_fd, out);
    end_process(dxt::exit_passed);
}

void show_version()
{
    dxt::line_buffer line;
    if (display.json) {
        dxt::put(line, "{\"test\":");
        dxt::put_json_string(line, name_of_test());
        dxt::put(line, ",\"version\":");
        dxt::put_json_string(line, dxt_test_version);
        dxt::put(line, ",\"build\":");
        dxt::put_json_string(line, TARNEL_BUILD);
        dxt::put(line, "}\n");
    } else {
        dxt::put(line, name_of_test(), " version ", dxt_test_version, ", build ", TARNEL_BUILD, "\n");
    }
    write_text(STDOUT_FILENO, line);
}

void show_debug(std::string_view text)
{
    if (display.debug)
        show_message(DXT_RETURN, LVL_DEBUG, "dxttest", MSG_FREE_TEXT, text);
}

// What the verdict needs of the machine, read once the run is sure to start.
void prepare_run()
{
    // From here on a read that never ends (a stuck file system) is the
    // watchdog's too.
    if (int error = dxt::start_watchdog(started.tv_sec * 1000LL + started.tv_nsec / 1000000, timeout_ms, end_hung))
        show_message(DXT_RETURN, LVL_STEP_ERROR, "dxttest", MSG_FREE_TEXT,
                     std::string("the watchdog could not be started (") + strerror(error) +
                         "): this run has no time limit");
    machine = new dxt::machine_description(dxt::describe_machine());
    processors = new std::vector<dxt::processor_entry>(dxt::describe_processors(*machine));
    host_identity = dxt::describe_host(now_seconds(), host_name);
    reports_before = ras::read_snapshot("", ras_database);
    conditions_before = dxt::read_conditions(machine->tested);
    // Where a source cannot be read, said once.
    for (const std::string &why : {reports_before.interrupts_why, reports_before.database_why})
        if (!why.empty())
            show_debug("hardware reports not read: " + why);

    dxt::failure_site one;
    dxt::line_buffer no_text;
    dxt::verdict_record largest = run_record(0, 0, no_text, 0, {&one, 1}, nullptr);
    size_t processors = std::min(machine->tested.size(), static_cast<size_t>(max_reported));
    largest.lost = {lost, processors};
    // Every tested processor's announcement, with the longest sources.
    std::vector<dxt::l2_geometry> every(processors);
    for (size_t i = 0; i < processors; i++)
        every[i] = {0, 0, 0, 0, "CPUID leaf 0x8000001D", "CPUID leaf 0x8000001D", "CPUID leaf 0x8000001D",
                    machine->shared_cpus[i]};
    largest.l2 = every;
    signal_capacity = dxt::line_capacity + dxt::verdict_room(largest);
    signal_storage = new char[signal_capacity];
    if (!metrics_target.path.empty()) {
        metrics_capacity = dxt::run_metrics_room(largest);
        metrics_storage = new char[metrics_capacity];
    }

    progress_on = dxt::progress_wanted(display);
    winsize size;
    if (progress_on && ioctl(output_fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        terminal_columns = size.ws_col;
}

sigset_t interrupt_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

// The thread that takes the interrupts; test_end stops and joins it, so a
// passing run leaves no thread behind.
pthread_t waiter;
bool waiter_running;
std::atomic<bool> waiter_stopping{false};

// An interrupt ignored when the process started (nohup, a script's
// background job) stays ignored: the run was meant to outlive it.
sigset_t ignored_at_start;

void note_ignored_interrupts()
{
    sigemptyset(&ignored_at_start);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction current;
        if (sigaction(sig, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) == 0 &&
            current.sa_handler == SIG_IGN)
            sigaddset(&ignored_at_start, sig);
    }
}

// The interrupts arrive here, on a thread of their own, so the verdict can
// read the corrected-error counters like any other.
void *wait_for_interrupts(void *)
{
    sigset_t set = interrupt_signals();
    int sig = 0;
    // Blocked, an ignored signal still arrives here (the kernel keeps a
    // blocked signal whatever its action): it is dropped.
    while (sigwait(&set, &sig) != 0 || (!waiter_stopping.load() && sigismember(&ignored_at_start, sig) == 1)) {
    }
    if (waiter_stopping.load())
        return nullptr;
    dxt::line_buffer reason;
    dxt::put_interrupted_by(reason, sig);
    finish({now_seconds(), dxt::exit_signal_base + sig, view(reason)});
}

void stop_waiter()
{
    if (!waiter_running)
        return;
    waiter_stopping.store(true);
    pthread_kill(waiter, SIGHUP);
    pthread_join(waiter, nullptr);
    waiter_running = false;
}


// Where the interrupt thread could not be started, and for a SIGBUS that
// another process sent.
void on_interrupt(int sig, siginfo_t *, void *)
{
    if (ending.exchange(true))
        return;  // the run is ending already
    dxt::line_buffer reason;
    dxt::put_interrupted_by(reason, sig);
    finish({now_seconds(), dxt::exit_signal_base + sig, view(reason), {}, -1, nullptr, true});
}

// Linux delivers an uncorrectable memory error that a thread consumed as
// SIGBUS to that thread: the processor it ran on and si_addr locate it. A
// SIGBUS another process sent (kill) is no memory error: it interrupts.
void on_bus_error(int sig, siginfo_t *info, void *context)
{
    if (info->si_code <= 0) {
        on_interrupt(sig, info, context);
        return;
    }
    if (ending.exchange(true))
        hang();  // returning would only fault again
    int cpu = sched_getcpu();
    dxt::line_buffer text;
    dxt::put(text, "hardware fault: ");
    dxt::put(text, info->si_code == BUS_MCEERR_AR || info->si_code == BUS_MCEERR_AO
                       ? "uncorrectable memory error"
                       : "bus error");
    dxt::put(text, " (SIGBUS) on cpu", cpu, " at address ");
    dxt::put_hex(text, reinterpret_cast<uintptr_t>(info->si_addr));

    dxt::failure_site site;
    site.cpu = cpu;
    bool main_thread = on_main_thread();
    site.subtests = subtests_of(own_progress, main_thread, false, 0);
    site.address_known = true;
    site.address = reinterpret_cast<uintptr_t>(info->si_addr);
    dxt::message_fields lead{now_seconds(), LVL_FATAL, cpu, main_thread, nullptr, MSG_FREE_TEXT, DXT_FATAL, view(text)};
    finish({lead.time, dxt::exit_fault_found, dxt::verdict_reason(dxt::exit_fault_found), {&site, 1}, cpu, &lead,
            true});
}

void install(int sig, void (*handler)(int, siginfo_t *, void *))
{
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO;
    sigfillset(&action.sa_mask);  // one handler at a time on a thread
    sigaction(sig, &action, nullptr);
}

void trace(const char *what)
{
    if (!display.debug)
        return;
    std::string text = std::string(what) + (func_name != nullptr ? func_name : "(unnamed routine)");
    show_message(DXT_RETURN, LVL_DEBUG, nullptr, MSG_FREE_TEXT, text);
}

// Every run of a burn-in with this run's form and sub-options.
[[noreturn]] void start_burn_in(const char *argv0, const dxt::command_line &line)
{
    dxt::burn_in_request request{line.burn_in_seconds, line.burn_in_runs, line.keep_going, display, {argv0},
                                 host_name, line.timeout_seconds, line.retests, line.subopts};
    for (auto [on, flag] : {std::pair{display.quiet, "-q"}, {display.debug, "-d"}, {display.json, "--json"}})
        if (on)
            request.run_args.push_back(flag);
    request.run_args.insert(request.run_args.end(), {"--timeout", std::to_string(line.timeout_seconds)});
    if (!line.ras_database.empty()) {
        request.ras_database = line.ras_database;
        request.run_args.insert(request.run_args.end(), {"--ras-db", line.ras_database});
    }
    if (line.subopts_given)
        request.run_args.insert(request.run_args.end(), {"-o", line.subopts});
    // A burn-in's metrics are its own; a single run's (retested after a
    // fault) are that run's, which the retests do not overwrite.
    if (!line.metrics.empty() && line.burn_in_seconds == 0 && line.burn_in_runs == 0)
        request.run_args.insert(request.run_args.end(), {"--metrics", line.metrics});
    else
        request.metrics = line.metrics;
    request.program = name_of_test();
    note_ignored_interrupts();
    dxt::burn_in(request);
}

// One message of the program: its progress and reports noted, then shown
// (and the run ended, for a message that ends it).
void take_message(int exit_flag, int level, const char *tag, int number, va_list args)
{
    note_progress(number);
    va_list reading;
    va_copy(reading, args);
    std::optional<dxt::l2_geometry> geometry = note_report(number, tag, reading);
    va_end(reading);
    if (exit_flag == 0 && !dxt::level_shown(display, level, number))
        return;
    char text[dxt::text_capacity];
    dxt::format_message_text(text, sizeof text, number, options_text, args);
    show_message(exit_flag, level, tag, number, text);
    if (geometry) {
        dxt::line_buffer line;
        dxt::put_geometry_text(line, *geometry);
        show_debug(view(line));
    }
}

// The harness itself ran out of memory (a limit on the address space): the
// run ends in the room set aside before it, as a signal handler's does.
[[noreturn]] void end_without_memory()
{
    if (ending.exchange(true))
        hang();
    finish({now_seconds(), dxt::exit_could_not_test, "the harness ran out of memory", {}, -1, nullptr, true});
}

// A run passes only when it tested what it was asked to: every usable
// processor, with at least one subtest, and every kernel of them.
void end_passing_run()
{
    long long elapsed = elapsed_ms();
    int lost_now = lost_count.load();
    dxt::line_buffer reason;
    if (lost_now > 0) {
        dxt::put(reason, "not every processor was tested: left out ");
        for (int i = 0; i < lost_now; i++) {
            dxt::put(reason, i > 0 ? ", cpu" : "cpu", lost[i].cpu, " (", lost[i].reason, ")");
        }
        std::vector<int> passed_cpus;
        for (int cpu : machine->tested)
            if (!dxt::was_lost(lost_so_far(), cpu))
                passed_cpus.push_back(cpu);
        dxt::put(reason, passed_cpus.empty()       ? "; no processor was tested"
                         : passed_cpus.size() == 1 ? "; tested and passed: cpu"
                                                   : "; tested and passed: cpus ");
        dxt::put_cpu_list(reason, passed_cpus);
        finish({now_seconds(), dxt::exit_could_not_test, view(reason)});
    }
    if (skipped_count.load() > 0)
        finish({now_seconds(), dxt::exit_could_not_test, dxt::no_memory_reason, skipped_so_far()});
    if ((test_mask & dxt::subtest_bits()) == 0) {
        dxt::put(reason, "test_mask ", test_mask, " selects no subtest: nothing was tested");
        finish({now_seconds(), dxt::exit_could_not_test, view(reason)});
    }
    // The hardware's own report of an uncorrected error on a tested
    // processor: it failed under test, whatever the subtests read back.
    dxt::hardware_report reports = check_reports();
    std::vector<dxt::failure_site> checks;
    for (const ras::machine_check *m : dxt::failed_under_test(reports, machine->tested)) {
        dxt::failure_site site;
        site.cpu = m->cpu;
        site.machine_check = m->text.c_str();
        checks.push_back(site);
    }
    if (!checks.empty())
        finish({now_seconds(), dxt::exit_fault_found, "the hardware reported an uncorrected machine check", checks, -1,
                nullptr, false, &reports});
    dxt::put_pass_text(reason, name_of_test(), *machine, elapsed);
    dxt::verdict_record record = run_record(now_seconds(), dxt::exit_passed, reason, -1, {}, &reports);
    std::vector<char> storage(dxt::verdict_room(record));
    dxt::text_buffer out{storage.data(), storage.size()};
    put_verdict(out, record);
    int metrics_error = 0;
    {
        std::lock_guard<std::mutex> hold(output_lock);
        if (ending.load())
            return;
        // A pass that cannot reach the monitoring is no pass, nor one whose
        // output was lost: the metrics carry the status the process ends with.
        dxt::verdict_record measured = record;
        measured.exit_status = output_lost.load() ? dxt::exit_could_not_test : dxt::exit_passed;
        metrics_error = write_metrics(measured, false);
        if (metrics_error == 0) {
            clear_progress();
            write_text(output_fd, out);
            passed = true;
            if (output_lost.load() && measured.exit_status == dxt::exit_passed) {
                measured.exit_status = dxt::exit_could_not_test;
                metrics_written = false;
                write_metrics(measured, false);
            }
        }
    }
    if (metrics_error != 0) {
        dxt::line_buffer lost_metrics;
        dxt::put(lost_metrics, "every processor passed, but ");
        dxt::put_metrics_lost(lost_metrics, metrics_target.path, metrics_error);
        finish({now_seconds(), dxt::exit_could_not_test, view(lost_metrics), {}, -1, nullptr, false, &reports});
    }
    dxt::stop_watchdog();
    stop_waiter();
    if (output_lost.load())
        end_process(dxt::exit_could_not_test);
}

}  // namespace

namespace dxt {

void note_failed_allocation()
{
    // Only a worker's allocations are the test's; a subtest that gives up
    // on its memory ends its worker with status 12, which the join shows,
    // so only a kernel skipped in silence is kept here.
    int cpu = platform_bound_processor();
    if (cpu < 0 || on_main_thread())
        return;
    dxt::failure_site site;
    site.cpu = cpu;
    site.no_memory = true;
    dxt::subtest_set may_be_in = subtests_of(own_progress, false, false, 0, true);
    for (int i = 0; i < may_be_in.count; i++)
        if (subtests()[static_cast<size_t>(may_be_in.index[i])].skips_without_memory)
            site.subtests.index[site.subtests.count++] = may_be_in.index[i];
    if (site.subtests.count == 0)
        return;
    std::lock_guard<std::mutex> hold(report_lock);
    int n = skipped_count.load();
    for (int i = 0; i < n; i++)
        if (skipped[i].cpu == cpu && skipped[i].subtests.index[0] == site.subtests.index[0])
            return;
    if (n < max_reported) {
        skipped[n] = site;
        skipped_count.store(n + 1);
    }
}

void write_output(const text_buffer &text) { write_text(STDOUT_FILENO, text); }

void end_with(int status) { end_process(status); }

bool progress_wanted(display_mode mode)
{
    // A dumb terminal cannot move back to the start of a line.
    const char *term = getenv("TERM");
    return mode.quiet && !mode.json && isatty(STDOUT_FILENO) == 1 && !(term != nullptr && strcmp(term, "dumb") == 0);
}

bool interrupt_ignored(int sig) { return sigismember(&ignored_at_start, sig) == 1; }

void put_interrupted_by(text_buffer &text, int sig)
{
    // A table lookup, safe in a signal handler.
    if (const char *name = sigabbrev_np(sig))
        put(text, "interrupted by SIG", name);
    else
        put(text, "interrupted by signal ", sig);
}

}  // namespace dxt

extern "C" {

int test_init(int argc, char **argv, int (*parser)(char *), int (*usage)(void), const char *options)
{
    clock_gettime(CLOCK_MONOTONIC, &started);
    if (gethostname(host_name, sizeof host_name - 1) != 0)
        host_name[0] = '\0';
    options_text = options != nullptr ? options : "";
    const char *program = test_name;
    if (program == nullptr) {
        program = argc > 0 && argv[0] != nullptr ? argv[0] : "test";
        if (const char *slash = strrchr(program, '/'))
            program = slash + 1;
    }

    // A closed standard output would be taken over by the next file opened;
    // /dev/null keeps its place, and the run knows its output is lost.
    if (fcntl(STDOUT_FILENO, F_GETFD) == -1 && errno == EBADF) {
        int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (fd >= 0 && fd != STDOUT_FILENO) {
            dup2(fd, STDOUT_FILENO);
            close(fd);
        }
        note_lost_output(EBADF);
    }

    dxt::command_line line = dxt::parse_command_line(argc, argv);
    display = line.display;
    if (!line.sysroot.empty())
        dxt_tlib_use_sysroot(line.sysroot.c_str());
    given_options = line.subopts;
    if (!line.ras_database.empty())
        ras_database = line.ras_database;
    if (!line.metrics.empty())
        metrics_target = dxt::metrics_file_at(line.metrics);
    timeout_ms = line.timeout_seconds * 1000;
    switch (line.action) {
    case dxt::command_action::error:
        refuse(program, line.error, usage);
    case dxt::command_action::help:
        show_usage(usage);
        end_process(dxt::exit_passed);
    case dxt::command_action::version:
        show_version();
        end_process(dxt::exit_passed);
    case dxt::command_action::run:
        break;
    }

    if (!line.sysroot.empty())
        if (std::string problem = dxt::recorded_machine_problem(line.sysroot); !problem.empty())
            refuse(program, problem, usage);
    if (line.describe)
        describe();
    if (std::string oversized = dxt::oversized_mask(line.subopts); !oversized.empty())
        refuse(program, oversized, usage);
    if (parser != nullptr) {
        subopts = line.subopts;
        if (parser(subopts.data()) == 0)
            refuse(program,
                   "the sub-options \"" + line.subopts + "\" were not all accepted" +
                       dxt::silently_refused(line.subopts),
                   usage);
    }
    // node_exporter's textfile collector reads *.prom alone; a burn-in's
    // runs leave it to the burn-in.
    if (!line.metrics.empty() && !line.metrics.ends_with(".prom") && line.failures_fd == 0) {
        dxt::line_buffer note;
        dxt::put(note, program, ": warning: node_exporter's textfile collector reads only files ending in .prom, and ");
        dxt::put_visible(note, line.metrics);
        dxt::put(note, " does not\n");
        dxt::write_all(STDERR_FILENO, note.data, note.length);
    }
    // A burn-in, and a run whose fault is to be retested, watch their runs
    // from a process of their own.
    if (line.burn_in_seconds > 0 || line.burn_in_runs > 0 || line.retests > 0)
        start_burn_in(argc > 0 ? argv[0] : program, line);
    struct stat failures_pipe;
    if (line.failures_fd > 0 && fstat(line.failures_fd, &failures_pipe) == 0 && S_ISFIFO(failures_pipe.st_mode))
        failures_fd = line.failures_fd;
    // An interrupt while the machine is read ends the run with its record,
    // as one later does (the waiting thread takes them over once the
    // program asks for it).
    note_ignored_interrupts();
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        if (!dxt::interrupt_ignored(sig))
            install(sig, on_interrupt);
    prepare_run();
    return 0;
}

void dxt_test_async_handler(int)
{
    // Blocked here, before the workers exist, so that every thread
    // inherits the mask and only the waiting thread takes them (those
    // ignored at start were noted by test_init).
    sigset_t set = interrupt_signals();
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0 &&
        pthread_create(&waiter, nullptr, wait_for_interrupts, nullptr) == 0) {
        waiter_running = true;
    } else {
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        for (int sig : {SIGINT, SIGTERM, SIGHUP})
            if (sigismember(&ignored_at_start, sig) != 1)
                install(sig, on_interrupt);
    }
    install(SIGBUS, on_bus_error);
}

void trace_before(int) { trace("entering "); }

void trace_after(int) { trace("leaving "); }

int dxt_message(int exit_flag, int level, const char *tag, int number, ...)
{
    va_list args;
    va_start(args, number);
    try {
        take_message(exit_flag, level, tag, number, args);
    } catch (const std::bad_alloc &) {
        end_without_memory();
    }
    va_end(args);
    return 0;
}

int test_end(void)
{
    try {
        end_passing_run();
    } catch (const std::bad_alloc &) {
        end_without_memory();
    }
    return 0;
}

}  // extern "C"
