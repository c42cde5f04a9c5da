// What the workers did, as their messages and the platform's thread table
// tell it: which subtest each was in, the processors the run meant to test
// but lost (a worker never created or never bound), the geometry each bound
// worker announced, the kernels skipped for want of memory, and from all of
// it where a failing or hung worker failed. Kept lock free for reading, so
// that a signal handler can read it; written under its own lock.
#ifndef TARNEL_DXTTEST_WORKERS_H
#define TARNEL_DXTTEST_WORKERS_H

#include <atomic>
#include <cstdarg>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "machine.h"
#include "platform_ext.h"
#include "run_record.h"

namespace dxt {

constexpr int max_reported = 4096;  // processors a run can say something of
constexpr int max_workers = 4096;
constexpr int max_subtests = 16;

// The subtest a worker thread announced last, found by its kernel id; a
// thread claims its entry with its first start message.
struct worker_progress {
    std::atomic<int> tid{0};
    std::atomic<int> last_started{-1};  // index into subtests()
    std::atomic<bool> ended{false};     // its end message came
};

struct worker_log {
    const machine_description *machine = nullptr;  // what the run tests; nullptr: not read yet
    std::mutex lock;
    left_out_processor lost[max_reported];
    std::atomic<int> lost_count{0};
    l2_geometry announced[max_reported];  // in the order the workers announced
    std::atomic<int> announced_count{0};
    failure_site skipped[max_reported];
    std::atomic<int> skipped_count{0};
    worker_progress workers[max_workers];
    std::atomic<int> workers_claimed{0};
    // Per subtest, on how many processors it started and finished, and the
    // subtest announced last: what the progress line shows.
    std::atomic<int> started_on[max_subtests];
    std::atomic<int> finished_on[max_subtests];
    std::atomic<int> current_subtest{-1};
    std::atomic<int> lock_failures{0};  // buffers the test could not lock, as its debug texts say
};

// A start or end message of the calling thread; whether it was one.
bool note_progress(worker_log &log, int number);
// What a report says of a processor; the geometry it announced, if it is
// the announcement.
std::optional<l2_geometry> note_report(worker_log &log, int number, const char *tag, va_list args);
// A kernel of the calling worker skipped because its memory could not be had.
void note_failed_allocation(worker_log &log);

std::span<const left_out_processor> lost_so_far(const worker_log &log);
std::span<const failure_site> skipped_so_far(const worker_log &log);
std::span<const l2_geometry> announced_so_far(const worker_log &log);
// The same in processor order, copied into room: no allocation, for a
// signal handler's ending too.
std::span<const l2_geometry> announced_in_order(const worker_log &log, std::span<l2_geometry> room);

bool on_main_thread();
// Where a message's line says it comes from: the main thread, a worker's
// processor, or where any other thread runs.
int reporting_processor();
// Every thread the platform started for the program, in creation order,
// and the processor each tests (-1: not a worker).
std::vector<platform_thread> all_threads();
int processor_of(const platform_thread &t);

// Where the calling thread failed with this message: its processor and
// subtest.
failure_site own_failure(int number);
// The same, for the calling thread stopped by a memory error at address.
failure_site own_bus_error(int cpu, uintptr_t address);
// The workers the platform saw end with a non-zero status, each with its
// processor and subtest; one of unknown place when none did and
// none_is_unknown.
std::vector<failure_site> failed_workers(const worker_log &log, bool none_is_unknown = true);
// A hung worker, with the subtests it can be in.
failure_site hung_worker(const worker_log &log, const platform_thread &t);
// The processors lost so far and those whose workers had not finished (or
// not started) when the run ended early; the failing ones are where a fault
// was found.
std::vector<left_out_processor> left_out_at_end(const worker_log &log, std::span<const failure_site> failures);

}  // namespace dxt

#endif
