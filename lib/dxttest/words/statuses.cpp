// Exit statuses and verdicts (statuses.h).
#include "statuses.h"

#include "testinfo.h"

namespace dxt {

int exit_status_of(int number, int exit_flag)
{
    if (exit_flag == 0)
        return exit_passed;
    switch (number) {
    case MSG_MISCOMPARE:
    case MSG_WORKERS_FAILED:
        return exit_fault_found;
    default:  // 4001, 8012, 8014 and anything else that stops the run
        return exit_could_not_test;
    }
}

namespace {

// Every way a run ends: its exit status, the word of the verdict line, the
// verdict record's name and the sentence.
struct verdict_kind {
    int status;
    char word[16];
    char name[16];
    char reason[56];
};

constexpr verdict_kind verdict_kinds[] = {
    {exit_passed, "PASS", "pass", "every processor passed"},
    {exit_fault_found, "FAIL", "fault", "a fault was found"},
    {exit_usage, "USAGE ERROR", "usage", "the command line or the sub-options were rejected"},
    {exit_could_not_test, "COULD NOT TEST", "could-not-test", "the run could not test this machine"},
    {exit_hung, "HUNG", "hung", "a worker stopped making progress"},
};

constexpr verdict_kind interrupted = {exit_signal_base, "INTERRUPTED", "interrupted", "interrupted by a signal"};
constexpr verdict_kind ended = {-1, "ENDED", "ended", "the run ended"};

const verdict_kind &kind_of(int status)
{
    for (const verdict_kind &kind : verdict_kinds)
        if (kind.status == status)
            return kind;
    return status > exit_signal_base ? interrupted : ended;
}

// One status of each kind, an interrupt's included.
constexpr int every_kind[] = {exit_passed, exit_fault_found, exit_usage, exit_could_not_test, exit_hung,
                              exit_signal_base + 1};

}  // namespace

std::span<const int> verdict_statuses() { return every_kind; }
const char *verdict_word(int status) { return kind_of(status).word; }
const char *verdict_name(int status) { return kind_of(status).name; }
const char *verdict_reason(int status) { return kind_of(status).reason; }

}  // namespace dxt
