// How a run or a burn-in can end: the process's exit statuses, and for each
// the verdict line's word, the record's name and the sentence.
#ifndef TARNEL_DXTTEST_STATUSES_H
#define TARNEL_DXTTEST_STATUSES_H

#include <span>

namespace dxt {

enum exit_status {
    exit_passed = 0,
    exit_fault_found = 1,
    exit_usage = 2,
    exit_could_not_test = 3,
    exit_hung = 4,
    exit_signal_base = 128,  // plus the signal number
};

// The exit status a message with a non-zero exit flag ends the run with.
int exit_status_of(int number, int exit_flag);
// "PASS", "pass" ("fault", "usage", "could-not-test", "hung",
// "interrupted") and "every processor passed", for an exit status.
const char *verdict_word(int status);
const char *verdict_name(int status);
const char *verdict_reason(int status);
// One exit status of each verdict, a signal's included.
std::span<const int> verdict_statuses();

}  // namespace dxt

#endif
