// The conditions a run ran under that someone reading its result wants to
// know: buffers that could not be locked in memory, CPU time a cgroup's
// quota withheld, and other instances of the test on the same processors.
// None of them makes a run wrong; each is a warning. (Thermal throttling is
// the hardware's own report: reports.h.)
#ifndef TARNEL_DXTTEST_CONDITIONS_H
#define TARNEL_DXTTEST_CONDITIONS_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace dxt {

struct conditions {
    int64_t throttled_periods = -1, periods = -1;  // the process's CPU cgroup: -1 when not known
    std::string quota;                             // its quota as the kernel writes it, "" when none
    std::vector<std::string> others;               // "pid 123 (cpus 0-1)": other instances on our processors
};

// Now, for a run testing these processors.
conditions read_conditions(std::span<const int> tested);
// The warnings of a run that read `before` at its start and `after` at
// its end, and saw `lock_failures` buffers that could not be locked.
std::vector<std::string> condition_warnings(const conditions &before, const conditions &after, int lock_failures);

}  // namespace dxt

#endif
