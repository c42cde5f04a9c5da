// A burn-in's runs, each a process of its own (burnin.h): the run's lines
// passed through with its number, its failures read from a pipe of their
// own, its time kept, and an interrupt of the burn-in passed on to it.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "burnin.h"
#include "cpuset.h"
#include "output.h"
#include "statuses.h"

namespace dxt {
namespace {

// A run whose own watchdog did not end it this long after its limit is
// ended from here; one that ignores SIGTERM this long after it gets SIGKILL.
constexpr long long run_grace_ms = 30000;
constexpr long long kill_grace_ms = 3000;

// What an interrupt of the burn-in asks, for its handler: the signal, and
// the run in progress that it is passed on to.
struct {
    volatile sig_atomic_t signal;
    volatile pid_t running;
} stop;

// The run in progress ends as a single run would, woken first if it was
// stopped; no other starts.
void on_stop(int sig)
{
    if (stop.signal == 0)
        stop.signal = sig;
    if (stop.running > 0) {
        kill(stop.running, sig);
        kill(stop.running, SIGCONT);
    }
}

void write_string(const std::string &s) { write_output({const_cast<char *>(s.data()), s.size(), s.size()}); }

// One line of a run, with the run's number added (none for a single run).
void pass_line(const std::string &line, long long run, bool json, burn_in_progress *progress)
{
    std::string mark = std::to_string(run);
    size_t space = line.find(' ');
    if (progress != nullptr)
        progress->clear();
    if (run == 0)
        write_string(line);
    else if (json && line.starts_with('{'))
        write_string("{\"run\":" + mark + "," + line.substr(1));
    else if (!json && space != std::string::npos && line[0] >= '0' && line[0] <= '9')
        write_string(line.substr(0, space) + " run " + mark + line.substr(space));
    else
        write_string(line);
    if (progress != nullptr)
        progress->draw();
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

run_outcome supervised_run(const burn_in_request &request, const std::vector<std::string> &args,
                           const std::vector<int> &cpus,
                           long long number, bool pass_output, burn_in_progress *progress)
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
        if (!cpus.empty() && bind_thread_to(cpus) != 0)
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
    stop.running = pid;
    if (stop.signal != 0)
        kill(pid, stop.signal);

    run_outcome outcome{exit_could_not_test, "", ""};
    long long limit = monotonic_ms() + 1000 * request.run_timeout_seconds + run_grace_ms;
    long long stopping_since = 0, terminated_at = 0;  // 0: not yet
    bool killed_here = false, hung = false;
    std::string pending;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {failures[0], POLLIN, 0}};
    for (int open = 2; open > 0;) {
        long long now = monotonic_ms();
        // An interrupt of the burn-in, or a run past its limit: asked
        // first, then ended.
        if (stop.signal != 0 && stopping_since == 0)
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
            if (progress != nullptr)
                progress->draw();  // the time left moves on
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
                        pass_line(line, number, request.display.json, progress);
                }
            }
        }
    }
    if (!pending.empty())
        pass_line(pending + "\n", number, request.display.json, progress);
    int wstatus = 0;
    while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
    }
    stop.running = 0;
    if (hung) {
        // Ended from here, however it then exited.
        outcome.status = exit_hung;
        outcome.how = "hung: still going " + std::to_string(run_grace_ms / 1000) +
                      " s after its own time limit, and was ended";
    } else if (WIFEXITED(wstatus)) {
        outcome.status = WEXITSTATUS(wstatus);
    } else if (stop.signal != 0) {
        outcome.status = exit_signal_base + stop.signal;
    } else {
        // Ended by a signal nobody here sent: it could not test.
        int sig = WTERMSIG(wstatus);
        outcome.status = exit_could_not_test;
        outcome.how = "was killed by " + signal_name(sig) +
                      (sig == SIGKILL ? " (the out-of-memory killer ends processes so)" : "");
    }
    return outcome;
}

void stop_runs_on_interrupts(const burn_in_request &request)
{
    struct sigaction action = {};
    action.sa_handler = on_stop;
    sigfillset(&action.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        if (sigismember(&request.ignored, sig) != 1)
            sigaction(sig, &action, nullptr);
}

int burn_in_stop_signal() { return stop.signal; }

std::vector<failed_run> runs_failures(const std::string &failures, long long run)
{
    std::vector<failed_run> found;
    for (size_t at = 0, end; (end = failures.find('\n', at)) != std::string::npos; at = end + 1) {
        size_t tab = failures.find('\t', at), second = failures.find('\t', tab + 1);
        if (tab >= end)
            continue;
        if (second > end)
            second = end;
        found.push_back({run, std::atoi(failures.c_str() + at), failures.substr(tab + 1, second - tab - 1),
                         second < end ? failures.substr(second + 1, end - second - 1) : ""});
    }
    return found;
}

}  // namespace dxt
