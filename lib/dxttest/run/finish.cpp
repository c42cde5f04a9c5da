// The one way a run ends (finish.h).
#include "finish.h"

#include <algorithm>
#include <new>
#include <string>

#include "localisation.h"
#include "record.h"
#include "statuses.h"
#include "summary.h"
#include "testinfo.h"

namespace dxt {

namespace {

// The verdict's sentence: the reason, the processors that failed, the status.
void put_status_reason(text_buffer &text, std::string_view reason, int status, std::span<const failure_site> failures)
{
    put(text, reason);
    // A fault names where it was found; a lack of memory, where it was.
    bool faults = std::any_of(failures.begin(), failures.end(), is_fault);
    for (size_t i = 0, named = 0; i < failures.size(); i++) {
        if (is_fault(failures[i]) != faults || !names_new_cpu(failures, i))
            continue;
        put(text, named++ == 0 ? " on cpu" : ", cpu", failures[i].cpu);
    }
    put(text, " (exit status ", status, ")");
}

// A verdict with what every verdict of this run carries; the workers'
// announcements are put in order in l2_room.
verdict_record run_record(const run_state &run, long long time, int status, const text_buffer &text, int cpu,
                          std::span<const failure_site> failures, const hardware_report *reports,
                          std::span<const left_out_processor> left_out, std::span<l2_geometry> l2_room)
{
    const machine_description *machine = run.workers.machine;
    return {time,
            status,
            run_elapsed_ms(run),
            view(text),
            cpu,
            machine,
            failures,
            reports,
            run.host_name,
            left_out,
            run.given_options,
            dxt_test_version,
            TARNEL_BUILD,
            announced_in_order(run.workers, l2_room),
            machine != nullptr ? std::span<const processor_entry>(run.processors) : std::span<const processor_entry>(),
            machine != nullptr ? &run.host_identity : nullptr,
            run.seed};
}

// What the machine's error reporting saw since the run started.
hardware_report check_reports(const run_state &run)
{
    const machine_description *machine = run.workers.machine;
    hardware_report r =
        compare_reports(run.reports_before, ras::read_snapshot("", run.ras_database), run.ras_database);
    r.conditions = condition_warnings(run.conditions_before, read_conditions(machine->tested),
                                      run.workers.lock_failures);
    return r;
}

// The verdict in the run's form, after what goes before it; a burn-in's
// run also tells its parent each fault.
void put_verdict(const run_state &run, text_buffer &out, const verdict_record &record)
{
    if (run.display.json)
        put_verdict_record(out, record);
    else
        put_verdict_block(out, record, run.display.quiet);
    if (run.failures_fd < 0)
        return;
    for (const failure_site &f : record.failures) {
        if (!is_fault(f))
            continue;
        line_buffer line;
        put_failure_brief(line, f);
        write_all(run.failures_fd, line.data, line.length);
    }
}

// The record's metrics, once, when --metrics asks for them; 0, or the error
// that stopped the write (said on standard error). A signal handler uses the
// room set aside before the run.
int write_metrics(run_state &run, const verdict_record &record, bool in_handler)
{
    if (run.metrics_target.path.empty() || run.metrics_written.exchange(true))
        return 0;
    std::vector<char> own;
    if (!in_handler)
        own.resize(run_metrics_room(record));
    text_buffer out = in_handler ? text_buffer{run.metrics_storage, run.metrics_capacity}
                                 : text_buffer{own.data(), own.size()};
    if (out.data == nullptr)
        return 0;
    put_run_metrics(out, record);
    return write_metrics_file(run.metrics_target, out, run.program);
}

// A pass: the metrics first, since a pass that cannot reach the monitoring
// is no pass, nor one whose output was lost; they carry the status the
// process ends with. Nothing after another thread began to end the run.
void write_pass(run_state &run, const text_buffer &out, const verdict_record &record)
{
    int metrics_error = 0;
    {
        std::lock_guard<std::mutex> hold(run.output.lock);
        if (run.output.ending.load())
            return;
        verdict_record measured = record;
        measured.exit_status = output_was_lost() ? exit_could_not_test : exit_passed;
        metrics_error = write_metrics(run, measured, false);
        if (metrics_error == 0) {
            clear_progress(run.progress, run.output.fd);
            write_text(run.output.fd, out);
            run.output.passed = true;
            if (output_was_lost() && measured.exit_status == exit_passed) {
                measured.exit_status = exit_could_not_test;
                run.metrics_written = false;
                write_metrics(run, measured, false);
            }
        }
    }
    if (metrics_error == 0)
        return;
    line_buffer lost_metrics;
    put(lost_metrics, "every processor passed, but ");
    put_metrics_lost(lost_metrics, run.metrics_target.path, metrics_error);
    finish_failing(run, {now_seconds(), exit_could_not_test, view(lost_metrics), {}, -1, nullptr, false,
                         record.reports});
}

// Any other ending: the text as the run's last output, and the metrics, and
// the process ends. After a pass verdict the process is ending anyway: the
// verdict stands.
[[noreturn]] void write_last(run_state &run, const text_buffer &text, int status, const verdict_record &record)
{
    run.output.lock.lock();
    if (run.output.passed)
        end_with(exit_passed);
    if (run.output.ending.exchange(true))
        hang();
    clear_progress(run.progress, run.output.fd);
    write_text(run.output.fd, text);
    write_metrics(run, record, false);
    end_with(status);
}

}  // namespace

void finish(run_state &run, const run_end &e)
{
    line_buffer reason;
    if (e.status == exit_passed)
        put(reason, e.reason);
    else
        put_status_reason(reason, e.reason, e.status, e.failures);
    if (e.in_handler) {
        line_buffer fallback;
        text_buffer out = run.ending_storage != nullptr ? text_buffer{run.ending_storage, run.ending_capacity, 0}
                                                        : text_buffer{fallback.data, fallback.capacity, 0};
        if (e.lead != nullptr)
            put_message_line(out, *e.lead, run.display.json);
        verdict_record record = run_record(run, e.time, e.status, reason, e.cpu, e.failures, nullptr,
                                           lost_so_far(run.workers), run.ending_l2);
        put_verdict(run, out, record);
        clear_progress(run.progress, run.output.fd);
        write_text(run.output.fd, out);
        write_metrics(run, record, true);
        exit_now(e.status);
    }
    // Kernels skipped for want of memory were work the run did not do.
    std::vector<failure_site> failures(e.failures.begin(), e.failures.end());
    std::vector<loc::finding> localised;
    if (e.status == exit_fault_found)
        localise_faults(run, failures, localised);
    for (const failure_site &s : skipped_so_far(run.workers))
        if (!std::any_of(failures.begin(), failures.end(), [&](const auto &f) { return f.no_memory && f.cpu == s.cpu; }))
            failures.push_back(s);
    // A pass ran every worker to its end: none was cut short.
    std::span<const left_out_processor> lost = lost_so_far(run.workers);
    std::vector<left_out_processor> left = e.status == exit_passed
                                               ? std::vector<left_out_processor>(lost.begin(), lost.end())
                                               : left_out_at_end(run.workers, failures);
    hardware_report read_now = e.reports == nullptr && run.workers.machine != nullptr ? check_reports(run)
                                                                                       : hardware_report{};
    const hardware_report *reports = e.reports != nullptr               ? e.reports
                                     : run.workers.machine != nullptr ? &read_now
                                                                       : nullptr;
    std::vector<l2_geometry> l2_room(announced_so_far(run.workers).size());
    verdict_record record = run_record(run, e.time, e.status, reason, e.cpu, failures, reports, left, l2_room);
    if (run.workers.machine != nullptr)
        record.sensors = &end_sensor_watch(run.readings);
    std::vector<char> storage(line_capacity + verdict_room(record));
    text_buffer out{storage.data(), storage.size()};
    if (e.lead != nullptr)
        put_message_line(out, *e.lead, run.display.json);
    put_verdict(run, out, record);
    if (e.status == exit_passed)
        write_pass(run, out, record);
    else
        write_last(run, out, e.status, record);
}

void finish_failing(run_state &run, const run_end &e)
{
    finish(run, e);
    exit_now(e.status);  // not reached: only a pass returns
}

void end_run(run_state &run, const message_fields &m)
{
    std::vector<failure_site> failures = m.number == MSG_WORKERS_FAILED
                                             ? failed_workers(run.workers)
                                             : std::vector<failure_site>{own_failure(m.number)};
    // Workers that could not get their memory found nothing wrong.
    run_ending ending = ending_of(exit_status_of(m.number, m.exit_flag), failures);
    finish_failing(run, {m.time, ending.status, ending.reason, failures, m.main_thread ? -1 : m.cpu, &m});
}

void end_hung(const std::vector<platform_thread> &threads, const hang_finding &found)
{
    run_state &run = *current_run;
    // A fault another worker found still decides the status.
    std::vector<failure_site> failures = failed_workers(run.workers, false);
    bool fault = !failures.empty();
    for (size_t i : found.threads)
        failures.push_back(hung_worker(run.workers, threads[i]));
    // No worker is going: the main thread is what stalled.
    if (found.threads.empty()) {
        failure_site site;
        site.hung = true;
        site.stalled = threads.empty() ? "the main thread, before any worker started"
                                       : "the main thread, after every worker finished";
        failures.push_back(site);
    }
    int status = fault ? exit_fault_found : exit_hung;
    message_fields lead{now_seconds(), LVL_FATAL, -1, true, "dxttest", MSG_FREE_TEXT, DXT_FATAL, found.detail};
    finish_failing(run, {lead.time, status,
                         fault || !found.threads.empty() ? verdict_reason(status)
                                                         : "the main thread stopped making progress",
                         failures, -1, &lead});
}

void end_passing_run(run_state &run)
{
    const machine_description &machine = *run.workers.machine;
    std::span<const left_out_processor> lost = lost_so_far(run.workers);
    line_buffer reason;
    if (!lost.empty()) {
        put(reason, "not every processor was tested: left out ");
        for (const left_out_processor &p : lost)
            put(reason, &p == lost.data() ? "cpu" : ", cpu", p.cpu, " (", p.reason, ")");
        std::vector<int> passed_cpus;
        for (int cpu : machine.tested)
            if (!was_lost(lost, cpu))
                passed_cpus.push_back(cpu);
        put(reason, passed_cpus.empty()       ? "; no processor was tested"
                    : passed_cpus.size() == 1 ? "; tested and passed: cpu"
                                              : "; tested and passed: cpus ");
        put_cpu_list(reason, passed_cpus);
        finish_failing(run, {now_seconds(), exit_could_not_test, view(reason)});
    }
    if (!skipped_so_far(run.workers).empty())
        finish_failing(run, {now_seconds(), exit_could_not_test, no_memory_reason, skipped_so_far(run.workers)});
    if ((test_mask & subtest_bits()) == 0) {
        put(reason, "test_mask ", test_mask, " selects no subtest: nothing was tested");
        finish_failing(run, {now_seconds(), exit_could_not_test, view(reason)});
    }
    // The hardware's own report of an uncorrected error on a tested
    // processor: it failed under test, whatever the subtests read back.
    hardware_report reports = check_reports(run);
    std::vector<failure_site> checks;
    for (const ras::machine_check *m : failed_under_test(reports, machine.tested)) {
        failure_site site;
        site.cpu = m->cpu;
        site.machine_check = m->text.c_str();
        checks.push_back(site);
    }
    if (!checks.empty())
        finish_failing(run, {now_seconds(), exit_fault_found, "the hardware reported an uncorrected machine check",
                             checks, -1, nullptr, false, &reports});
    put_pass_text(reason, run.program, machine, run_elapsed_ms(run));
    finish(run, {now_seconds(), exit_passed, view(reason), {}, -1, nullptr, false, &reports});
}

void end_without_memory(run_state &run)
{
    if (run.output.ending.exchange(true))
        hang();
    finish_failing(run, {now_seconds(), exit_could_not_test, "the harness ran out of memory", {}, -1, nullptr, true});
}

void reserve_ending_room(run_state &run)
{
    const machine_description &machine = *run.workers.machine;
    failure_site one;
    line_buffer no_text;
    size_t processors = std::min(machine.tested.size(), static_cast<size_t>(max_reported));
    verdict_record largest =
        run_record(run, 0, 0, no_text, 0, {&one, 1}, nullptr, {run.workers.lost, processors}, {});
    // Every tested processor's announcement, with the longest sources.
    std::vector<l2_geometry> every(processors);
    for (size_t i = 0; i < processors; i++)
        every[i] = {0, 0, 0, 0, "CPUID leaf 0x8000001D", "CPUID leaf 0x8000001D", "CPUID leaf 0x8000001D",
                    machine.shared_cpus[i]};
    largest.l2 = every;
    run.ending_capacity = line_capacity + verdict_room(largest);
    run.ending_storage = new char[run.ending_capacity];
    if (!run.metrics_target.path.empty()) {
        run.metrics_capacity = run_metrics_room(largest);
        run.metrics_storage = new char[run.metrics_capacity];
    }
}

}  // namespace dxt
