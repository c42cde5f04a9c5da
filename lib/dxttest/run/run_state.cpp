// A run's state (run_state.h).
#include "run_state.h"

#include <time.h>
#include <unistd.h>

namespace dxt {

run_state *current_run = nullptr;

run_state &new_run(const command_line &line, const char *program, const char *options_text)
{
    auto *run = new run_state;
    run->started_ms = monotonic_ms();
    run->program = program;
    if (gethostname(run->host_name, sizeof run->host_name - 1) != 0)
        run->host_name[0] = '\0';
    run->display = line.display;
    run->options_text = options_text;
    run->given_options = line.subopts;
    run->timeout_ms = line.timeout_seconds * 1000;
    run->localise_ms = line.localise_seconds * 1000;
    if (line.seed >= 0)
        run->seed = line.seed;
    run->sensors_root = line.sensors_from;
    if (!line.ras_database.empty())
        run->ras_database = line.ras_database;
    if (!line.metrics.empty())
        run->metrics_target = metrics_file_at(line.metrics);
    current_run = run;
    return *run;
}

void read_machine(run_state &run)
{
    auto *machine = new machine_description(describe_machine());
    run.processors = describe_processors(*machine);
    run.host_identity = describe_host(now_seconds(), run.host_name);
    // Described from here on, for an ending while the reports are read.
    run.workers.machine = machine;
    run.reports_before = ras::read_snapshot("", run.ras_database);
    run.conditions_before = read_conditions(machine->tested);
}

long long run_elapsed_ms(const run_state &run) { return monotonic_ms() - run.started_ms; }

long long now_seconds()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

}  // namespace dxt
