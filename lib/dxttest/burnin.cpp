// The burn-in (burnin.h). Each run is a process of its own, so that a run's
// fatal message, interrupt or crash ends that run and never the burn-in's
// bookkeeping. The run writes its output to a pipe, which the parent copies
// to standard output line by line with the run's number added ("run 3"
// after a text line's time, "run":3 first in a JSON object), and its
// failures, processor and subtest, to a second pipe.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "burnin.h"
#include "dxtsysinfo_ext.h"
#include "verdict.h"

namespace dxt {
namespace {

volatile sig_atomic_t stop_signal = 0;
volatile pid_t running = 0;

// The run in progress ends as a single run would; no other starts.
void on_stop(int sig)
{
    if (stop_signal == 0)
        stop_signal = sig;
    if (running > 0)
        kill(running, sig);
}

long long monotonic_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
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

// One line of a run, with the run's number added.
void pass_line(const std::string &line, long long run, bool json, progress_line &progress)
{
    std::string mark = std::to_string(run);
    size_t space = line.find(' ');
    progress.clear();
    if (json && line.starts_with('{'))
        write_string("{\"run\":" + mark + "," + line.substr(1));
    else if (!json && space != std::string::npos && line[0] >= '0' && line[0] <= '9')
        write_string(line.substr(0, space) + " run " + mark + line.substr(space));
    else
        write_string(line);
    progress.draw();
}

struct run_outcome {
    int status;
    std::string failures;  // "<cpu>\t<subtest>\n" each
};

run_outcome one_run(const burn_in_request &request, progress_line &progress)
{
    int out[2], failures[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        return {exit_could_not_test, ""};
    if (pipe2(failures, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return {exit_could_not_test, ""};
    }
    std::vector<char *> argv;
    for (const std::string &arg : request.run_args)
        argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    std::string failures_fd = std::to_string(failures[1]);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        fcntl(failures[1], F_SETFD, 0);
        setenv(burn_in_failures_fd, failures_fd.c_str(), 1);
        execv("/proc/self/exe", argv.data());
        _exit(exit_could_not_test);
    }
    close(out[1]);
    close(failures[1]);
    if (pid < 0) {
        close(out[0]);
        close(failures[0]);
        return {exit_could_not_test, ""};
    }
    running = pid;
    if (stop_signal != 0)
        kill(pid, stop_signal);

    run_outcome outcome{exit_could_not_test, ""};
    std::string pending;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {failures[0], POLLIN, 0}};
    for (int open = 2; open > 0;) {
        if (poll(fds, 2, 1000) <= 0) {
            progress.draw();  // the time left moves on
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
            } else {
                pending.append(buffer, static_cast<size_t>(n));
                for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1))
                    pass_line(pending.substr(0, end + 1), progress.run, request.display.json, progress);
            }
        }
    }
    if (!pending.empty())
        pass_line(pending + "\n", progress.run, request.display.json, progress);
    int wstatus = 0;
    while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
    }
    running = 0;
    outcome.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : exit_signal_base + WTERMSIG(wstatus);
    return outcome;
}

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

}  // namespace

void burn_in(const burn_in_request &request)
{
    dxt_corrected_errors before{}, after{};
    bool before_ok = read_corrected_errors(nullptr, &before) != 0;
    struct sigaction action = {};
    action.sa_handler = on_stop;
    sigfillset(&action.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        if (!interrupt_ignored(sig))
            sigaction(sig, &action, nullptr);

    long long start = monotonic_ms();
    progress_line progress{progress_wanted(request.display), 0, request.runs,
                           request.seconds > 0 ? start + 1000 * request.seconds : 0};
    long long passed = 0, found = 0;
    int last = exit_passed;  // the status of the run that ended the burn-in
    std::vector<failed_run> failed;
    while (stop_signal == 0 && (request.runs == 0 || progress.run < request.runs) &&
           (progress.deadline_ms == 0 || monotonic_ms() < progress.deadline_ms)) {
        progress.run++;
        progress.draw();
        long long run_start = monotonic_ms();
        run_outcome outcome = one_run(request, progress);
        last = outcome.status;
        passed += last == exit_passed;
        if (last == exit_fault_found) {
            found++;
            note_failures(outcome.failures, progress.run, failed);
        }
        if (!request.display.json) {
            line_buffer line;
            put_utc_time(line, time(nullptr));
            put(line, " RUN ", progress.run, " ", verdict_word(last), " in ");
            put_elapsed(line, monotonic_ms() - run_start);
            put(line, "\n");
            progress.clear();
            write_output(line);
        }
        if (last != exit_passed && (last != exit_fault_found || !request.keep_going))
            break;
    }
    progress.clear();
    bool after_ok = read_corrected_errors(nullptr, &after) != 0;

    int status = stop_signal != 0        ? exit_signal_base + stop_signal
                 : found > 0             ? exit_fault_found
                 : last != exit_passed   ? exit_could_not_test
                                         : exit_passed;
    long long runs = progress.run, elapsed = monotonic_ms() - start;
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
    } else if (status == exit_could_not_test) {
        put(text, "run ", runs, " could not test (its exit status ", last, "); ");
    }
    put(text, passed, passed == 1 ? " run passed in " : " runs passed in ");
    put_duration(text, elapsed);
    if (status != exit_passed)
        put(text, " (exit status ", status, ")");

    burn_in_record record{time(nullptr), status, elapsed, std::string_view(text.data, text.length), runs, passed,
                          found, failed, compare_corrected_errors(before_ok, before, after_ok, after),
                          request.host};
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
