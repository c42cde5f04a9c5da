// The write/read/verify test: its buffer, its draws, the interleaved
// pattern it leaves behind, and its allocation failure.
#include <unistd.h>

#include <cstdint>

#include "harness/testinfo.h"
#include "stress/l2cache.h"
#include "stress_fixture.h"

namespace {

using wrrdvr = stress_fixture;

TEST_F(wrrdvr, zero_passes_allocate_announce_and_free_without_drawing)
{
    EXPECT_EQ(cache_wrrdvr_stress(nullptr, 256, 2, 0), 0);
    ASSERT_EQ(fake::memalign_results().size(), 1u);
    const fake::range block = fake::memalign_results()[0];
    EXPECT_EQ(block.length, 2u * 2 * 256);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block.address) % static_cast<uintptr_t>(sysconf(_SC_PAGESIZE)), 0u);
    EXPECT_TRUE(fake::mlock_calls().empty());  // this buffer is never locked
    EXPECT_EQ(message_log(), std::vector<std::string>{"0 7 -: #3"});
    EXPECT_EQ(fake::lrand48_calls(), 0);
    ASSERT_EQ(freed::blocks().size(), 1u);
    for (uint8_t byte : freed::blocks()[0].bytes)
        ASSERT_EQ(byte, FILL_BYTE);
}

TEST_F(wrrdvr, regions_hold_two_interleaved_sequences_from_the_last_start)
{
    // Two passes: the draw 0x10 gives the second start 0x00100010. With
    // ways 3 only the first two cache sizes of the six are touched.
    fake::script_lrand48({0x2345, 0x10});
    EXPECT_EQ(cache_wrrdvr_stress(nullptr, 64, 3, 2), 0);
    EXPECT_EQ(fake::lrand48_calls(), 2);
    ASSERT_EQ(freed::blocks().size(), 1u);
    const freed::block &b = freed::blocks()[0];
    ASSERT_EQ(b.bytes.size(), 2u * 3 * 64);
    for (uint32_t i = 0; i < 16; i++) {
        EXPECT_EQ(b.word(i), 0x00100010u + 2 * i) << i;
        EXPECT_EQ(b.word(16 + i), 0x00100011u + 2 * i) << i;
    }
    for (uint32_t i = 32; i < 96; i++)
        EXPECT_EQ(b.word(i), FILL_WORD) << i;
}

TEST_F(wrrdvr, the_pattern_wraps_through_zero)
{
    fake::script_lrand48({0x7FFFFFFF});  // start 0xFFFFFFFF
    EXPECT_EQ(cache_wrrdvr_stress(nullptr, 16, 1, 1), 0);
    const freed::block &b = freed::blocks().at(0);
    EXPECT_EQ(b.word(0), 0xFFFFFFFFu);
    EXPECT_EQ(b.word(4), 0x00000000u);
    EXPECT_EQ(b.word(1), 0x00000001u);
    EXPECT_EQ(b.word(7), 0x00000006u);
}

TEST_F(wrrdvr, a_cache_below_one_word_still_draws_every_pass)
{
    EXPECT_EQ(cache_wrrdvr_stress(nullptr, 3, 1, 3), 0);
    EXPECT_EQ(fake::lrand48_calls(), 3);
}

TEST_F(wrrdvr, the_fifth_allocation_attempt_is_the_last)
{
    fake::fail_memalign(1, 4);
    EXPECT_EQ(cache_wrrdvr_stress(nullptr, 64, 1, 1), 0);
    EXPECT_EQ(fake::memalign_calls(), 5);

    fake::reset();
    fake::fail_memalign(1, 5);
    try {
        cache_wrrdvr_stress(nullptr, 64, 1, 1);
        FAIL() << "message 4001 must end the process";
    } catch (const fake::exit_request &request) {
        EXPECT_EQ(request.exit_flag, DXT_STEP_FAIL);
        EXPECT_EQ(request.number, MSG_WRRDVR_NO_MEMORY);
    }
    EXPECT_EQ(fake::memalign_calls(), 5);
    EXPECT_EQ(message_log(), std::vector<std::string>{"1 3 -: #4001"});
    EXPECT_EQ(fake::lrand48_calls(), 0);
}

}  // namespace
