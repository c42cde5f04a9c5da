// What the machine's own error reporting saw during a run or a burn-in, by
// processor: how its counts grew, the machine checks rasdaemon recorded,
// the warnings they make, and the uncorrected machine checks that fail a
// run because the hardware failed under test. Never calls an exception
// "corrected": the counts keep their kinds apart.
#ifndef TARNEL_DXTTEST_REPORTS_H
#define TARNEL_DXTTEST_REPORTS_H

#include <span>
#include <string>
#include <utility>
#include <vector>

#include "text.h"
#include "hardware_reports.h"

namespace dxt {

struct hardware_report {
    bool checked = false;                      // read before and after
    std::vector<ras::processor_counts> grew;   // per processor, each count's growth (-1: not counted both times)
    int64_t edac_corrected = -1, edac_uncorrected = -1;  // growth; -1: no controller both times
    std::vector<ras::machine_check> machine_checks;      // recorded meanwhile, by kind
    int64_t machine_checks_not_itemised = 0;             // records of kinds beyond those kept
    std::vector<std::string> unread;           // why each source could not be read
    std::vector<std::string> conditions;       // the run's conditions (conditions.h), said with the warnings
};

// Each count of a processor with its key in the record, -1 where it is not
// counted.
template <typename Visit>
void each_count(const ras::processor_counts &p, Visit visit)
{
    for (auto [key, n] : {std::pair{"mce", p.mce}, {"thr", p.thr}, {"dfr", p.dfr}, {"trm", p.trm},
                          {"core_throttle", p.core_throttle}, {"package_throttle", p.package_throttle}})
        visit(key, n);
}

hardware_report compare_reports(const ras::snapshot &before, const ras::snapshot &after,
                                const std::string &database);
// The warnings of a report for the processors tested (or of all, for a
// burn-in's whole span), the run's conditions last.
std::vector<std::string> report_warnings(const hardware_report &report, std::span<const int> tested);
// The uncorrected machine checks on tested processors.
std::vector<const ras::machine_check *> failed_under_test(const hardware_report &report, std::span<const int> tested);
// ,"machine_checks":[...],"hardware_counts":{...}
void put_report_json(text_buffer &out, const hardware_report &report);
// Bytes enough for put_report_json and the warnings.
size_t report_room(const hardware_report &report);

}  // namespace dxt

#endif
