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
#include "reports.h"
#include "testinfo.h"
#include "verdict.h"

namespace dxt {
namespace {

// A run whose own watchdog did not end it this long after its limit is
// ended from here; one that ignores SIGTERM this long after it gets SIGKILL.
constexpr long long run_grace_ms = 30000;
constexpr long long kill_grace_ms = 3000;

volatile sig_atomic_t stop_signal = 0;
volatile pid_t running = 0;

// The run in progress ends as a single run would, woken first if it was
// stopped; no other starts.
void on_stop(int sig)
{
    if (stop_signal == 0)
        stop_signal = sig;
    if (running > 0) {
        kill(running, sig);
        kill(running, SIGCONT);
    }
}

void write_string(const std::string &s) { write_output({const_cast<char *>(s.data()), s.size(), s.size()}); }

struct progress_line {
    bool on;
    long long run, runs, deadline_ms;  // runs, deadline_ms: 0 when not limited
    bool shown = false;

    void clear()
    {
        if (shown)
            write_string("\r\033[K");
        shown = false;
    }
    void draw()
    {
        if (!on)
            return;
        line_buffer text;
        put(text, "\r\033[Kburn-in: run ", run);
        if (runs > 0)
            put(text, " of ", runs);
        if (deadline_ms > 0) {
            put(text, ", ");
            put_duration(text, std::max(0LL, deadline_ms - monotonic_ms()));
            put(text, " left");
        }
        write_output(text);
        shown = true;
    }
};

// One line of a run, with the run's number added (none for a single run).
void pass_line(const std::string &line, long long run, bool json, progress_line &progress)
{
    std::string mark = std::to_string(run);
    size_t space = line.find(' ');
    progress.clear();
    if (run == 0)
        write_string(line);
    else if (json && line.starts_with('{'))
        write_string("{\"run\":" + mark + "," + line.substr(1));
    else if (!json && space != std::string::npos && line[0] >= '0' && line[0] <= '9')
        write_string(line.substr(0, space) + " run " + mark + line.substr(space));
    else
        write_string(line);
    progress.draw();
}

// Whether a line is the run's own verdict: the record, or the text block's
// last line; a single run with retests keeps it until they are done.
bool is_verdict(const std::string &line, bool json)
{
    return json ? line.starts_with("{\"time\"") && line.find("\"schema_version\"") != std::string::npos
                : line.find(" VERDICT ") != std::string::npos;
}

std::string signal_name(int sig)
{
    const char *name = sigabbrev_np(sig);
    return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(sig);
}

}  // namespace

namespace {

// One run as a process of its own, watched: with pass_output its lines go
// through, numbered (unless number is 0), else nowhere; cpu >= 0 binds it.
run_outcome watch_run(const burn_in_request &request, const std::vector<std::string> &args, long long number,
                      int cpu, bool pass_output, progress_line *progress)
{
    int out[2], failures[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        return {exit_could_not_test, "", "could not start: no pipe"};
    if (pipe2(failures, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return {exit_could_not_test, "", "could not start: no pipe"};
    }
    // The failures' pipe is named on the run's command line, never in an
    // environment a user's shell could also set.
    std::vector<std::string> run_args = args;
    run_args.insert(run_args.begin() + 1, {"--failures-fd", std::to_string(failures[1])});
    std::vector<char *> argv;
    for (const std::string &arg : run_args)
        argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        // A burn-in killed outright (SIGKILL) takes its run with it.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(exit_could_not_test);
        dup2(out[1], STDOUT_FILENO);
        if (!pass_output)
            dup2(out[1], STDERR_FILENO);
        fcntl(failures[1], F_SETFD, 0);
        if (cpu >= 0 && bind_thread(cpu) != 0)
            _exit(exit_could_not_test);
        execv("/proc/self/exe", argv.data());
        _exit(exit_could_not_test);
    }
    close(out[1]);
    close(failures[1]);
    if (pid < 0) {
        close(out[0]);
        close(failures[0]);
        return {exit_could_not_test, "", "could not start: no process"};
    }
    running = pid;
    if (stop_signal != 0)
        kill(pid, stop_signal);

    run_outcome outcome{exit_could_not_test, "", ""};
    long long limit = monotonic_ms() + 1000 * request.run_timeout_seconds + run_grace_ms;
    long long stopping_since = 0, terminated_at = 0;  // 0: not yet
    bool killed_here = false, hung = false;
    std::string pending;
    progress_line quiet{false, number, 0, 0};
    progress_line &shown = progress != nullptr ? *progress : quiet;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {failures[0], POLLIN, 0}};
    for (int open = 2; open > 0;) {
        long long now = monotonic_ms();
        // An interrupt of the burn-in, or a run past its limit: asked
        // first, then ended.
        if (stop_signal != 0 && stopping_since == 0)
            stopping_since = now;
        if (stopping_since == 0 && terminated_at == 0 && now >= limit) {
            hung = true;
            terminated_at = now;
            kill(pid, SIGTERM);
            kill(pid, SIGCONT);
        }
        long long since = std::max(stopping_since, terminated_at);
        if (since > 0 && now - since >= kill_grace_ms && !killed_here) {
            killed_here = true;
            kill(pid, SIGKILL);
        }
        if (poll(fds, 2, 200) <= 0) {
            shown.draw();  // the time left moves on
            continue;
        }
        for (pollfd &fd : fds) {
            if (fd.fd < 0 || fd.revents == 0)
                continue;
            char buffer[65536];
            ssize_t n = read(fd.fd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                close(fd.fd);
                fd.fd = -1;
                open--;
            } else if (&fd == &fds[1]) {
                outcome.failures.append(buffer, static_cast<size_t>(n));
            } else if (pass_output) {
                pending.append(buffer, static_cast<size_t>(n));
                for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
                    std::string line = pending.substr(0, end + 1);
                    if (number == 0 && request.retests > 0 && is_verdict(line, request.display.json))
                        outcome.held_verdict += line;
                    else
                        pass_line(line, number, request.display.json, shown);
                }
            }
        }
    }
    if (!pending.empty())
        pass_line(pending + "\n", number, request.display.json, shown);
    int wstatus = 0;
    while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
    }
    running = 0;
    if (hung) {
        // Ended from here, however it then exited.
        outcome.status = exit_hung;
        outcome.how = "hung: still going " + std::to_string(run_grace_ms / 1000) +
                      " s after its own time limit, and was ended";
    } else if (WIFEXITED(wstatus)) {
        outcome.status = WEXITSTATUS(wstatus);
    } else if (stop_signal != 0) {
        outcome.status = exit_signal_base + stop_signal;
    } else {
        // Ended by a signal nobody here sent: it could not test.
        int sig = WTERMSIG(wstatus);
        outcome.status = exit_could_not_test;
        outcome.how = "was killed by " + signal_name(sig) +
                      (sig == SIGKILL ? " (the out-of-memory killer ends processes so)" : "");
    }
    return outcome;
}

}  // namespace

run_outcome supervised_run(const burn_in_request &request, const std::vector<std::string> &args, int cpu)
{
    return watch_run(request, args, 0, cpu, false, nullptr);
}

bool burn_in_stopping() { return stop_signal != 0; }

namespace {

// The processors and subtests a failed run named.
void note_failures(const std::string &failures, long long run, std::vector<failed_run> &failed)
{
    size_t before = failed.size();
    for (size_t at = 0, end; (end = failures.find('\n', at)) != std::string::npos; at = end + 1) {
        size_t tab = failures.find('\t', at);
        if (tab < end)
            failed.push_back({run, std::atoi(failures.c_str() + at), failures.substr(tab + 1, end - tab - 1)});
    }
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
                          std::span<const int> tested)
{
    if (request.metrics.empty())
        return 0;
    std::vector<char> storage(burn_in_metrics_room(record, tested));
    text_buffer out{storage.data(), storage.size()};
    put_burn_in_metrics(out, record, tested);
    return write_metrics_file(metrics_file_at(request.metrics), out, request.program);
}

}  // namespace

void burn_in(const burn_in_request &request)
{
    ras::snapshot before = ras::read_snapshot("", request.ras_database);
    struct sigaction action = {};
    action.sa_handler = on_stop;
    sigfillset(&action.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        if (!interrupt_ignored(sig))
            sigaction(sig, &action, nullptr);

    // Without a limit it is a single run, retested when it finds a fault.
    bool single = request.seconds == 0 && request.runs == 0;
    long long start = monotonic_ms(), start_time = time(nullptr);
    progress_line progress{progress_wanted(request.display) && !single, 0, single ? 1 : request.runs,
                           request.seconds > 0 ? start + 1000 * request.seconds : 0};
    long long passed = 0, found = 0;
    std::map<int, long long> runs_by_status;  // exit status: runs
    int last = exit_passed;  // the status of the run that ended the burn-in
    std::vector<failed_run> failed;
    std::vector<unfinished_run> unfinished;
    std::vector<retest_result> retests;
    std::string held;
    while (stop_signal == 0 && (progress.runs == 0 || progress.run < progress.runs) &&
           (progress.deadline_ms == 0 || monotonic_ms() < progress.deadline_ms)) {
        progress.run++;
        progress.draw();
        long long run_start = monotonic_ms();
        long long number = single ? 0 : progress.run;
        run_outcome outcome = watch_run(request, request.run_args, number, -1, true, &progress);
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
            if (request.retests > 0 && stop_signal == 0)
                run_retests(request, {failed.data() + first, failed.size() - first}, retests);
        }
        if (!request.display.json && !single) {
            line_buffer line;
            put_utc_time(line, time(nullptr));
            put(line, " RUN ", progress.run, " ", verdict_word(last), " in ");
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
        write_retests(request, retests, held);
        end_with(stop_signal != 0 ? exit_signal_base + stop_signal : last);
    }
    hardware_report reports =
        compare_reports(before, ras::read_snapshot("", request.ras_database), request.ras_database);

    int status = stop_signal != 0        ? exit_signal_base + stop_signal
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
    // A pass that cannot reach the monitoring is no pass.
    int metrics_error = write_burn_in_metrics(request, record, machine.tested);
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
        }
        put(text, failed.size() > 8 ? ", ...); " : "); ");
    } else if (status >= exit_signal_base) {
        put_interrupted_by(text, stop_signal);
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
