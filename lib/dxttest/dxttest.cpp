// This project's test harness: it takes the test's command line, hands the
// -o text to the test's option parser, shows every message as one whole line
// (text or JSON) on standard output, and ends the process with an exit status
// that says what happened.
//
// Exit statuses
//   0        passed: test_end was reached (the program then returns 0)
//   1        a fault was found: message 6000 (a miscompare), 8011 (a worker
//            failed), or a SIGBUS (an uncorrectable memory error consumed by
//            a thread), reported with the processor and the address
//   2        usage error: an unknown option, a stray argument, -v with -q, or
//            sub-options the test's parser did not all accept
//   3        the run could not test: 4001, 8012, 8014 and any other message
//            with a non-zero exit flag
//   128 + N  interrupted by signal N (SIGINT 130, SIGTERM 143, SIGHUP 129)
// -h and --version exit 0. Every end but a command-line error and those two
// prints a verdict line first: "PASS", "FAIL", "COULD NOT TEST" or
// "INTERRUPTED", then the reason and the exit status.
//
// Output
//   Text:  2026-11-23T05:40:18Z INFO cpu1 [l2cache] #3 Write/Read/Verify test started
//          time (UTC), severity, processor of the calling thread, [tag] when
//          there is one, #number (0 for a free text), text.
//          2026-11-23T05:40:21Z VERDICT cpu0 PASS: tarneltest passed in 3.2 s
//   --json: one object per line and nothing else on standard output.
//          A message: time (string), level (number), severity (string),
//          cpu (number, or null when unknown), tag (string or null),
//          number (number), exit_flag (number), text (string).
//          The verdict: time, verdict (string), exit_status (number),
//          cpu (number or null), text (string).
//   Severities: 1 FATAL, 2 FAULT, 3 ERROR, 6 USAGE, 7 INFO, 8 DEBUG, any
//   other level LEVELn. Shown: levels up to 7 by default (-v), 1 to 3 with
//   -q, level 8 and above only with -d; the usage (2005), messages that end
//   the run and verdicts always.
//   Command-line errors go to standard error, followed by the usage.
//
// The option parser is called exactly once, with "" when no -o was given;
// repeated -o texts are joined with commas.
#include <signal.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "dxttest_internal.h"
#include "harness/testinfo.h"

const char *test_name;
const char *device_name;
int test_modes;
const char *func_name;

namespace {

dxt::display_mode display;
int output_fd = STDOUT_FILENO;
const char *options_text = "";
timespec started;
std::string subopts;  // the parser's text; it may keep pointers into it

// Every line is written under this lock. Whoever ends the run takes it and
// never gives it back, so no line follows a verdict.
std::mutex output_lock;
// Set once by whoever ends the run (a message or a signal handler): the
// first one wins, later ones print nothing.
std::atomic<bool> ending{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handlers need a lock-free flag");

void write_all(int fd, const char *data, size_t length)
{
    while (length > 0) {
        ssize_t n = write(fd, data, length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        data += n;
        length -= static_cast<size_t>(n);
    }
}

void write_line(int fd, const dxt::line_buffer &line) { write_all(fd, line.data, line.length); }

long long now_seconds()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

[[noreturn]] void hang()
{
    for (;;)
        pause();
}

// Workers may still be running: no static destructor may run under them.
[[noreturn]] void end_process(int status)
{
    std::fflush(nullptr);
    _exit(status);
}

std::string_view view(const dxt::line_buffer &b) { return {b.data, b.length}; }

const char *name_of_test() { return test_name != nullptr ? test_name : "the test"; }

void put_status_reason(dxt::line_buffer &text, const char *reason, int status)
{
    dxt::put(text, reason);
    dxt::put(text, " (exit status ");
    dxt::put_int(text, status);
    dxt::put(text, ")");
}

[[noreturn]] void end_run(const dxt::message_fields &m)
{
    int status = dxt::exit_status_of(m.number, m.exit_flag);
    dxt::line_buffer line;
    dxt::put_message_line(line, m, display.json);
    dxt::line_buffer reason;
    put_status_reason(reason, dxt::verdict_reason(status), status);
    dxt::line_buffer verdict;
    dxt::put_verdict_line(verdict, {m.time, m.cpu, dxt::verdict_word(status), status, view(reason)}, display.json);

    output_lock.lock();
    if (ending.exchange(true))
        hang();
    write_line(output_fd, line);
    write_line(output_fd, verdict);
    end_process(status);
}

void show_message(int exit_flag, int level, const char *tag, int number, std::string_view text)
{
    dxt::message_fields m{now_seconds(), level, sched_getcpu(), tag, number, exit_flag, text};
    if (exit_flag != 0)
        end_run(m);
    dxt::line_buffer line;
    dxt::put_message_line(line, m, display.json);
    std::lock_guard<std::mutex> hold(output_lock);
    if (!ending.load())
        write_line(output_fd, line);
}

void show_usage(int (*usage)(void))
{
    if (usage != nullptr)
        usage();
    else
        dxt_message(DXT_RETURN, LVL_USAGE, nullptr, MSG_USAGE, name_of_test());
}

[[noreturn]] void refuse(const char *program, const std::string &what, int (*usage)(void))
{
    std::string text = std::string(program) + ": " + what + "\n";
    write_all(STDERR_FILENO, text.data(), text.size());
    output_fd = STDERR_FILENO;
    show_usage(usage);
    end_process(dxt::exit_usage);
}

void show_version()
{
    dxt::line_buffer line;
    if (display.json) {
        dxt::put(line, "{\"test\":");
        dxt::put_json_string(line, name_of_test());
        dxt::put(line, ",\"version\":");
        dxt::put_json_string(line, dxt_test_version);
        dxt::put(line, "}\n");
    } else {
        dxt::put(line, name_of_test());
        dxt::put(line, " version ");
        dxt::put(line, dxt_test_version);
        dxt::put(line, "\n");
    }
    write_line(STDOUT_FILENO, line);
}

const char *signal_name(int sig)
{
    switch (sig) {
    case SIGINT:
        return "SIGINT";
    case SIGTERM:
        return "SIGTERM";
    case SIGHUP:
        return "SIGHUP";
    default:
        return "a signal";
    }
}

// Signal handlers: async-signal-safe only (the line helpers, write, _exit).
void on_interrupt(int sig, siginfo_t *, void *)
{
    if (ending.exchange(true))
        return;  // the run is ending already
    int status = dxt::exit_signal_base + sig;
    dxt::line_buffer reason;
    dxt::put(reason, "interrupted by ");
    dxt::put(reason, signal_name(sig));
    put_status_reason(reason, "", status);
    dxt::line_buffer line;
    dxt::put_verdict_line(line, {now_seconds(), sched_getcpu(), "INTERRUPTED", status, view(reason)}, display.json);
    write_line(output_fd, line);
    _exit(status);
}

// Linux delivers an uncorrectable memory error that a thread consumed as
// SIGBUS to that thread: the processor it ran on and si_addr locate it.
void on_bus_error(int, siginfo_t *info, void *)
{
    if (ending.exchange(true))
        hang();  // returning would only fault again
    int cpu = sched_getcpu();
    dxt::line_buffer text;
    dxt::put(text, "hardware fault: ");
    dxt::put(text, info->si_code == BUS_MCEERR_AR || info->si_code == BUS_MCEERR_AO
                       ? "uncorrectable memory error"
                       : "bus error");
    dxt::put(text, " (SIGBUS) on cpu");
    dxt::put_int(text, cpu);
    dxt::put(text, " at address ");
    dxt::put_hex(text, reinterpret_cast<uintptr_t>(info->si_addr));
    long long time = now_seconds();
    dxt::line_buffer line;
    dxt::put_message_line(line, {time, LVL_FATAL, cpu, nullptr, MSG_FREE_TEXT, DXT_FATAL, view(text)}, display.json);
    write_line(output_fd, line);

    dxt::line_buffer reason;
    put_status_reason(reason, dxt::verdict_reason(dxt::exit_fault_found), dxt::exit_fault_found);
    line.length = 0;
    dxt::put_verdict_line(line, {time, cpu, dxt::verdict_word(dxt::exit_fault_found), dxt::exit_fault_found,
                                 view(reason)},
                          display.json);
    write_line(output_fd, line);
    _exit(dxt::exit_fault_found);
}

void install(int sig, void (*handler)(int, siginfo_t *, void *))
{
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO;
    sigfillset(&action.sa_mask);  // one handler at a time on a thread
    sigaction(sig, &action, nullptr);
}

void trace(const char *what)
{
    if (!display.debug)
        return;
    std::string text = std::string(what) + (func_name != nullptr ? func_name : "(unnamed routine)");
    show_message(DXT_RETURN, LVL_DEBUG, nullptr, MSG_FREE_TEXT, text);
}

}  // namespace

extern "C" {

int test_init(int argc, char **argv, int (*parser)(char *), int (*usage)(void), const char *options)
{
    clock_gettime(CLOCK_MONOTONIC, &started);
    options_text = options != nullptr ? options : "";
    const char *program = test_name;
    if (program == nullptr) {
        program = argc > 0 && argv[0] != nullptr ? argv[0] : "test";
        if (const char *slash = strrchr(program, '/'))
            program = slash + 1;
    }

    dxt::command_line line = dxt::parse_command_line(argc, argv);
    display = line.display;
    switch (line.action) {
    case dxt::command_action::error:
        refuse(program, line.error, usage);
    case dxt::command_action::help:
        show_usage(usage);
        end_process(dxt::exit_passed);
    case dxt::command_action::version:
        show_version();
        end_process(dxt::exit_passed);
    case dxt::command_action::run:
        break;
    }

    if (parser != nullptr) {
        subopts = line.subopts;
        if (parser(subopts.data()) == 0)
            refuse(program, "the sub-options \"" + line.subopts + "\" were not all accepted", usage);
    }
    return 0;
}

void dxt_test_async_handler(int)
{
    install(SIGINT, on_interrupt);
    install(SIGTERM, on_interrupt);
    install(SIGHUP, on_interrupt);
    install(SIGBUS, on_bus_error);
}

void trace_before(int) { trace("entering "); }

void trace_after(int) { trace("leaving "); }

int dxt_message(int exit_flag, int level, const char *tag, int number, ...)
{
    if (exit_flag == 0 && !dxt::level_shown(display, level, number))
        return 0;
    char text[dxt::text_capacity];
    va_list args;
    va_start(args, number);
    dxt::format_message_text(text, sizeof text, number, options_text, args);
    va_end(args);
    show_message(exit_flag, level, tag, number, text);
    return 0;
}

int test_end(void)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long long elapsed_ms = (now.tv_sec - started.tv_sec) * 1000LL + (now.tv_nsec - started.tv_nsec) / 1000000;
    dxt::line_buffer reason;
    dxt::put(reason, name_of_test());
    dxt::put(reason, " passed in ");
    dxt::put_elapsed(reason, elapsed_ms);
    dxt::line_buffer line;
    dxt::put_verdict_line(line, {now_seconds(), sched_getcpu(), dxt::verdict_word(dxt::exit_passed),
                                 dxt::exit_passed, view(reason)},
                          display.json);
    std::lock_guard<std::mutex> hold(output_lock);
    if (!ending.load())
        write_line(output_fd, line);
    return 0;
}

}  // extern "C"
