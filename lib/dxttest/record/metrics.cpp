// The Prometheus text format (metrics.h). Every family is one gauge: each
// file describes the last run alone, and node_exporter serves it as it is.
#include "metrics.h"
#include "cpuset.h"
#include "statuses.h"

#include "testinfo.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace dxt {

namespace {

void put_family(text_buffer &out, std::string_view name, std::string_view help)
{
    put(out, "# HELP ", name, " ", help, "\n# TYPE ", name, " gauge\n");
}

// A label's value, escaped as the format asks.
void put_label_value(text_buffer &out, std::string_view value)
{
    for (char c : value)
        put(out, c == '\\' ? "\\\\" : c == '"' ? "\\\"" : c == '\n' ? "\\n" : std::string_view(&c, 1));
}

void put_sample(text_buffer &out, std::string_view name, long long value)
{
    put(out, name, " ", value, "\n");
}

void put_cpu_sample(text_buffer &out, std::string_view name, int cpu, long long value)
{
    put(out, name, "{cpu=\"", cpu, "\"} ", value, "\n");
}

// What every form says first: the build, when the run ended, how long it
// took, and how.
void put_head(text_buffer &out, std::string_view version, std::string_view build, long long time,
              long long elapsed_ms, int exit_status)
{
    put_family(out, "tarneltest_build_info", "The version and source revision of the build that ran, as labels.");
    put(out, "tarneltest_build_info{version=\"");
    put_label_value(out, version);
    put(out, "\",build=\"");
    put_label_value(out, build);
    put(out, "\"} 1\n");
    put_family(out, "tarneltest_last_run_timestamp_seconds", "When the last run or burn-in ended, since the epoch.");
    put_sample(out, "tarneltest_last_run_timestamp_seconds", time);
    put_family(out, "tarneltest_last_run_duration_seconds", "How long the last run or burn-in took.");
    put(out, "tarneltest_last_run_duration_seconds ");
    put_seconds(out, elapsed_ms);
    put(out, "\n");
    put_family(out, "tarneltest_last_run_exit_status",
               "The last run's exit status: 0 pass, 1 fault, 2 usage, 3 could not test, 4 hung, 128+N signal N.");
    put_sample(out, "tarneltest_last_run_exit_status", exit_status);
    put_family(out, "tarneltest_last_run_verdict", "1 for the last run's verdict, 0 for every other.");
    for (int status : verdict_statuses())
        put(out, "tarneltest_last_run_verdict{verdict=\"", verdict_name(status), "\"} ",
            verdict_name(status) == std::string_view(verdict_name(exit_status)) ? "1\n" : "0\n");
}

// Each processor, whether it was tested and whether it failed.
template <typename Each>
void put_processors(text_buffer &out, Each each_processor)
{
    put_family(out, "tarneltest_cpu_tested", "1 when the last run tested the processor, 0 when it was left out.");
    each_processor([&](int cpu, bool tested, bool) { put_cpu_sample(out, "tarneltest_cpu_tested", cpu, tested); });
    put_family(out, "tarneltest_cpu_failed", "1 when the last run found a fault on the processor.");
    each_processor([&](int cpu, bool, bool failed) { put_cpu_sample(out, "tarneltest_cpu_failed", cpu, failed); });
}

// What the machine's own reporting counted while the run went on; nothing
// when it was not read (a usage error, a signal's ending).
void put_reports(text_buffer &out, const hardware_report *r)
{
    if (r == nullptr)
        return;
    put_family(out, "tarneltest_last_run_hardware_reports_checked",
               "1 when the machine's error and thermal counts were read before and after the last run.");
    put_sample(out, "tarneltest_last_run_hardware_reports_checked", r->checked);
    put_family(out, "tarneltest_last_run_hardware_reports",
               "How much each error and thermal count grew during the last run, by processor and kind (the "
               "record's hardware_counts).");
    for (const ras::processor_counts &p : r->grew)
        each_count(p, [&](const char *kind, int64_t n) {
            if (n >= 0)
                put(out, "tarneltest_last_run_hardware_reports{cpu=\"", p.cpu, "\",kind=\"", kind, "\"} ", n, "\n");
        });
    put_family(out, "tarneltest_last_run_machine_checks",
               "The machine checks rasdaemon recorded during the last run, by processor and severity.");
    for (size_t i = 0; i < r->machine_checks.size(); i++) {
        const ras::machine_check &m = r->machine_checks[i];
        bool first = true;  // of its processor and severity
        long long count = 0;
        for (size_t j = 0; j < r->machine_checks.size(); j++) {
            const ras::machine_check &o = r->machine_checks[j];
            if (o.cpu == m.cpu && o.corrected == m.corrected) {
                first = first && j >= i;
                count += o.count;
            }
        }
        if (first)
            put(out, "tarneltest_last_run_machine_checks{cpu=\"", m.cpu, "\",severity=\"",
                m.corrected ? "corrected" : "uncorrected", "\"} ", count, "\n");
    }
    put_family(out, "tarneltest_last_run_edac_errors",
               "The memory errors the EDAC memory controllers counted during the last run, by severity.");
    for (auto [severity, n] : {std::pair{"corrected", r->edac_corrected}, {"uncorrected", r->edac_uncorrected}})
        if (n >= 0)
            put(out, "tarneltest_last_run_edac_errors{severity=\"", severity, "\"} ", n, "\n");
}

bool names_cpu(std::span<const failure_site> failures, int cpu)
{
    for (const failure_site &f : failures)
        if (f.cpu == cpu && is_fault(f))
            return true;
    return false;
}

// Each tested processor's clock, and each sensor's temperatures, where
// they were read; a family with no sample is left out.
void put_sensors(text_buffer &out, const sensors::sensor_report &r)
{
    auto clocks = [&](std::string_view name, std::string_view help, auto hertz) {
        bool any = std::any_of(r.clocks.begin(), r.clocks.end(), [&](const auto &c) { return hertz(c) > 0; });
        if (!any)
            return;
        put_family(out, name, help);
        for (const sensors::processor_clock &c : r.clocks)
            if (hertz(c) > 0)
                put_cpu_sample(out, name, c.cpu, hertz(c));
    };
    clocks("tarneltest_cpu_effective_frequency_hertz",
           "The processor's clock over the run: its base clock times APERF's growth over MPERF's.",
           [](const sensors::processor_clock &c) { return c.mhz * 1000000; });
    clocks("tarneltest_cpu_cpufreq_hertz", "The kernel's scaling_cur_freq of the processor, last read during the run.",
           [](const sensors::processor_clock &c) { return c.cpufreq.cur_khz * 1000; });
    auto temperatures = [&](std::string_view name, std::string_view help, auto millidegrees) {
        bool any = std::any_of(r.temperatures.begin(), r.temperatures.end(),
                               [&](const auto &t) { return millidegrees(t) != -1; });
        if (!any)
            return;
        put_family(out, name, help);
        for (const sensors::temperature_span &t : r.temperatures) {
            if (millidegrees(t) == -1)
                continue;
            put(out, name, "{driver=\"");
            put_label_value(out, t.sensor.driver);
            put(out, "\",label=\"");
            put_label_value(out, t.sensor.label);
            put(out, "\",cpus=\"", format_cpu_list(t.sensor.cpus), "\"} ");
            put_thousandths(out, millidegrees(t));
            put(out, "\n");
        }
    };
    temperatures("tarneltest_temperature_highest_celsius", "The highest temperature the sensor read during the run.",
                 [](const sensors::temperature_span &t) { return t.highest_mc; });
    temperatures("tarneltest_temperature_crit_celsius", "The sensor's critical temperature, as its driver gives it.",
                 [](const sensors::temperature_span &t) { return t.sensor.crit_mc; });
}

}  // namespace

size_t run_metrics_room(const verdict_record &r)
{
    size_t processors = r.machine != nullptr ? r.machine->tested.size() + r.machine->left_out.size() : 0;
    size_t room = 4096 + 2 * (r.version.size() + r.build.size()) + 96 * processors;
    if (r.reports != nullptr)
        room += 600 * r.reports->grew.size() + 96 * r.reports->machine_checks.size();
    if (r.sensors != nullptr)
        room += 1024 + 200 * r.sensors->clocks.size() + 800 * r.sensors->temperatures.size();
    return room;
}

void put_run_metrics(text_buffer &out, const verdict_record &r)
{
    put_head(out, r.version, r.build, r.time, r.elapsed_ms, r.exit_status);
    if (r.machine != nullptr)
        put_processors(out, [&](auto visit) {
            for (int cpu : r.machine->tested)
                visit(cpu, !was_lost(r.lost, cpu), names_cpu(r.failures, cpu));
            for (const left_out_processor &p : r.machine->left_out)
                visit(p.cpu, false, false);
        });
    if (r.machine != nullptr) {
        // Taken offline by someone, perhaps after errors: worth an alert.
        put_family(out, "tarneltest_cpu_offline", "1 when the processor is present but offline, so it was not tested.");
        for (int cpu : r.machine->tested)
            put_cpu_sample(out, "tarneltest_cpu_offline", cpu, 0);
        for (const left_out_processor &p : r.machine->left_out)
            put_cpu_sample(out, "tarneltest_cpu_offline", p.cpu, std::string_view(p.reason) == "offline");
    }
    bool localised = std::any_of(r.failures.begin(), r.failures.end(), [](const auto &f) { return f.localised; });
    if (localised) {
        put_family(out, "tarneltest_localised_miscompares",
                   "Miscompares the sweep after the fault found on the processor.");
        for (size_t i = 0; i < r.failures.size(); i++)
            if (r.failures[i].localised != nullptr && names_new_cpu(r.failures, i))
                put_cpu_sample(out, "tarneltest_localised_miscompares", r.failures[i].cpu,
                               r.failures[i].localised->misses);
    }
    put_reports(out, r.reports);
    if (r.sensors != nullptr)
        put_sensors(out, *r.sensors);
}

size_t burn_in_metrics_room(const burn_in_record &r, std::span<const int> tested, std::span<const int> untested)
{
    size_t room = 4096 + 96 * (tested.size() + untested.size()) + 128 * verdict_statuses().size();
    if (r.reports != nullptr)
        room += 600 * r.reports->grew.size() + 96 * r.reports->machine_checks.size();
    return room;
}

void put_burn_in_metrics(text_buffer &out, const burn_in_record &r, std::span<const int> tested,
                         std::span<const int> untested)
{
    put_head(out, dxt_test_version, TARNEL_BUILD, r.time, r.elapsed_ms, r.exit_status);
    put_family(out, "tarneltest_last_run_runs", "The last burn-in's runs, by verdict.");
    for (int kind : verdict_statuses()) {
        const char *name = verdict_name(kind);
        long long runs = 0;
        for (auto [status, count] : r.runs_by_status)
            if (std::string_view(verdict_name(status)) == name)
                runs += count;
        put(out, "tarneltest_last_run_runs{verdict=\"", name, "\"} ", runs, "\n");
    }
    put_processors(out, [&](auto visit) {
        for (int cpu : tested) {
            bool failed = false;
            for (const failed_run &f : r.failed_runs)
                failed = failed || f.cpu == cpu;
            visit(cpu, true, failed);
        }
        for (int cpu : untested)
            visit(cpu, false, false);
    });
    put_reports(out, r.reports);
}

metrics_file metrics_file_at(const std::string &path)
{
    return {path, path + "." + std::to_string(getpid()) + ".tmp"};
}

int write_metrics_file(const metrics_file &file, const text_buffer &text, const char *program)
{
    int error = 0;
    // Made new, never opened through what is there: a link planted at the
    // name (the directory may be writable by others) would have root write
    // wherever it points. What is there is removed, once, and the name made
    // again.
    constexpr int made_new = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    int fd = open(file.temporary.c_str(), made_new, 0644);
    if (fd < 0 && errno == EEXIST && unlink(file.temporary.c_str()) == 0)
        fd = open(file.temporary.c_str(), made_new, 0644);
    if (fd < 0) {
        error = errno;
    } else {
        // node_exporter reads it as another user, whatever the umask.
        error = fchmod(fd, 0644) == 0 ? write_all(fd, text.data, text.length) : errno;
        // On the disk before it takes the name; a full disk may only show
        // here or at close.
        if (error == 0 && fsync(fd) != 0)
            error = errno;
        if (close(fd) != 0 && error == 0)
            error = errno;
        if (error == 0 && rename(file.temporary.c_str(), file.path.c_str()) != 0)
            error = errno;
        if (error != 0)
            unlink(file.temporary.c_str());
    }
    if (error != 0) {
        line_buffer line;
        put(line, program, ": cannot write the metrics to ", file.path, " (", error_text(error),
            "): the run's result cannot reach the monitoring, so it cannot pass\n");
        write_all(STDERR_FILENO, line.data, line.length);
    }
    return error;
}

void put_metrics_lost(text_buffer &text, std::string_view path, int error)
{
    put(text, "the metrics could not be written to ", path, " (", error_text(error), ")");
}

}  // namespace dxt
