// The verdict of a run as the harness assembles it: what the machine
// offered (the processors tested and left out, each one's L2 geometry with
// its source), where the run failed (processor and subtest), what the
// machine's own error reporting saw, and the JSON record or the text block
// that says all of it at the end. Pure pieces, open to the unit tests; the
// assembly is async-signal-safe so that a signal handler can use it.
#ifndef TARNEL_DXTTEST_VERDICT_H
#define TARNEL_DXTTEST_VERDICT_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dxttest_internal.h"
#include "dxtsysinfo_ext.h"
#include "reports.h"

namespace dxt {

// The record's layout; raised when a key changes meaning or goes away.
constexpr int verdict_schema_version = 3;

// One tested processor's L2 as its worker takes it, with where each value
// came from ("sysfs", "CPUID leaf 4", ..., "sysconf", "defaults").
struct l2_geometry {
    int cpu;
    uint32_t size;
    uint32_t line;
    uint32_t ways;
    const char *size_source;
    const char *line_source;
    const char *ways_source;
    const char *shared_cpus;  // the processors sharing it, "0-1", or "unknown"
};

// The geometry a worker announced (its cache size and line size), with
// where it came from: the first of its processor's descriptors 4 and 2 that
// holds that size, whose ways it took; the defaults when neither does.
l2_geometry announced_l2(int cpu, uint32_t size, uint32_t line, const char *shared_cpus);

// Why a processor was left out: before the run, "offline" or "not-allowed"
// (outside the process's CPU set); during it, "thread-not-created" (its
// worker, entry `entry` of the worker table, was never created) or
// "not-bound" (its worker could not be bound to it, so it ran wherever the
// scheduler put it); at an early end, "cut-short" (its worker had not
// finished when a fault, a hang or an interrupt ended the run).
struct left_out_processor {
    int cpu;
    const char *reason;
    int entry = -1;
};

struct machine_description {
    std::vector<int> tested;  // ascending
    std::vector<left_out_processor> left_out;
    std::vector<const char *> shared_cpus;  // per tested processor, who shares its L2
};

// One processor as the record and --describe name it: the physical part,
// its L2 as its worker takes it (or would), and why it is left out.
struct processor_entry {
    int cpu;
    bool known;  // the machine describes it
    dxt_processor_identity id;
    l2_geometry l2;
    const char *reason;  // nullptr: tested
};
struct machine_entry {
    dxt_machine_identity id;
    long long start_time;  // seconds since the epoch
    std::string_view host;
};
// Every processor of the description, in ascending order.
std::vector<processor_entry> describe_processors(const machine_description &m);
machine_entry describe_host(long long start_time, std::string_view host);
// ,"processors":[...],"machine":{...}
void put_identity_json(text_buffer &out, std::span<const processor_entry> processors, const machine_entry &machine);
// What --describe prints: a line of identity and one of L2 per processor,
// one per processor left out, and the machine's.
void put_describe_text(text_buffer &out, std::span<const processor_entry> processors, const machine_entry &machine);
// " (package 0, core 3, SMT sibling cpu37, PPIN 0x1c2e)" for a failure line.
void put_part(text_buffer &out, std::span<const processor_entry> processors, int cpu);

// The subtests, by index into subtests(), one of which was running.
struct subtest_set {
    int count = 0;
    int index[16] = {};
};

// Which subtest ended a worker: the one it started last when that one has
// an end message it did not reach; otherwise one of the selected subtests
// after it (from the first when it started none) that announce no start,
// since a subtest with a start message announces it before it can fail.
// A known status keeps those that can end a worker with it, unless that
// keeps none. A worker still running (hung) may also be in the subtest it
// started last when that one says no end.
subtest_set possible_subtests(int32_t mask, int last_started, bool last_ended, bool status_known, intptr_t status,
                              bool running = false);

// Where a run failed.
struct failure_site {
    int cpu = -1;               // -1: unknown
    int message = 0;            // the number that ended the run; 0 for a signal
    bool status_known = false;  // a worker's exit status (8011)
    intptr_t status = 0;
    subtest_set subtests;
    bool address_known = false;  // where a memory error was consumed (SIGBUS)
    uintptr_t address = 0;
    bool hung = false;  // the watchdog found the worker making no progress
    const char *machine_check = nullptr;  // an uncorrected machine check's text, recorded meanwhile
    // Not a fault: the subtest could not get its memory (a worker's status
    // 12, message 4001 or 4002, or a kernel skipped for it), so it did not
    // test what it was meant to.
    bool no_memory = false;
    const char *stalled = nullptr;  // what hung when no worker did: "the main thread, ..."
};

// Whether a site is a fault of the hardware (a miscompare, a hang, a
// machine check) rather than work that could not be done.
inline bool is_fault(const failure_site &f) { return !f.no_memory; }

// Whether a message that ends the run (4001, 4002), or a worker's exit
// status (12), says a subtest could not get its memory.
bool lacks_memory(int number);
bool lacks_memory_status(intptr_t status);

// How a run ends that a message with exit status `status` ends with these
// failures: could-not-test, for want of memory, when none is a fault;
// else as the message says.
struct run_ending {
    int status;
    const char *reason;
};
run_ending ending_of(int status, std::span<const failure_site> failures);
// The words of a run that could not get the memory it needed.
extern const char no_memory_reason[];

// Whether the run meant to test the processor but did not.
bool was_lost(std::span<const left_out_processor> lost, int cpu);

// Whether failures[i] names a processor that no earlier failure of its kind
// (fault, or lack of memory) names.
bool names_new_cpu(std::span<const failure_site> failures, size_t i);

struct verdict_record {
    long long time;
    int exit_status;
    long long elapsed_ms;
    std::string_view text;
    int cpu;                                // the processor of the worker that ended the run; -1: main
    const machine_description *machine;     // nullptr: nothing was tested (usage)
    std::span<const failure_site> failures;
    const hardware_report *reports;         // nullptr: not read (a usage error, a signal handler)
    std::string_view host = {};             // the machine's name; empty: unknown
    std::span<const left_out_processor> lost = {};  // meant to be tested, but were not
    std::string_view options = {};          // the -o text as given
    std::string_view version = {};          // the test's version text
    std::string_view build = {};            // which build ran: 1.0+g2b46e25
    std::span<const l2_geometry> l2 = {};   // what each worker announced
    std::span<const processor_entry> processors = {};
    const machine_entry *host_identity = nullptr;  // nullptr: not described (a usage error)
};

// Bytes enough for either form of the record.
size_t verdict_room(const verdict_record &record);
// The JSON record: one line.
void put_verdict_record(text_buffer &out, const verdict_record &record);
// The text block: SUMMARY lines (with quiet, only failures and warnings),
// then the VERDICT line.
void put_verdict_block(text_buffer &out, const verdict_record &record, bool quiet);

// What this machine offers a run, from the platform (present, online and
// allowed processors) and the information library (the sharers of each
// tested processor's L2).
machine_description describe_machine();
// Why a recorded machine (--sysroot DIR) cannot be described: no such
// directory, no processor directory, or processor lists that are missing
// or do not parse; "" when it can.
std::string recorded_machine_problem(const std::string &root);

// A pass in words, with what it covered: "tarneltest passed on 1 of 2
// processors in 2.0 s; left out: cpu0 (outside the allowed CPU set)".
void put_pass_text(text_buffer &out, std::string_view test, const machine_description &m, long long elapsed_ms);

// One failure for a burn-in's parent: "<cpu>\t<subtest>\n" (-1 and "" when
// not known).
void put_failure_brief(text_buffer &out, const failure_site &f);

// The debug line of one processor's geometry, every value with its source.
void put_geometry_text(text_buffer &out, const l2_geometry &g);

// The live progress line (no newline): the subtest and how many of the
// tested processors started and finished it, within 80 columns.
void put_progress_text(text_buffer &out, int subtest, int started, int finished, int processors);

// ---- A burn-in: many runs, one verdict ----
struct failed_run {
    long long run;
    int cpu;              // -1: not known
    std::string subtest;  // "": not known
};
// A run that ended without saying so itself: killed by a signal nobody here
// sent, or ended from outside as hung.
struct unfinished_run {
    long long run;
    int status;
    std::string how;
};
// The retests of one failing subtest on one processor.
struct retest_result {
    int cpu;
    int failing_cpu;      // the processor whose failure it retests (cpu, or one sharing its L2)
    std::string subtest;  // "": every subtest the run selected
    int runs = 0, failed = 0, passed = 0;  // the rest could not test
};
// "cpu5 Cache Hit Stress failed 4 of 5; cpu37 (shares its L2) passed 5 of 5"
void put_retest_text(text_buffer &out, std::span<const retest_result> results);
// ,"retests":[...]
void put_retests_json(text_buffer &out, std::span<const retest_result> results);

struct burn_in_record {
    long long time;
    int exit_status;
    long long elapsed_ms;
    std::string_view text;  // the verdict's sentence
    long long runs;
    long long runs_passed;
    long long runs_failed;  // runs that found a fault
    std::span<const failed_run> failed_runs;
    const hardware_report *reports;  // before the first run and after the last
    std::string_view host;
    std::span<const unfinished_run> unfinished = {};
    std::span<const retest_result> retests = {};
    std::span<const std::pair<int, long long>> runs_by_status = {};  // how many runs ended with each exit status
    // What a single run's record says of what ran where, so that the
    // burn-in's record stands alone.
    std::string_view options = {};
    std::string_view version = {};
    std::string_view build = {};
    std::span<const processor_entry> processors = {};
    const machine_entry *host_identity = nullptr;
};
size_t burn_in_room(const burn_in_record &record);
void put_burn_in_record(text_buffer &out, const burn_in_record &record);
// The summary lines, then the verdict line.
void put_burn_in_block(text_buffer &out, const burn_in_record &record);

}  // namespace dxt

#endif
