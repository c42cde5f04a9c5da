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

#include <signal.h>

#include "command_line.h"
#include "progress_line.h"
#include "hardware_reports.h"
#include "run_record.h"
#include "text.h"

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
    sigset_t ignored{};        // interrupts ignored when the process started, which stay so
    long long localise_seconds = default_localise_seconds;  // each run's sweep after a fault
    long long seed = default_seed;  // the first run's (one L2 at a time: the first cycle's); later ones fresh
    bool one_l2_at_a_time = false;  // each run one L2's turn, cycling through them
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

// The burn-in's own progress line: its run, and what is left of it.
struct burn_in_progress {
    progress_line line;
    long long run, runs, deadline_ms;  // runs, deadline_ms: 0 when not limited
    const char *what = "burn-in";      // "one L2 at a time" for a single cycle

    void clear();
    void draw();
};

// One run of args as a process of its own, bound to cpus (unless none), its
// time limited as every run of a burn-in is; with pass_output its lines go
// through, numbered (unless number is 0), else nowhere.
run_outcome supervised_run(const burn_in_request &request, const std::vector<std::string> &args,
                           const std::vector<int> &cpus,
                           long long number = 0, bool pass_output = false, burn_in_progress *progress = nullptr);
// The failures a run told its supervisor, one "<cpu>\t<subtest>\t<localisation>"
// line each.
std::vector<failed_run> runs_failures(const std::string &failures, long long run);
// From here on an interrupt of the burn-in ends the run in progress as a
// single run would, and no other starts.
void stop_runs_on_interrupts(const burn_in_request &request);
// The interrupt that asked the burn-in to stop; 0: none.
int burn_in_stop_signal();
inline bool burn_in_stopping() { return burn_in_stop_signal() != 0; }

// Retests (retest.cpp): for each failure of a run, its subtest `retests`
// times on the failing processor alone and on each processor sharing its
// L2, alone.
// Each retest draws as the failing run did (`seed`).
void run_retests(const burn_in_request &request, std::span<const failed_run> failures, long long seed,
                 std::vector<retest_result> &results);
// A single run's held verdict, with the retests' summary lines before it
// (text) or their "retests" in it (JSON).
void write_retests(const burn_in_request &request, std::span<const failed_run> failures,
                   std::span<const retest_result> results, std::string held);

}  // namespace dxt

#endif
