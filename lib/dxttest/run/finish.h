// The one way a run ends, whatever ends it: a pass, a fault, a run that
// could not test, a hang, an interrupt, lost output, a bus error, a message
// that ends the process, a refused command line. It builds the verdict, the
// text summary or the record, and the metrics, writes them as the run's
// last output and gives the exit status. A signal handler's ending goes the
// same way, over the room set aside before the run.
#ifndef TARNEL_DXTTEST_FINISH_H
#define TARNEL_DXTTEST_FINISH_H

#include <span>
#include <string_view>
#include <vector>

#include "run_state.h"

namespace dxt {

// How a run ends: its time and exit status, the verdict's sentence, where
// it failed, the line that ended it (none for an interrupt or a refused
// command line). In a signal handler, which cannot lock, allocate or read
// the counters, the ending leaves out the counters and the processors cut
// short.
struct run_end {
    long long time;
    int status;
    std::string_view reason;
    std::span<const failure_site> failures = {};
    int cpu = -1;  // the worker that ended the run; -1: the main thread
    const message_fields *lead = nullptr;
    bool in_handler = false;
    const hardware_report *reports = nullptr;  // read already; nullptr: read them now
};

// Ends the process, except after a pass, which it writes and returns from
// (the program then returns from main); a pass whose metrics cannot be
// written ends as could-not-test instead.
void finish(run_state &run, const run_end &e);
[[noreturn]] void finish_failing(run_state &run, const run_end &e);

// A message of the program that ends the run, from whichever thread.
[[noreturn]] void end_run(run_state &run, const message_fields &m);
// The watchdog's finding: every hung worker with the subtests it can be in.
[[noreturn]] void end_hung(const std::vector<platform_thread> &threads, const hang_finding &found);
// The run reached its end: a pass only when it tested what it was asked to.
void end_passing_run(run_state &run);
// The harness itself ran out of memory.
[[noreturn]] void end_without_memory(run_state &run);

// The room an ending that cannot allocate needs, set aside before the run.
void reserve_ending_room(run_state &run);

}  // namespace dxt

#endif
