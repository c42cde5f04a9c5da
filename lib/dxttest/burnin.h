// Burn-in: the whole test run again and again, each run a process of its
// own (the same binary and command line without the burn-in options), until
// a number of runs or a time is reached. The parent marks each run's lines
// with the run's number, passes them through, and ends with a summary, a
// verdict and an exit status for the whole burn-in.
#ifndef TARNEL_DXTTEST_BURNIN_H
#define TARNEL_DXTTEST_BURNIN_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "dxttest_internal.h"
#include "hardware_reports.h"
#include "verdict.h"

namespace dxt {

struct burn_in_request {
    long long seconds = 0;  // no run starts after this; 0: no time limit
    long long runs = 0;     // 0: no run limit
    bool keep_going = false;
    display_mode display;
    std::vector<std::string> run_args;  // argv of one run
    std::string_view host;
    long long run_timeout_seconds = default_timeout_seconds;  // each run's own watchdog limit
    int retests = 0;        // after a run that found a fault, the failing subtest this often
    std::string subopts;    // the runs' -o text, for the retests
    std::string ras_database = ras::default_database;  // read before the first run and after the last
    std::string metrics = {};  // where the burn-in's result goes for Prometheus; "": nowhere
    const char *program = "";  // for what is said on standard error
};
[[noreturn]] void burn_in(const burn_in_request &request);

// How a supervised run ended: its exit status (hung, 4, when it had to be
// ended from outside; could-not-test, 3, when something else killed it),
// the failures it named, why it ended when it could not say so itself, and
// the verdict a single run with retests holds back for them.
struct run_outcome {
    int status;
    std::string failures;  // "<cpu>\t<subtest>\n" each
    std::string how;       // "was killed by SIGKILL (...)", "hung: ..."; "" when it ended by itself
    std::string held_verdict = {};
};
// One run of args as a process of its own, bound to cpu (unless -1), its
// output dropped, its time limited as every run of a burn-in is.
run_outcome supervised_run(const burn_in_request &request, const std::vector<std::string> &args, int cpu);
// An interrupt asked the burn-in to stop.
bool burn_in_stopping();

// Retests (retest.cpp): for each failure of a run, its subtest `retests`
// times on the failing processor alone and on each processor sharing its
// L2, alone.
void run_retests(const burn_in_request &request, std::span<const failed_run> failures,
                 std::vector<retest_result> &results);
// A single run's held verdict, with the retests' summary lines before it
// (text) or their "retests" in it (JSON).
void write_retests(const burn_in_request &request, std::span<const retest_result> results, std::string held);

// From the single run's harness, shared with the burn-in.
void write_output(const text_buffer &text);           // standard output; a loss is noted once
[[noreturn]] void end_with(int status);               // a pass whose output was lost becomes 3
bool progress_wanted(display_mode display);           // -q, text, on a terminal that can redraw a line
bool interrupt_ignored(int sig);                      // ignored when the process started
void put_interrupted_by(text_buffer &text, int sig);  // "interrupted by SIGTERM"

}  // namespace dxt

#endif
