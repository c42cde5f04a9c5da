// The random offset test: the order and number of its draws, the words its
// offset lists reach, the pass value's doubling, and a list that cannot be
// allocated.
#include <cstdint>

#include "stress/l2cache.h"
#include "stress_fixture.h"

namespace {

using rand_off = stress_fixture;

// Size draws for l2_get_randbuf: 4 bytes per entry.
constexpr long entries(long n) { return 4 * n; }

TEST_F(rand_off, phases_draw_their_own_lists_between_the_starting_patterns)
{
    uint32_t buffer[16];
    std::fill(buffer, buffer + 16, FILL_WORD);
    fake::script_lrand48({
        0x8001,                  // first starting pattern: 0x80018001
        entries(3), 3, 5, 19,    // store list: words 3, 5, 3 (19 mod 16)
        0x40,                    // second starting pattern, raw
        entries(2), 7, 9,        // store-and-check list
        entries(1), 11,          // load list
    });
    EXPECT_EQ(cache_rand_off_stress(buffer, 64, 2), 0);
    EXPECT_EQ(fake::lrand48_calls(), 11);
    for (uint32_t i = 0; i < 16; i++) {
        uint32_t expected = FILL_WORD;
        if (i == 3 || i == 5)
            expected = 0x00030002;  // the second pass: bit 31 shifted out
        if (i == 7 || i == 9)
            expected = 0x80;
        EXPECT_EQ(buffer[i], expected) << i;
    }
}

TEST_F(rand_off, zero_passes_still_draw_every_list_and_pattern)
{
    uint32_t buffer[16];
    std::fill(buffer, buffer + 16, FILL_WORD);
    fake::script_lrand48({1, entries(2), 1, 2, 1, entries(1), 3, entries(0)});
    EXPECT_EQ(cache_rand_off_stress(buffer, 64, 0), 0);
    EXPECT_EQ(fake::lrand48_calls(), 8);
    for (uint32_t w : buffer)
        EXPECT_EQ(w, FILL_WORD);
}

TEST_F(rand_off, the_pass_value_reaches_zero_on_the_33rd_pass)
{
    uint32_t buffer[4] = {};
    fake::script_lrand48({entries(1), 2});
    EXPECT_EQ(rand_off_wr_loop(buffer, 4, 32, 1), 0);
    EXPECT_EQ(buffer[2], 0x80000000u);
    fake::script_lrand48({entries(1), 2, entries(1), 1});
    EXPECT_EQ(rand_off_wr_loop(buffer, 4, 33, 1), 0);
    EXPECT_EQ(rand_off_wrrdvrfy_loop(buffer, 4, 33, 1), 0);
    EXPECT_EQ(buffer[2], 0u);
    EXPECT_EQ(buffer[1], 0u);
}

TEST_F(rand_off, a_list_that_cannot_be_allocated_gives_12)
{
    uint32_t buffer[16];
    std::fill(buffer, buffer + 16, FILL_WORD);
    fake::script_lrand48({1, entries(2)});
    fake::fail_next_malloc();
    EXPECT_EQ(cache_rand_off_stress(buffer, 64, 1), 12);
    EXPECT_EQ(fake::lrand48_calls(), 2);  // no entries, no second pattern

    fake::script_lrand48({entries(2), 1, 2});
    fake::fail_next_malloc();
    EXPECT_EQ(rand_off_wrrdvrfy_loop(buffer, 16, 1, 7), 12);
    fake::fail_next_malloc();
    EXPECT_EQ(rand_off_rd_loop(buffer, 16, 1), 12);
    for (uint32_t w : buffer)
        EXPECT_EQ(w, FILL_WORD);
}

}  // namespace
