// The six-element marches with row and column striding: their messages and
// buffers, the pattern choice, and the words each leaves behind.
#include <cstdint>

#include "stress/l2cache.h"
#include "stress_fixture.h"

namespace {

using row_column_march = stress_fixture;

const uint32_t table[] = {0xFFFFFFFF, 0x00000000, 0xAAAAAAAA, 0xF0F0F0F0, 0x33333333, 0xCCCCCCCC};

TEST_F(row_column_march, each_choice_of_six_leaves_its_table_pattern)
{
    for (long k = 0; k < 6; k++) {
        fake::reset();
        freed::reset();
        fake::script_lrand48({k, 7 + k});  // the second draw is the same choice again
        EXPECT_EQ(cache_march_stress2(nullptr, 64, 2), 0);
        EXPECT_EQ(fake::lrand48_calls(), 2);
        for (uint32_t i = 0; i < 16; i++)
            ASSERT_EQ(freed::blocks().at(0).word(i), table[k]) << k;
    }
}

TEST_F(row_column_march, the_seventh_choice_is_a_raw_draw)
{
    fake::script_lrand48({6, 0x7654321});
    EXPECT_EQ(cache_march_stress1(nullptr, 32, 16, 1), 0);
    EXPECT_EQ(fake::lrand48_calls(), 2);
    ASSERT_EQ(fake::memalign_results().at(0).length, 64u);
    for (uint32_t i = 0; i < 16; i++)
        EXPECT_EQ(freed::blocks().at(0).word(i), 0x7654321u) << i;
}

TEST_F(row_column_march, rows_count_the_full_line_and_columns_whole_words)
{
    // Line 18: 128 / 18 = 7 rows, 4 words a row, a 16-byte pitch: the
    // words from row 7 on are never visited.
    fake::script_lrand48({1});
    EXPECT_EQ(cache_march_stress1(nullptr, 64, 18, 1), 0);
    for (uint32_t i = 0; i < 32; i++)
        EXPECT_EQ(freed::blocks().at(0).word(i), i < 28 ? 0u : FILL_WORD) << i;

    // Line 2: no whole word in a line; each pass only draws its pattern.
    fake::reset();
    freed::reset();
    EXPECT_EQ(cache_march_stress1(nullptr, 64, 2, 3), 0);
    EXPECT_EQ(fake::lrand48_calls(), 3);
}

TEST_F(row_column_march, announce_allocate_release_then_end)
{
    EXPECT_EQ(cache_march_stress1(nullptr, 64, 64, 0), 0);
    EXPECT_EQ(cache_march_stress2(nullptr, 64, 0), 0);
    EXPECT_EQ(message_log(), (std::vector<std::string>{
                                 "0 8 l2cache: L2 March test with row striding",
                                 "0 7 -: #9",
                                 "0 7 -: #10",
                                 "0 8 l2cache: L2 March test with column striding",
                                 "0 7 -: #11",
                                 "0 7 -: #12",
                             }));
    EXPECT_EQ(fake::lrand48_calls(), 0);
    ASSERT_EQ(freed::blocks().size(), 2u);
    EXPECT_EQ(freed::blocks()[0].messages_before, 2u);  // freed before message 10
    EXPECT_EQ(freed::blocks()[0].bytes.size(), 128u);
    EXPECT_EQ(freed::blocks()[1].bytes.size(), 64u);
    EXPECT_EQ(fake::mlock_calls().size(), 2u);
    EXPECT_EQ(fake::munlock_calls().size(), 2u);
}

TEST_F(row_column_march, unlock_failures_come_before_the_end_message)
{
    fake::fail_munlock(true);
    EXPECT_EQ(cache_march_stress1(nullptr, 64, 64, 1), 0);
    EXPECT_EQ(cache_march_stress2(nullptr, 64, 1), 0);
    EXPECT_EQ(message_log(), (std::vector<std::string>{
                                 "0 8 l2cache: L2 March test with row striding",
                                 "0 7 -: #9",
                                 "0 8 l2cache: cache_miss munlock failed!!\n",
                                 "0 7 -: #10",
                                 "0 8 l2cache: L2 March test with column striding",
                                 "0 7 -: #11",
                                 "0 8 l2cache: cache_miss munlock failed!!\n",
                                 "0 7 -: #12",
                             }));
}

TEST_F(row_column_march, a_failed_lock_is_silent_and_never_undone)
{
    fake::fail_mlock(true);
    EXPECT_EQ(cache_march_stress1(nullptr, 64, 64, 1), 0);
    EXPECT_EQ(cache_march_stress2(nullptr, 64, 1), 0);
    EXPECT_EQ(fake::count_of(0), 2);  // the two test names only
    EXPECT_TRUE(fake::munlock_calls().empty());
}

TEST_F(row_column_march, without_a_buffer_only_the_start_is_announced)
{
    fake::fail_memalign(1, 2);
    EXPECT_EQ(cache_march_stress1(nullptr, 64, 64, 1), 12);
    EXPECT_EQ(cache_march_stress2(nullptr, 64, 1), 12);
    EXPECT_EQ(fake::numbers(), (std::vector<int>{0, 9, 0, 11}));
    EXPECT_EQ(fake::memalign_calls(), 2);
    EXPECT_EQ(fake::lrand48_calls(), 0);
}

}  // namespace
