// The random swap test: its twelve passes and their draws, the blocks its
// fills and sweeps touch, the swap walk's word index, and its buffers.
#include <cstdint>

#include "stress/l2cache.h"
#include "stress_fixture.h"

namespace {

using random_swap = stress_fixture;

// The draws of a whole run: the first pass's pattern, one stride per pass,
// the last pass's pattern before its stride.
std::vector<long> draws(long first, long stride, long last, long last_stride)
{
    std::vector<long> d = {first};
    for (int pass = 1; pass <= 11; pass++)
        d.push_back(stride);
    d.push_back(last);
    d.push_back(last_stride);
    return d;
}

TEST_F(random_swap, fills_and_sweeps_touch_words_0_to_3_of_blocks_in_the_region)
{
    // 256 bytes: a region of 32 words, four blocks. A stride of 0 keeps
    // the swap walk on word 0.
    fake::script_lrand48(draws(0x1111, 0, 0x2222, 0));
    EXPECT_EQ(crand(nullptr, 256), 0);
    EXPECT_EQ(fake::lrand48_calls(), 14);
    ASSERT_EQ(freed::blocks().size(), 2u);
    for (const freed::block &chunk : freed::blocks()) {
        ASSERT_EQ(chunk.bytes.size(), 256u);
        for (uint32_t i = 0; i < 64; i++)
            EXPECT_EQ(chunk.word(i), i < 32 && i % 8 < 4 ? 0x22222222u : FILL_WORD) << i;
    }
}

TEST_F(random_swap, the_swap_walk_masks_to_the_cache_and_stays_in_the_region)
{
    // A stride of 264: the masked accumulator steps by 8, word index by 1,
    // over words 0 to 31 of both buffers.
    fake::script_lrand48(draws(1, 0, 3, 264));
    EXPECT_EQ(crand(nullptr, 256), 0);
    for (const freed::block &chunk : freed::blocks())
        for (uint32_t i = 0; i < 64; i++)
            EXPECT_EQ(chunk.word(i), i < 32 ? 0x00030003u : FILL_WORD) << i;
}

TEST_F(random_swap, a_cache_without_a_whole_block_only_swaps)
{
    // 32 bytes: four swap steps over words 0 to 3, no block in the region.
    fake::script_lrand48(draws(1, 0, 5, 8));
    EXPECT_EQ(crand(nullptr, 32), 0);
    for (const freed::block &chunk : freed::blocks())
        for (uint32_t i = 0; i < 8; i++)
            EXPECT_EQ(chunk.word(i), i < 4 ? 0x00050005u : FILL_WORD) << i;
}

TEST_F(random_swap, announces_its_start_and_end)
{
    EXPECT_EQ(crand(nullptr, 64), 0);
    EXPECT_EQ(message_log(), (std::vector<std::string>{"0 7 -: #6", "0 7 -: #8"}));
    EXPECT_EQ(fake::lrand48_calls(), 14);
    ASSERT_EQ(fake::memalign_results().size(), 2u);
    EXPECT_EQ(fake::mlock_calls().size(), 2u);
    EXPECT_EQ(fake::munlock_calls().size(), 2u);
}

TEST_F(random_swap, sixteen_attempts_for_each_buffer)
{
    fake::fail_memalign(1, 15);
    EXPECT_EQ(crand(nullptr, 64), 0);
    EXPECT_EQ(fake::memalign_calls(), 17);

    for (int first : {1, 2}) {
        fake::reset();
        freed::reset();
        fake::fail_memalign(first, 16);  // chunk1's or chunk2's attempts all fail
        EXPECT_EQ(crand(nullptr, 64), 12);
        EXPECT_EQ(fake::memalign_calls(), 17);
        EXPECT_EQ(message_log(), (std::vector<std::string>{"0 7 -: #6", "0 3 -: #4002"}));
        EXPECT_EQ(freed::blocks().size(), 1u);  // the one obtained is released
        EXPECT_EQ(freed::blocks().at(0).messages_before, 2u);
        EXPECT_TRUE(fake::mlock_calls().empty());
        EXPECT_EQ(fake::lrand48_calls(), 0);
    }
}

TEST_F(random_swap, lock_failures_are_per_buffer)
{
    fake::fail_mlock(true);
    EXPECT_EQ(crand(nullptr, 64), 0);
    EXPECT_EQ(message_log(), (std::vector<std::string>{
                                 "0 7 -: #6",
                                 "0 8 morvantest: random loop chunk1 mlock failed!!\n",
                                 "0 8 morvantest: random loop chunk2 mlock failed!!\n",
                                 "0 7 -: #8",
                             }));
    EXPECT_TRUE(fake::munlock_calls().empty());

    fake::reset();
    fake::fail_munlock(true);
    EXPECT_EQ(crand(nullptr, 64), 0);
    EXPECT_EQ(message_log(), (std::vector<std::string>{
                                 "0 7 -: #6",
                                 "0 7 -: #8",
                                 "0 8 morvantest: random loop chunk1 munlock failed!!\n",
                                 "0 8 morvantest: random loop chunk2 munlock failed!!\n",
                             }));
}

}  // namespace
