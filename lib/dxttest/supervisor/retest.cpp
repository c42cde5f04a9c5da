// Retests (burnin.h): a fault found once may be a fluke or a failing part.
// The failing subtest runs again, each time a run of its own, on the
// failing processor alone and on each processor sharing its L2, alone: a
// part that fails again, and whose neighbours pass, is the part to pull.
#include <algorithm>
#include <ctime>
#include <string>
#include <vector>

#include "burnin.h"
#include "cpuset.h"
#include "dxtsysinfo_ext.h"
#include "localised.h"
#include "output.h"
#include "record.h"
#include "statuses.h"
#include "summary.h"

namespace dxt {

namespace {

// The test_mask bit of a subtest by its name; 0 when not known.
int32_t mask_bit(const std::string &name)
{
    for (const subtest &s : subtests())
        if (name == s.name)
            return s.mask_bit;
    return 0;
}

}  // namespace

void run_retests(const burn_in_request &request, std::span<const failed_run> failures, long long seed,
                 std::vector<retest_result> &results)
{
    for (const failed_run &f : failures) {
        if (f.cpu < 0)
            continue;  // no processor to retest
        std::vector<int> targets = {f.cpu}, sharing;
        if (parse_cpu_list(dxt_tlib_get_l2_shared_cpus(f.cpu), &sharing))
            for (int cpu : sharing)
                if (cpu != f.cpu)
                    targets.push_back(cpu);
        // Its own subtest only; every selected one when the run could not
        // tell which failed.
        std::string subopts = request.subopts;
        if (int32_t bit = mask_bit(f.subtest)) {
            // Appended piece by piece: GCC 12 at -O3 warns falsely (restrict)
            // on a chain of string concatenations.
            if (!subopts.empty())
                subopts += ',';
            subopts += "test_mask=";
            subopts += std::to_string(bit);
        }
        std::vector<std::string> args = {request.run_args[0], "--json", "-q", "--timeout",
                                         std::to_string(request.run_timeout_seconds), "--localise",
                                         std::to_string(request.localise_seconds), "--seed", std::to_string(seed),
                                         "-o", subopts};
        for (int cpu : targets) {
            bool seen = std::any_of(results.begin(), results.end(), [&](const retest_result &r) {
                return r.cpu == cpu && r.subtest == f.subtest;
            });
            if (seen)
                continue;
            retest_result r{cpu, f.cpu, f.subtest};
            for (int i = 0; i < request.retests && !burn_in_stopping(); i++) {
                run_outcome outcome = supervised_run(request, args, {cpu});
                r.runs++;
                r.failed += outcome.status == exit_fault_found;
                for (const failed_run &again : runs_failures(outcome.failures, 0))
                    if (again.cpu == cpu && r.localisation.empty())
                        r.localisation = again.localisation;
                r.passed += outcome.status == exit_passed;
            }
            results.push_back(r);
        }
    }
}

void write_retests(const burn_in_request &request, std::span<const failed_run> failures,
                   std::span<const retest_result> results, std::string held)
{
    if (held.empty())
        return;
    std::vector<reproduction> found = reproducibility_of(failures, 1, results);
    size_t room = 4096 + results.size() * (400 + 64);
    for (const reproduction &r : found)
        for (const std::string &l : r.localisation)
            room += 64 + 6 * l.size();
    std::vector<char> storage(room + 400 * found.size());
    text_buffer lines{storage.data(), storage.size()};
    if (request.display.json) {
        if (!results.empty() && held.size() >= 2) {
            put_retests_json(lines, results);
            put_reproducibility_json(lines, found);
            held.insert(held.size() - 2, lines.data, lines.length);  // before the closing "}\n"
        }
        write_output({held.data(), held.size(), held.size()});
        return;
    }
    if (!results.empty()) {
        put_utc_time(lines, time(nullptr));
        put(lines, " SUMMARY retest: ");
        put_retest_text(lines, results);
        put(lines, "\n");
        put_reproducibility_text(lines, time(nullptr), found);
    }
    put(lines, held);
    write_output(lines);
}

}  // namespace dxt
