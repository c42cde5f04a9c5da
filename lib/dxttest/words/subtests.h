// The subtests a worker runs, in their order, with the messages that start
// and end each and the statuses it can end a worker with; and, from what a
// worker said last, which of them it was in when it failed.
#ifndef TARNEL_DXTTEST_SUBTESTS_H
#define TARNEL_DXTTEST_SUBTESTS_H

#include <cstdint>
#include <span>

namespace dxt {

struct subtest {
    char name[40];
    int32_t mask_bit;    // its bit of test_mask
    int start_message;   // 0: none
    int end_message;     // 0: none
    bool compares;       // may end a worker with the miscompare status -1
    bool allocates;      // may end a worker with the no-memory status 12
    bool fails_after_end;  // says its end message before it returns its miscompare
    bool skips_without_memory = false;  // carries on past a kernel that could not get its memory
};

std::span<const subtest> subtests();
int subtest_started_by(int number);  // its index, or -1
int subtest_ended_by(int number);    // its index, or -1
// The subtest named by a message that ends the run from a worker (the
// Write/Read/Verify test's miscompare and allocation failure), or -1.
int subtest_ending_with(int number);
// The bits of test_mask that select a subtest.
int32_t subtest_bits();
const char *subtest_name(int index);

// Whether a message that ends the run (4001, 4002), or a worker's exit
// status (12), says a subtest could not get its memory.
bool lacks_memory(int number);
bool lacks_memory_status(intptr_t status);

// The subtests, by index into subtests(), one of which was running.
struct subtest_set {
    int count = 0;
    int index[16] = {};
};

// Which subtest ended a worker: the one it started last when that one has
// an end message it did not reach; otherwise one of the selected subtests
// after it (from the first when it started none) that announce no start,
// since a subtest with a start message announces it before it can fail.
// A known status keeps those that can end a worker with it, unless that
// keeps none. A worker still running (hung) may also be in the subtest it
// started last when that one says no end.
subtest_set possible_subtests(int32_t mask, int last_started, bool last_ended, bool status_known, intptr_t status,
                              bool running = false);

}  // namespace dxt

#endif
