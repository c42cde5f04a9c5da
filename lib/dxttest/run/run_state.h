// A run's state: one record, made once from the command line and filled
// from the machine before the workers start, then passed by reference to
// everything that follows the run and ends it. What was asked, the machine,
// what its reports said before the run, what the workers did, the output,
// the progress line, the interrupts, and the room set aside for an ending
// that cannot allocate.
#ifndef TARNEL_DXTTEST_RUN_STATE_H
#define TARNEL_DXTTEST_RUN_STATE_H

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <string>
#include <vector>

#include "command_line.h"
#include "conditions.h"
#include "machine.h"
#include "metrics.h"
#include "output.h"
#include "progress_line.h"
#include "reports.h"
#include "sensor_watch.h"
#include "watchdog.h"
#include "workers.h"

namespace dxt {

// The thread that takes the interrupts, and those ignored when the process
// started (nohup, a script's background job), which stay ignored: the run
// was meant to outlive them.
struct interrupts {
    sigset_t ignored_at_start;
    pthread_t waiter;
    bool waiter_running = false;
    std::atomic<bool> waiter_stopping{false};
};

struct run_state {
    // What was asked.
    const char *program = "the test";  // its name, for what is said on standard error
    display_mode display;
    const char *options_text = "";  // the test's own, for the usage
    std::string subopts;            // the parser's copy of the -o text; it may keep pointers into it
    std::string given_options;      // the -o text as given, for the verdict
    long long started_ms = 0;       // CLOCK_MONOTONIC
    long long timeout_ms = default_timeout_seconds * 1000;  // the watchdog's limit
    long long localise_ms = default_localise_seconds * 1000;  // each failing processor's sweep; 0: none
    long long seed = default_seed;  // of the test's draws
    int failures_fd = -1;  // a burn-in's run: where its failures also go; -1: not one
    std::string ras_database = ras::default_database;
    metrics_file metrics_target;  // --metrics; "": nowhere
    std::string sensors_root;     // --sensors-from; "": this machine

    // The machine, read once the run is sure to start, and what its own
    // reporting said before the run. The machine the run tests is the
    // workers' (workers.machine).
    char host_name[256] = "";  // read once, since a signal handler cannot ask
    std::vector<processor_entry> processors;
    machine_entry host_identity{};
    ras::snapshot reports_before;
    conditions conditions_before;

    worker_log workers;
    run_output output;
    progress_line progress;
    interrupts signals;
    watchdog watch;
    sensor_watch readings;  // the clock and the temperatures

    // Room for an ending that cannot allocate (a signal handler's, or the
    // harness out of memory), reckoned before the run for the largest
    // record it can end with. The metrics are written once: an ending after
    // a failed write would find the same file.
    char *ending_storage = nullptr;
    size_t ending_capacity = 0;
    l2_geometry ending_l2[max_reported];  // the announcements, ordered
    char *metrics_storage = nullptr;
    size_t metrics_capacity = 0;
    std::atomic<bool> metrics_written{false};
    std::atomic<bool> localised{false};  // the sweep after a fault ran, or runs: once per run
};

// The run of this process, for those that cannot be handed it: the signal
// handlers, the watchdog's thread, the allocation hook and the C interface.
// Never freed, since workers may still run while the process ends.
extern run_state *current_run;

// The state of a run as the command line asks it.
run_state &new_run(const command_line &line, const char *program, const char *options_text);
// What the verdict needs of the machine and its reports, before the run.
void read_machine(run_state &run);
// Milliseconds since the run started.
long long run_elapsed_ms(const run_state &run);
// Seconds since the epoch, for the lines' times.
long long now_seconds();

}  // namespace dxt

#endif
