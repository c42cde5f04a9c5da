// The burn-in (burnin.h). Each run is a process of its own, so that a run's
// fatal message, interrupt or crash ends that run and never the burn-in's
// bookkeeping. The run writes its output to a pipe, which the parent copies
// to standard output line by line with the run's number added ("run 3"
// after a text line's time, "run":3 first in a JSON object), and its
// failures, processor and subtest, to a second pipe. The parent also keeps
// time: a run that outlives its own watchdog by a grace period is ended and
// counts as hung, and an interrupt of the burn-in ends the run in progress
// within seconds, whatever that run is doing.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "burnin.h"
#include "cpuset.h"
#include "dxtsysinfo_ext.h"
#include "metrics.h"
#include "output.h"
#include "progress_line.h"
#include "record.h"
#include "reports.h"
#include "signals.h"
#include "statuses.h"
#include "summary.h"
#include "testinfo.h"

namespace dxt {

void burn_in_progress::clear() { clear_progress(line, STDOUT_FILENO); }

void burn_in_progress::draw()
{
    line_buffer text;
    put(text, what, ": run ", run);
    if (runs > 0)
        put(text, " of ", runs);
    if (deadline_ms > 0) {
        put(text, ", ");
        put_duration(text, std::max(0LL, deadline_ms - monotonic_ms()));
        put(text, " left");
    }
    show_progress(line, STDOUT_FILENO, text);
}

namespace {

// A seed nobody chose: from the kernel's random source, else the clock.
long long fresh_seed()
{
    uint64_t seed = 0;
    if (getrandom(&seed, sizeof seed, 0) != static_cast<ssize_t>(sizeof seed))
        seed = static_cast<uint64_t>(monotonic_ms()) * 2654435761ULL;
    return static_cast<long long>(seed & static_cast<uint64_t>(max_seed));
}

// The processors and subtests a failed run named.
void note_failures(const std::string &failures, long long run, std::vector<failed_run> &failed)
{
    size_t before = failed.size();
    for (const failed_run &f : runs_failures(failures, run))
        failed.push_back(f);
    if (failed.size() == before)
        failed.push_back({run, -1, ""});
}

// What a run that ended without saying so itself (killed, or ended here as
// hung) would have said: its record, or for a single run its verdict line.
// A burn-in's text says it on the run's RUN line.
void say_unfinished(const burn_in_request &request, long long run, const run_outcome &outcome)
{
    line_buffer line;
    std::string text = (run > 0 ? "run " + std::to_string(run) : std::string("the run")) + " " + outcome.how;
    if (request.display.json) {
        put(line, "{");
        if (run > 0)
            put_int_member(line, "run", run);
        put_key(line, "time");
        put(line, "\"");
        put_utc_time(line, time(nullptr));
        put(line, "\"");
        put_text_member(line, "host", request.host, !request.host.empty());
        put_int_member(line, "schema_version", verdict_schema_version);
        put_text_member(line, "verdict", verdict_name(outcome.status));
        put_int_member(line, "exit_status", outcome.status);
        put_text_member(line, "text", text);
        put(line, "}\n");
    } else if (run == 0) {
        put_verdict_line(line, {time(nullptr), verdict_word(outcome.status), text + " (exit status " +
                                                                               std::to_string(outcome.status) + ")"});
    }
    write_output(line);
}

// The burn-in's metrics, when asked for: 0, or the error that stopped them.
int write_burn_in_metrics(const burn_in_request &request, const burn_in_record &record,
                          std::span<const int> tested, std::span<const int> untested)
{
    if (request.metrics.empty())
        return 0;
    std::vector<char> storage(burn_in_metrics_room(record, tested, untested));
    text_buffer out{storage.data(), storage.size()};
    put_burn_in_metrics(out, record, tested, untested);
    return write_metrics_file(metrics_file_at(request.metrics), out, request.program);
}

}  // namespace

void burn_in(const burn_in_request &request)
{
    ras::snapshot before = ras::read_snapshot("", request.ras_database);
    stop_runs_on_interrupts(request);

    // One L2 at a time: each run is one L2's turn, and a burn-in's limits
    // are looked at only once a cycle through every L2 is done.
    std::vector<std::vector<int>> domains;
    std::vector<std::string> domain_names;
    if (request.one_l2_at_a_time)
        domains = l2_domains(describe_machine());
    for (const std::vector<int> &d : domains)
        domain_names.push_back(format_cpu_list(d));
    long long cycle = std::max<long long>(1, static_cast<long long>(domains.size()));
    // Without a limit it is a single run (retested when it finds a fault),
    // or one cycle.
    bool limited = request.seconds > 0 || request.runs > 0;
    bool single = !limited && domains.empty();
    long long runs_limit = limited ? (request.runs + cycle - 1) / cycle * cycle : cycle;
    long long start = monotonic_ms(), start_time = time(nullptr);
    burn_in_progress progress{{}, 0, request.runs > 0 || !limited ? runs_limit : 0,
                              request.seconds > 0 ? start + 1000 * request.seconds : 0,
                              limited ? "burn-in" : "one L2 at a time"};
    if (!single)
        start_progress_line(progress.line, request.display, STDOUT_FILENO);
    long long passed = 0, found = 0;
    std::map<int, long long> runs_by_status;  // exit status: runs
    int last = exit_passed;  // the status of the run that ended the burn-in
    std::vector<failed_run> failed;
    std::vector<unfinished_run> unfinished;
    std::vector<retest_result> retests;
    std::vector<long long> seeds;  // each run's
    std::vector<l2_turn> turns;
    std::string held;
    auto may_start = [&] {
        if (burn_in_stop_signal() != 0)
            return false;
        if (progress.run % cycle != 0)
            return true;  // the cycle in progress finishes
        return (progress.runs == 0 || progress.run < progress.runs) &&
               (progress.deadline_ms == 0 || monotonic_ms() < progress.deadline_ms);
    };
    while (may_start()) {
        progress.run++;
        progress.draw();
        long long run_start = monotonic_ms();
        long long number = single ? 0 : progress.run;
        // The first run (cycle) draws as asked; every later one afresh.
        seeds.push_back(progress.run <= cycle ? request.seed : fresh_seed());
        std::vector<std::string> args = request.run_args;
        args.insert(args.end(), {"--seed", std::to_string(seeds.back())});
        size_t turn = static_cast<size_t>((progress.run - 1) % cycle);
        std::vector<int> cpus = domains.empty() ? std::vector<int>{} : domains[turn];
        long long turn_start = time(nullptr);
        run_outcome outcome = supervised_run(request, args, cpus, number, true, &progress);
        if (!domains.empty())
            turns.push_back({progress.run, domain_names[turn], turn_start, monotonic_ms() - run_start, outcome.status});
        last = outcome.status;
        held = outcome.held_verdict;
        runs_by_status[last]++;
        passed += last == exit_passed;
        if (!outcome.how.empty()) {
            progress.clear();
            say_unfinished(request, number, outcome);
            unfinished.push_back({progress.run, outcome.status, outcome.how});
        }
        if (last == exit_hung && outcome.how.empty()) {
            // Its own watchdog ended it: where it hung, from its failures.
            std::vector<failed_run> where;
            note_failures(outcome.failures, progress.run, where);
            std::string how = "hung";
            for (const failed_run &w : where)
                if (w.cpu >= 0)
                    how += (how == "hung" ? " on cpu" : ", cpu") + std::to_string(w.cpu) +
                           (w.subtest.empty() ? "" : " in " + w.subtest);
            unfinished.push_back({progress.run, exit_hung, how});
        }
        if (last == exit_fault_found) {
            found++;
            size_t first = failed.size();
            note_failures(outcome.failures, progress.run, failed);
            for (size_t i = first; i < failed.size() && !domains.empty(); i++)
                failed[i].l2 = domain_names[turn];
            if (request.retests > 0 && burn_in_stop_signal() == 0)
                run_retests(request, {failed.data() + first, failed.size() - first}, seeds.back(), retests);
        }
        if (!request.display.json && !single) {
            line_buffer line;
            put_utc_time(line, time(nullptr));
            put(line, " RUN ", progress.run, " ", verdict_word(last));
            if (!domains.empty())
                put(line, " on the L2 of cpus ", domain_names[turn]);
            put(line, " in ");
            put_elapsed(line, monotonic_ms() - run_start);
            if (!outcome.how.empty())
                put(line, ": ", outcome.how);
            put(line, "\n");
            progress.clear();
            write_output(line);
        }
        if (last != exit_passed && (last != exit_fault_found || !request.keep_going))
            break;
    }
    progress.clear();
    if (single) {
        // The run's own verdict, with what the retests found.
        write_retests(request, failed, retests, held);
        end_with(burn_in_stop_signal() != 0 ? exit_signal_base + burn_in_stop_signal() : last);
    }
    hardware_report reports =
        compare_reports(before, ras::read_snapshot("", request.ras_database), request.ras_database);

    int status = burn_in_stop_signal() != 0        ? exit_signal_base + burn_in_stop_signal()
                 : found > 0             ? exit_fault_found
                 : last == exit_hung     ? exit_hung
                 : last != exit_passed   ? exit_could_not_test
                                         : exit_passed;
    long long runs = progress.run, elapsed = monotonic_ms() - start;
    std::vector<std::pair<int, long long>> counted(runs_by_status.begin(), runs_by_status.end());
    machine_description machine = describe_machine();
    std::vector<processor_entry> processors = describe_processors(machine);
    machine_entry host = describe_host(start_time, request.host);
    burn_in_record record{time(nullptr), status,  elapsed,    "",      runs,    passed,   found,
                          failed,        &reports, request.host, unfinished, retests, counted, request.subopts,
                          dxt_test_version, TARNEL_BUILD, processors, &host};
    std::vector<reproduction> reproducibility = reproducibility_of(failed, runs, retests, turns);
    record.reproducibility = reproducibility;
    record.seeds = seeds;
    record.l2_domains = domain_names;
    record.l2_turns = turns;
    record.burn_in = limited;
    // A pass that cannot reach the monitoring is no pass.
    // One L2 at a time, only the L2s that had a turn were tested.
    std::vector<int> tested = domains.empty() ? machine.tested : std::vector<int>{}, untested;
    for (size_t i = 0; i < domains.size(); i++) {
        std::vector<int> &into = i < turns.size() ? tested : untested;
        into.insert(into.end(), domains[i].begin(), domains[i].end());
    }
    std::sort(tested.begin(), tested.end());
    std::sort(untested.begin(), untested.end());
    int metrics_error = write_burn_in_metrics(request, record, tested, untested);
    bool metrics_lost = metrics_error != 0 && status == exit_passed;
    if (metrics_lost)
        status = record.exit_status = exit_could_not_test;
    line_buffer text;
    if (status == exit_fault_found) {
        put(text, "a fault was found in ", found, found == 1 ? " run" : " runs");
        for (size_t i = 0; i < failed.size() && i < 8; i++) {
            put(text, i == 0 ? " (run " : ", run ", failed[i].run);
            if (failed[i].cpu >= 0)
                put(text, " on cpu", failed[i].cpu);
            if (!failed[i].l2.empty())
                put(text, " in the L2 turn of cpus ", failed[i].l2);
        }
        put(text, failed.size() > 8 ? ", ...); " : "); ");
    } else if (status >= exit_signal_base) {
        put_interrupted_by(text, burn_in_stop_signal());
        put(text, "; ");
    } else if (status == exit_hung) {
        put(text, "run ", runs, " hung; ");
    } else if (metrics_lost) {
        put_metrics_lost(text, request.metrics, metrics_error);
        put(text, "; ");
    } else if (status == exit_could_not_test) {
        if (!unfinished.empty() && unfinished.back().run == runs)
            put(text, "run ", runs, " could not test: it ", unfinished.back().how, "; ");
        else
            put(text, "run ", runs, " could not test (its exit status ", last, "); ");
    }
    put(text, passed, passed == 1 ? " run passed in " : " runs passed in ");
    put_duration(text, elapsed);
    if (status != exit_passed)
        put(text, " (exit status ", status, ")");

    record.text = std::string_view(text.data, text.length);
    std::vector<char> storage(burn_in_room(record));
    text_buffer out{storage.data(), storage.size()};
    if (request.display.json)
        put_burn_in_record(out, record);
    else
        put_burn_in_block(out, record);
    write_output(out);
    end_with(status);
}

}  // namespace dxt
