// What the machine's own error reporting says, read before and after a run
// (or a burn-in): the per-processor lines of /proc/interrupts (machine-check
// exceptions, corrected errors over a threshold, deferred errors, thermal
// events), each processor's thermal throttling counts, the EDAC memory
// controllers' counts, and rasdaemon's machine-check records. A source that
// cannot be read says why; none of them is ever an error of the run.
#ifndef TARNEL_DXTSYSINFO_HARDWARE_REPORTS_H
#define TARNEL_DXTSYSINFO_HARDWARE_REPORTS_H

#include <cstdint>
#include <string>
#include <vector>

namespace ras {

// rasdaemon's database where its service keeps it.
constexpr char default_database[] = "/var/lib/rasdaemon/ras-mc_event.db";

// One processor's counts; -1 where the machine does not count that kind.
struct processor_counts {
    int cpu;
    int64_t mce = -1;  // MCE: machine-check exceptions (uncorrected or recoverable)
    int64_t thr = -1;  // THR: corrected errors over a bank's threshold (AMD)
    int64_t dfr = -1;  // DFR: deferred errors, uncorrected and not yet consumed (AMD)
    int64_t trm = -1;  // TRM: thermal events
    int64_t core_throttle = -1;     // thermal_throttle/core_throttle_count
    int64_t package_throttle = -1;  // thermal_throttle/package_throttle_count
};

struct snapshot {
    std::vector<processor_counts> processors;  // ascending
    std::string interrupts_why;                // "" when /proc/interrupts was read
    int64_t edac_corrected = -1, edac_uncorrected = -1;  // summed over mc*; -1: no controller
    std::string database_why;                  // "" when rasdaemon's database was read
    int64_t database_last_id = 0;              // the newest machine-check record's id
};

// One kind of rasdaemon's machine-check records: those of one processor
// and bank that read the same, with how many there were.
struct machine_check {
    int64_t id;      // the first record's
    int cpu;
    int bank;
    bool corrected;  // VAL set, UC clear (and on AMD not deferred)
    bool l2_cache;   // the status word's level, or the AMD unit's name, says L2
    std::string text;
    int64_t count = 1;
};

// An error storm is told by kind, not record by record: at most this many
// kinds of each severity, the first to arrive, and the text of each cut to
// this many bytes, so the run's record stays a line any collector keeps.
// Uncorrected records of further kinds are still told by processor (one
// kind each, bank -1, with other_kinds as its text), since one on a
// tested processor fails the run; corrected ones are only counted.
constexpr size_t kept_kinds = 32;
constexpr size_t kept_text_bytes = 240;
constexpr char other_kinds[] = "uncorrected machine checks of other kinds";

// The kinds recorded after a given id, and how many records fell outside
// the kinds kept.
struct machine_checks_since {
    std::vector<machine_check> kinds;
    int64_t not_itemised = 0;
};

// Everything under root ("" for this machine) and the database at path
// ("" for none).
snapshot read_snapshot(const std::string &root, const std::string &database);
// The records the database gained after the id `after`, by kind; why not,
// in *why.
machine_checks_since records_since(const std::string &database, int64_t after, std::string *why);

// How to read one record, from its columns as rasdaemon writes them.
machine_check classify(int64_t id, int cpu, int bank, int64_t status, bool amd, const std::string &bank_name,
                       const std::string &error_msg, const std::string &mcastatus_msg);

}  // namespace ras

#endif
