// This project's test harness, as the program sees it: the C interface of
// testinfo.h. It takes the test's command line, hands the -o text to the
// test's option parser, shows every message as one whole line (text or
// JSON), and lets the rooms below follow the workers and end the run. The
// README ("Output", "JSON output", "Exit status", "Layout") and
// tarneltest(1) give the forms, the statuses and the rooms.
//
// The option parser is called exactly once, with "" when no -o was given;
// repeated -o texts are joined with commas.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "allocations.h"
#include "burnin.h"
#include "catalogue.h"
#include "finish.h"
#include "record.h"
#include "sensors_record.h"
#include "signals.h"
#include "statuses.h"
#include "suboptions.h"
#include "summary.h"
#include "testinfo.h"
#include "textfile.h"

// The interface's own: what the program names itself and its routine.
const char *test_name;
const char *device_name;
int test_modes;
const char *func_name;

namespace {

using namespace dxt;

// The run, or one with the defaults for a program that speaks before
// test_init.
run_state &the_run() { return current_run != nullptr ? *current_run : new_run({}, "test", ""); }

void redraw_progress(run_state &run)
{
    if (run.output.ending.load())
        return;
    const worker_log &w = run.workers;
    int subtest = w.current_subtest.load();
    draw_progress(run.progress, run.output.fd, subtest, subtest >= 0 ? w.started_on[subtest].load() : 0,
                  subtest >= 0 ? w.finished_on[subtest].load() : 0,
                  w.machine != nullptr ? static_cast<int>(w.machine->tested.size()) : 0);
}

void show_message(run_state &run, int exit_flag, int level, const char *tag, int number, std::string_view text)
{
    message_fields m{now_seconds(), level, reporting_processor(), on_main_thread(), tag, number, exit_flag, text};
    if (exit_flag != 0)
        end_run(run, m);
    line_buffer line;
    put_message_line(line, m, run.display.json);
    std::lock_guard<std::mutex> hold(run.output.lock);
    if (run.output.ending.load())
        return;
    clear_progress(run.progress, run.output.fd);
    write_text(run.output.fd, line);
    redraw_progress(run);
}

void show_debug(run_state &run, std::string_view text)
{
    if (run.display.debug)
        show_message(run, DXT_RETURN, LVL_DEBUG, "dxttest", MSG_FREE_TEXT, text);
}

// One message of the program: the workers' progress and reports noted,
// then shown (and the run ended, for a message that ends it).
void take_message(run_state &run, int exit_flag, int level, const char *tag, int number, va_list args)
{
    if (note_progress(run.workers, number) && run.progress.on) {
        std::lock_guard<std::mutex> hold(run.output.lock);
        redraw_progress(run);
    }
    va_list reading;
    va_copy(reading, args);
    std::optional<l2_geometry> geometry = note_report(run.workers, number, tag, reading);
    va_end(reading);
    if (exit_flag == 0 && !level_shown(run.display, level, number))
        return;
    char text[text_capacity];
    format_message_text(text, sizeof text, number, run.options_text, args);
    show_message(run, exit_flag, level, tag, number, text);
    if (geometry) {
        line_buffer line;
        put_geometry_text(line, *geometry);
        show_debug(run, view(line));
    }
}

void show_usage(int (*usage)(void))
{
    if (usage != nullptr)
        usage();
    else
        dxt_message(DXT_RETURN, LVL_USAGE, nullptr, MSG_USAGE, the_run().program);
}

[[noreturn]] void refuse(run_state &run, const std::string &what, int (*usage)(void))
{
    line_buffer text;
    put(text, run.program, ": ");
    put_visible(text, what);
    put(text, "\n");
    write_all(STDERR_FILENO, text.data, text.length);
    // The usage goes where the error went; the verdict (the record, with
    // --json) to standard output. Nothing was tested: it says only what was
    // wrong, and the -o text as given.
    run.output.fd = STDERR_FILENO;
    show_usage(usage);
    run.output.fd = STDOUT_FILENO;
    finish_failing(run, {now_seconds(), exit_usage, what});
}

// --describe: what a run would test, and nothing tested.
[[noreturn]] void describe(run_state &run)
{
    machine_description m = describe_machine();
    std::vector<processor_entry> all = describe_processors(m);
    // A recording names its own host, or none.
    std::string_view sysroot = dxt_tlib_sysroot();
    std::string recorded_host =
        sysroot.empty() ? "" : read_first_line(std::string(sysroot) + "/proc/sys/kernel/hostname");
    machine_entry host = describe_host(now_seconds(), sysroot.empty() ? run.host_name : recorded_host);
    std::vector<int> cpus;
    for (const processor_entry &p : all)
        cpus.push_back(p.cpu);
    sensors::sensor_report readable = sensors_now(cpus, std::string(sysroot));
    std::vector<char> storage(4096 + all.size() * 1536 + sensors_room(&readable));
    text_buffer out{storage.data(), storage.size()};
    if (run.display.json)
        put_describe_record(out, all, host, readable);
    else
        put_describe_text(out, all, host, readable);
    write_text(run.output.fd, out);
    end_with(exit_passed);
}

void show_version(const run_state &run)
{
    line_buffer line;
    if (run.display.json) {
        put(line, "{\"test\":");
        put_json_string(line, run.program);
        put(line, ",\"version\":");
        put_json_string(line, dxt_test_version);
        put(line, ",\"build\":");
        put_json_string(line, TARNEL_BUILD);
        put(line, "}\n");
    } else {
        put(line, run.program, " version ", dxt_test_version, ", build ", TARNEL_BUILD, "\n");
    }
    write_output(line);
}

// A burn-in, a run one L2 at a time, and a run whose fault is to be
// retested, watch their runs from a process of their own, with this run's form and sub-options.
[[noreturn]] void start_burn_in(const run_state &run, const char *argv0, const command_line &line)
{
    burn_in_request request{line.burn_in_seconds, line.burn_in_runs, line.keep_going, run.display, {argv0},
                            run.host_name, line.timeout_seconds, line.retests, line.subopts};
    for (auto [on, flag] : {std::pair{run.display.quiet, "-q"}, {run.display.debug, "-d"}, {run.display.json, "--json"}})
        if (on)
            request.run_args.push_back(flag);
    request.run_args.insert(request.run_args.end(), {"--timeout", std::to_string(line.timeout_seconds), "--localise",
                                                     std::to_string(line.localise_seconds)});
    request.localise_seconds = line.localise_seconds;
    request.seed = line.seed >= 0 ? line.seed : default_seed;
    request.one_l2_at_a_time = line.one_l2_at_a_time;
    if (!line.sensors_from.empty())
        request.run_args.insert(request.run_args.end(), {"--sensors-from", line.sensors_from});
    if (!line.ras_database.empty()) {
        request.ras_database = line.ras_database;
        request.run_args.insert(request.run_args.end(), {"--ras-db", line.ras_database});
    }
    if (line.subopts_given)
        request.run_args.insert(request.run_args.end(), {"-o", line.subopts});
    // A burn-in's metrics are its own, and so are those of every L2's turn
    // together; a single run's (retested after a fault) are that run's,
    // which the retests do not overwrite.
    if (!line.metrics.empty() && line.burn_in_seconds == 0 && line.burn_in_runs == 0 && !line.one_l2_at_a_time)
        request.run_args.insert(request.run_args.end(), {"--metrics", line.metrics});
    else
        request.metrics = line.metrics;
    request.program = run.program;
    request.ignored = ignored_interrupts();
    burn_in(request);
}

// What a run needs before the program starts its workers.
void prepare_run(run_state &run)
{
    // From here on a read that never ends (a stuck file system) is the
    // watchdog's too.
    if (int error = start_watchdog(run.watch, run.started_ms, run.timeout_ms, end_hung))
        show_message(run, DXT_RETURN, LVL_STEP_ERROR, "dxttest", MSG_FREE_TEXT,
                     std::string("the watchdog could not be started (") + strerror(error) +
                         "): this run has no time limit");
    read_machine(run);
    // Where a source cannot be read, said once.
    for (const std::string &why : {run.reports_before.interrupts_why, run.reports_before.database_why})
        if (!why.empty())
            show_debug(run, "hardware reports not read: " + why);
    reserve_ending_room(run);
    start_sensor_watch(run.readings, *run.workers.machine, run.sensors_root);
    start_progress_line(run.progress, run.display, run.output.fd);
    // The test draws through the C library's generator; the harness sets its
    // whole 48-bit state before the workers start, so that the record can
    // say what was drawn (seed 0 is the state it starts in anyway).
    unsigned short state[3] = {static_cast<unsigned short>(run.seed), static_cast<unsigned short>(run.seed >> 16),
                               static_cast<unsigned short>(run.seed >> 32)};
    seed48(state);
}

const char *program_name(int argc, char **argv)
{
    if (test_name != nullptr)
        return test_name;
    const char *program = argc > 0 && argv[0] != nullptr ? argv[0] : "test";
    const char *slash = strrchr(program, '/');
    return slash != nullptr ? slash + 1 : program;
}

void trace(const char *what)
{
    run_state &run = the_run();
    if (!run.display.debug)
        return;
    std::string text = std::string(what) + (func_name != nullptr ? func_name : "(unnamed routine)");
    show_message(run, DXT_RETURN, LVL_DEBUG, nullptr, MSG_FREE_TEXT, text);
}

}  // namespace

namespace dxt {

void note_failed_allocation()
{
    if (current_run != nullptr)
        note_failed_allocation(current_run->workers);
}

}  // namespace dxt

extern "C" {

int test_init(int argc, char **argv, int (*parser)(char *), int (*usage)(void), const char *options)
{
    // A closed standard output would be taken over by the next file opened;
    // /dev/null keeps its place, and the run knows its output is lost.
    if (fcntl(STDOUT_FILENO, F_GETFD) == -1 && errno == EBADF) {
        int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (fd >= 0 && fd != STDOUT_FILENO) {
            dup2(fd, STDOUT_FILENO);
            close(fd);
        }
        note_lost_output(EBADF);
    }

    command_line line = parse_command_line(argc, argv);
    run_state &run = new_run(line, program_name(argc, argv), options != nullptr ? options : "");
    if (!line.sysroot.empty())
        dxt_tlib_use_sysroot(line.sysroot.c_str());
    switch (line.action) {
    case command_action::error:
        refuse(run, line.error, usage);
    case command_action::help:
        show_usage(usage);
        end_with(exit_passed);
    case command_action::version:
        show_version(run);
        end_with(exit_passed);
    case command_action::run:
        break;
    }

    if (!line.sysroot.empty())
        if (std::string problem = recorded_machine_problem(line.sysroot); !problem.empty())
            refuse(run, problem, usage);
    if (line.describe)
        describe(run);
    // A recording that is not there would read as a machine without
    // registers or sensors.
    if (struct stat folder; !line.sensors_from.empty() &&
                            (stat(line.sensors_from.c_str(), &folder) != 0 || !S_ISDIR(folder.st_mode)))
        refuse(run, "--sensors-from " + line.sensors_from + " is not a folder", usage);
    if (std::string oversized = oversized_mask(line.subopts); !oversized.empty())
        refuse(run, oversized, usage);
    if (parser != nullptr) {
        run.subopts = line.subopts;
        if (parser(run.subopts.data()) == 0)
            refuse(run,
                   "the sub-options \"" + line.subopts + "\" were not all accepted" + silently_refused(line.subopts),
                   usage);
    }
    // node_exporter's textfile collector reads *.prom alone; a burn-in's
    // runs leave it to the burn-in.
    if (!line.metrics.empty() && !line.metrics.ends_with(".prom") && line.failures_fd == 0) {
        line_buffer note;
        put(note, run.program, ": warning: node_exporter's textfile collector reads only files ending in .prom, and ");
        put_visible(note, line.metrics);
        put(note, " does not\n");
        write_all(STDERR_FILENO, note.data, note.length);
    }
    if (line.burn_in_seconds > 0 || line.burn_in_runs > 0 || line.retests > 0 || line.one_l2_at_a_time)
        start_burn_in(run, argc > 0 ? argv[0] : run.program, line);
    struct stat failures_pipe;
    if (line.failures_fd > 0 && fstat(line.failures_fd, &failures_pipe) == 0 && S_ISFIFO(failures_pipe.st_mode))
        run.failures_fd = line.failures_fd;
    // An interrupt while the machine is read ends the run with its record,
    // as one later does.
    install_interrupt_handlers(run);
    prepare_run(run);
    return 0;
}

void dxt_test_async_handler(int) { start_interrupt_thread(the_run()); }

void trace_before(int) { trace("entering "); }

void trace_after(int) { trace("leaving "); }

int dxt_message(int exit_flag, int level, const char *tag, int number, ...)
{
    run_state &run = the_run();
    va_list args;
    va_start(args, number);
    try {
        take_message(run, exit_flag, level, tag, number, args);
    } catch (const std::bad_alloc &) {
        end_without_memory(run);
    }
    va_end(args);
    return 0;
}

int test_end(void)
{
    run_state &run = the_run();
    try {
        end_passing_run(run);
    } catch (const std::bad_alloc &) {
        end_without_memory(run);
    }
    // Another thread began to end the run first: its ending stands.
    if (!run.output.passed)
        hang();
    stop_watchdog(run.watch);
    stop_interrupt_thread(run);
    if (output_was_lost())
        end_with(exit_could_not_test);
    return 0;
}

}  // extern "C"
