// The subtests a worker runs (subtests.h).
#include "subtests.h"

#include <iterator>

#include "testinfo.h"

namespace dxt {

namespace {

// The statuses a subtest ends a worker with.
constexpr intptr_t miscompare_status = -1;
constexpr intptr_t no_memory_status = 12;

// The sequence a worker runs, in its order. Only the Cache Hit Stress test
// treats a kernel's missing memory as a skip, so it alone never ends a
// worker with 12; the Write/Read/Verify test ends the run itself (6000,
// 4001) and so never ends a worker at all; tests that only make traffic
// never end one with -1.
constexpr subtest sequence[] = {
    {"Write/Read/Verify", TEST_WRRDVR, MSG_WRRDVR_START, 0, false, false, false},
    // Its kernels are skipped, not failed, when their memory cannot be had.
    {"Cache Hit Stress", TEST_CACHE_HIT, 0, 0, true, false, false, true},
    {"Cache Miss Stress", TEST_CACHE_MISS, 0, 0, false, true, false},
    {"Random Swap", TEST_RANDOM_SWAP, MSG_SWAP_START, MSG_SWAP_END, false, true, false},
    {"CPU-cache interconnect", TEST_INTERCONNECT, MSG_INTERCONNECT_START, MSG_INTERCONNECT_END, false, true, false},
    {"30N March with variable stride length", TEST_MARCHES, MSG_MARCH_VAR_START, MSG_MARCH_VAR_END, false, true,
     false},
    {"30N March with line-length striding", TEST_MARCHES, MSG_MARCH_LINE_START, MSG_MARCH_LINE_END, false, true,
     false},
    // The row- and column-striding marches release their buffer and say
    // their end message before they return a miscompare.
    {"March with row striding", TEST_MARCHES, MSG_ROW_MARCH_START, MSG_ROW_MARCH_END, true, true, true},
    {"March with column striding", TEST_MARCHES, MSG_COL_MARCH_START, MSG_COL_MARCH_END, true, true, true},
    {"Random Offset", TEST_RANDOM_OFFSET, 0, 0, true, true, false},
};

}  // namespace

std::span<const subtest> subtests() { return sequence; }

const char *subtest_name(int index) { return sequence[static_cast<size_t>(index)].name; }

int32_t subtest_bits()
{
    int32_t bits = 0;
    for (const subtest &s : sequence)
        bits |= s.mask_bit;
    return bits;
}

int subtest_started_by(int number)
{
    for (size_t i = 0; i < std::size(sequence); i++)
        if (number != 0 && sequence[i].start_message == number)
            return static_cast<int>(i);
    return -1;
}

int subtest_ended_by(int number)
{
    for (size_t i = 0; i < std::size(sequence); i++)
        if (number != 0 && sequence[i].end_message == number)
            return static_cast<int>(i);
    return -1;
}

int subtest_ending_with(int number)
{
    return number == MSG_MISCOMPARE || number == MSG_WRRDVR_NO_MEMORY ? 0 : -1;
}

bool lacks_memory(int number) { return number == MSG_WRRDVR_NO_MEMORY || number == MSG_NO_MEMORY; }

bool lacks_memory_status(intptr_t status) { return status == no_memory_status; }

subtest_set possible_subtests(int32_t mask, int last_started, bool last_ended, bool status_known, intptr_t status,
                              bool running)
{
        subtest_set after;
    if (last_started >= 0 && sequence[static_cast<size_t>(last_started)].end_message != 0 && !last_ended) {
        after.index[after.count++] = last_started;
        return after;
    }
    // A march that ends before it returns its miscompare is still a
    // candidate; so is the last one started, for a worker still in it.
    bool ends_first = last_started >= 0 && sequence[static_cast<size_t>(last_started)].fails_after_end;
    if (last_started >= 0 && (last_ended ? ends_first && !running : running))
        after.index[after.count++] = last_started;
    for (size_t i = static_cast<size_t>(last_started + 1); i < std::size(sequence); i++) {
        if ((mask & sequence[i].mask_bit) == 0)
            continue;
        if (sequence[i].start_message != 0)
            break;
        after.index[after.count++] = static_cast<int>(i);
    }
    if (!status_known || (status != miscompare_status && status != no_memory_status))
        return after;
    subtest_set fitting;
    for (int k = 0; k < after.count; k++) {
        const subtest &s = sequence[static_cast<size_t>(after.index[k])];
        bool over = after.index[k] == last_started;  // it said its end: only its miscompare is left
        if (status == miscompare_status ? s.compares : s.allocates && !over)
            fitting.index[fitting.count++] = after.index[k];
    }
    return fitting.count > 0 ? fitting : after;
}

}  // namespace dxt
