// Runs a body in a child process (the harness exits, installs signal
// handlers and keeps run-wide state) and gives back its exit status and
// what it wrote.
#ifndef TARNEL_TESTS_CHILD_RUN_H
#define TARNEL_TESTS_CHILD_RUN_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "json_check.h"

inline int occurrences(const std::string &text, const std::string &needle)
{
    int n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        n++;
    return n;
}

struct outcome {
    int status = -1;  // exit status, or -1 when it did not exit
    std::string out;
    std::string err;

    std::vector<std::string> lines() const
    {
        std::vector<std::string> result;
        std::istringstream in(out);
        for (std::string line; std::getline(in, line);)
            result.push_back(line);
        return result;
    }
    int count(const std::string &needle) const { return occurrences(out, needle); }
    // The verdict record: the last line of a --json run.
    json_check::object record() const
    {
        std::vector<std::string> all = lines();
        return json_check::parse_object_line(all.empty() ? "" : all.back()).value_or(json_check::object{});
    }
};

inline std::string read_all(int fd)
{
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = pread(fd, buffer, sizeof buffer, off_t(text.size()))) > 0;)
        text.append(buffer, static_cast<size_t>(n));
    return text;
}

// Runs body in a child (no gtest assertion may run there) and sends it
// `sig` (SIGTERM) once its output holds signal_after. A child (or the program it
// runs) still running after 50 s is ended, failing its case instead of
// hanging the suite.
inline outcome in_child(const std::function<int()> &body, const char *signal_after = nullptr, int sig = SIGTERM)
{
    FILE *out_file = tmpfile(), *err_file = tmpfile();
    int out = fileno(out_file), err = fileno(err_file);
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        alarm(50);  // kept across exec
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        int status = body();
        fflush(nullptr);
        _exit(status);
    }
    int wstatus = 0;
    pid_t ended = 0;
    while (signal_after != nullptr && (ended = waitpid(pid, &wstatus, WNOHANG)) == 0) {
        if (read_all(out).find(signal_after) != std::string::npos) {
            kill(pid, sig);
            signal_after = nullptr;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (ended == 0)
        waitpid(pid, &wstatus, 0);
    outcome result{WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1, read_all(out), read_all(err)};
    fclose(out_file);
    fclose(err_file);
    return result;
}

#endif
