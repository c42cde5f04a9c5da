// The judgments every form of a run's end shares (run_record.h).
#include "run_record.h"
#include "sensors_record.h"

#include <algorithm>
#include <string>

#include "statuses.h"

namespace dxt {

namespace {

std::vector<int> every_processor(const hardware_report &report)
{
    std::vector<int> all;
    for (const ras::processor_counts &p : report.grew)
        all.push_back(p.cpu);
    return all;
}

bool same_text(const char *a, const char *b) { return std::string_view(a) == b; }

}  // namespace

const char no_memory_reason[] = "the test could not get the memory it needed";
run_ending ending_of(int status, std::span<const failure_site> failures)
{
    if (!failures.empty() && std::none_of(failures.begin(), failures.end(), is_fault))
        return {exit_could_not_test, no_memory_reason};
    return {status, verdict_reason(status)};
}

bool names_new_cpu(std::span<const failure_site> failures, size_t i)
{
    if (failures[i].cpu < 0)
        return false;
    for (size_t j = 0; j < i; j++)
        if (failures[j].cpu == failures[i].cpu && failures[j].no_memory == failures[i].no_memory)
            return false;
    return true;
}

bool was_lost(std::span<const left_out_processor> lost, int cpu)
{
    for (const left_out_processor &p : lost)
        if (p.cpu == cpu)
            return true;
    return false;
}

std::vector<std::string> warnings_of(const verdict_record &r)
{
    std::vector<std::string> said;
    if (r.machine != nullptr)
        for (const left_out_processor &p : r.machine->left_out)
            if (same_text(p.reason, "offline"))
                said.push_back("cpu" + std::to_string(p.cpu) +
                               " is offline, so it was not tested (a processor taken offline after errors is one to "
                               "check)");
    if (r.sensors != nullptr)
        for (std::string &hot : sensor_warnings(*r.sensors))
            said.push_back(std::move(hot));
    if (r.reports == nullptr)
        return said;
    std::vector<int> tested;
    if (r.machine != nullptr)
        for (int cpu : r.machine->tested)
            if (!was_lost(r.lost, cpu))
                tested.push_back(cpu);
    std::vector<std::string> reported = report_warnings(*r.reports, tested);
    said.insert(said.end(), reported.begin(), reported.end());
    return said;
}

std::vector<std::string> burn_in_warnings(const burn_in_record &r)
{
    // A burn-in's warnings speak of every processor: its runs failed for
    // themselves.
    return r.reports != nullptr ? report_warnings(*r.reports, every_processor(*r.reports)) : std::vector<std::string>{};
}

std::vector<reproduction> reproducibility_of(std::span<const failed_run> failed, long long runs,
                                             std::span<const retest_result> retests, std::span<const l2_turn> turns)
{
    std::vector<reproduction> out;
    for (const failed_run &f : failed) {
        if (f.cpu < 0 || std::any_of(out.begin(), out.end(), [&](const auto &r) { return r.cpu == f.cpu; }))
            continue;
        reproduction r{f.cpu, 0, runs, {}, {}, "not reproduced"};
        if (!turns.empty())
            r.runs = std::count_if(turns.begin(), turns.end(), [&](const l2_turn &t) { return t.cpus == f.l2; });
        for (const failed_run &g : failed)
            if (g.cpu == f.cpu) {
                r.failed++;
                if (!g.localisation.empty())
                    r.localisation.push_back(g.localisation);
            }
        bool sharers_failed = false;
        for (const retest_result &t : retests) {
            if (t.failing_cpu != f.cpu)
                continue;
            if (t.cpu == f.cpu) {
                r.failed += t.failed;
                r.runs += t.runs;
                if (!t.localisation.empty())
                    r.localisation.push_back(t.localisation);
            } else {
                r.sharers.push_back(&t);
                sharers_failed = sharers_failed || t.failed > 0;
            }
        }
        if (r.failed > 1)
            r.verdict = sharers_failed ? "reproduced across its L2" : "reproduced on this processor alone";
        out.push_back(r);
    }
    return out;
}

}  // namespace dxt
