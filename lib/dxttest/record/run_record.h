// What closes a run or a burn-in, as plain records that the JSON record,
// the text summary and the metrics each say in their own form: where a run
// failed (processor and subtest), what it tested and left out, and what the
// machine's own error reporting saw; and the few judgments every form
// shares.
#ifndef TARNEL_DXTTEST_RUN_RECORD_H
#define TARNEL_DXTTEST_RUN_RECORD_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "localise.h"
#include "machine.h"
#include "reports.h"
#include "sensors.h"
#include "subtests.h"

namespace dxt {

// The record's layout; raised when a key changes meaning or goes away.
constexpr int verdict_schema_version = 6;

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
    const loc::finding *localised = nullptr;  // the sweep of its processor after the fault; nullptr: none
};

// Whether a site is a fault of the hardware (a miscompare, a hang, a
// machine check) rather than work that could not be done.
inline bool is_fault(const failure_site &f) { return !f.no_memory; }

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
    long long seed = -1;  // of the test's draws; -1: not known
    const sensors::sensor_report *sensors = nullptr;  // nullptr: not read (a usage error, a signal handler)
};

// Every processor left out, before the run and during it, with its reason.
template <typename F>
void each_left_out(const verdict_record &r, F visit)
{
    for (const left_out_processor &p : r.machine->left_out)
        visit(p);
    for (const left_out_processor &p : r.lost)
        visit(p);
}

// What the record and the summary warn of: a processor offline, and what
// the machine's own reporting saw on the processors the run tested.
std::vector<std::string> warnings_of(const verdict_record &r);

// ---- A burn-in: many runs, one verdict ----
struct failed_run {
    long long run;
    int cpu;              // -1: not known
    std::string subtest;  // "": not known
    std::string localisation = {};  // what the run's sweep of that processor said; "": none
    std::string l2 = {};  // one L2 at a time: the processors of the L2 whose turn it was; "": all
};

// One L2 at a time: one L2's turn, a run of its own.
struct l2_turn {
    long long run;
    std::string cpus;    // the processors sharing the L2, as a list ("0-1")
    long long start;     // seconds since the epoch
    long long elapsed_ms;
    int status;          // the run's exit status
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
    std::string localisation = {};  // what the sweep of the first failing retest said; "": none
};
// How a fault repeated on its processor, over the runs and the retests: the
// classification a fleet acts on.
struct reproduction {
    int cpu;
    long long failed, runs;  // the runs and the retests on this processor alone
    std::vector<const retest_result *> sharers;  // the retests on the processors sharing its L2
    std::vector<std::string> localisation;       // what each sweep of it said, the run's first
    const char *verdict;  // "reproduced on this processor alone", "reproduced across its L2", "not reproduced"
};
// One for each processor the failed runs name, in their order.
// One L2 at a time, a processor ran only in its L2's turns.
std::vector<reproduction> reproducibility_of(std::span<const failed_run> failed, long long runs,
                                             std::span<const retest_result> retests,
                                             std::span<const l2_turn> turns = {});

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
    std::span<const reproduction> reproducibility = {};
    std::span<const long long> seeds = {};  // each run's, in order
    // One L2 at a time: every L2's processors, and each turn taken.
    std::span<const std::string> l2_domains = {};
    std::span<const l2_turn> l2_turns = {};
    bool burn_in = true;  // false: a single cycle one L2 at a time, with no burn-in limit
};

// Its warnings, of every processor its runs reported on.
std::vector<std::string> burn_in_warnings(const burn_in_record &r);

}  // namespace dxt

#endif
