// The cache hit stress test and its kernels: the ping-pong walks of the
// basic types and of the packed record, the line-stride kernel, the column
// read kernel, and how the test runs its kernels on buffers of their own.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "stress/l2cache.h"
#include "stress_fixture.h"

namespace {

using hit = stress_fixture;

uint32_t pattern_of(long draw) { return (static_cast<uint32_t>(draw) << 16) | static_cast<uint32_t>(draw); }

TEST_F(hit, one_basic_pass_leaves_each_walk_short_of_its_last_element)
{
    // 16 words, 8 double words: each phase stores elements 0 .. n-2.
    fake::script_drand48({0.375});
    fake::script_lrand48({0x12345});
    EXPECT_EQ(basic_dtype_l2cachehit_stress(nullptr, 64, 1), 0);
    const freed::block &b = freed::blocks().at(0);
    for (int i = 0; i < 7; i++)
        EXPECT_EQ(b.f64(i), 0.75) << i;
    EXPECT_EQ(b.word(14), ~0x23452345u);  // the complemented phase reached it last
    EXPECT_EQ(b.word(15), FILL_WORD);
}

TEST_F(hit, the_second_basic_pass_walks_back_over_the_last_element)
{
    fake::script_drand48({0.375});
    EXPECT_EQ(basic_dtype_l2cachehit_stress(nullptr, 64, 2), 0);
    const freed::block &b = freed::blocks().at(0);
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(b.f64(i), 0.75) << i;
}

TEST_F(hit, basic_types_draw_the_double_before_the_word)
{
    srand48(7);
    unsigned short state[3] = {0x330E, 7, 0};  // what srand48(7) sets
    double d = erand48(state);
    long r = nrand48(state);
    EXPECT_EQ(basic_dtype_l2cachehit_stress(nullptr, 64, 1), 0);
    EXPECT_EQ(freed::blocks().at(0).f64(0), 2.0 * d);
    EXPECT_EQ(freed::blocks().at(0).word(14), ~pattern_of(r));
}

TEST_F(hit, basic_types_with_zero_passes_touch_nothing)
{
    EXPECT_EQ(basic_dtype_l2cachehit_stress(nullptr, 64, 0), 0);
    EXPECT_EQ(fake::drand48_calls(), 1);
    EXPECT_EQ(fake::lrand48_calls(), 1);
    EXPECT_EQ(fake::mlock_calls().size(), 1u);
    EXPECT_EQ(fake::munlock_calls().size(), 1u);
    for (uint8_t byte : freed::blocks().at(0).bytes)
        ASSERT_EQ(byte, FILL_BYTE);
}

TEST_F(hit, kernels_without_memory_return_12_after_their_draws)
{
    fake::fail_memalign(1, 3);
    EXPECT_EQ(basic_dtype_l2cachehit_stress(nullptr, 64, 1), 12);
    EXPECT_EQ(l2cachehit_wrrdwr(nullptr, 64, 64, 1), 12);
    EXPECT_EQ(derived_dtype_test(nullptr, 64, 1), 12);
    EXPECT_EQ(fake::drand48_calls(), 1);
    EXPECT_EQ(fake::lrand48_calls(), 2);
    EXPECT_TRUE(fake::mlock_calls().empty());
    EXPECT_TRUE(fake::messages().empty());
}

TEST_F(hit, wrrdwr_reads_and_writes_every_fourth_line)
{
    // 256 words, 64-byte lines: word indices 0, 64, 128, 192. Two read
    // passes add the filled value eight times to itself.
    fake::script_lrand48({1});
    EXPECT_EQ(l2cachehit_wrrdwr(nullptr, 1024, 64, 2), 0);
    const freed::block &b = freed::blocks().at(0);
    for (uint32_t i = 0; i < 256; i++)
        EXPECT_EQ(b.word(i), i % 64 == 0 ? 0x00090009u : 0x00010001u) << i;

    freed::reset();
    fake::script_lrand48({1});
    EXPECT_EQ(l2cachehit_wrrdwr(nullptr, 1024, 64, 0), 0);
    for (uint32_t i = 0; i < 256; i++)
        EXPECT_EQ(freed::blocks().at(0).word(i), 0x00010001u) << i;
}

derived_rec record_at(const uint8_t *area, uint32_t slot)
{
    derived_rec r;
    std::memcpy(&r, area + 11 * slot, sizeof r);
    return r;
}

TEST_F(hit, derived_records_fill_whole_slots_only)
{
    const derived_rec tmpl = {-1, -2, 0x11223344, -5};
    uint8_t area[40];
    std::memset(area, 0xEE, sizeof area);
    EXPECT_EQ(derived_dtype_write(area, 40, 1, &tmpl), 0);
    for (uint32_t slot = 0; slot < 3; slot++) {
        derived_rec r = record_at(area, slot);
        EXPECT_EQ(r.c, -1);
        EXPECT_EQ(r.s, -2);
        EXPECT_EQ(r.i1, 0x11223344);
        EXPECT_EQ(r.i2, -5);
    }
    for (int i = 33; i < 40; i++)
        EXPECT_EQ(area[i], 0xEE) << i;

    std::memset(area, 0xEE, sizeof area);
    EXPECT_EQ(derived_dtype_write_read_verify(area, 40, 1, &tmpl), 0);
    EXPECT_EQ(record_at(area, 2).i2, -5);
    EXPECT_EQ(area[33], 0xEE);
}

TEST_F(hit, derived_records_without_a_slot_or_a_pass_store_nothing)
{
    const derived_rec tmpl = {1, 2, 3, 4};
    uint8_t area[40];
    std::memset(area, 0xEE, sizeof area);
    EXPECT_EQ(derived_dtype_write(area, 10, 3, &tmpl), 0);
    EXPECT_EQ(derived_dtype_write_read_verify(area, 10, 3, &tmpl), 0);
    EXPECT_EQ(derived_dtype_write(area, 40, 0, &tmpl), 0);
    EXPECT_EQ(derived_dtype_write_read_verify(area, 40, 0, &tmpl), 0);
    for (uint8_t byte : area)
        ASSERT_EQ(byte, 0xEE);
}

TEST_F(hit, derived_test_writes_zero_records)
{
    EXPECT_EQ(derived_dtype_test(nullptr, 64, 2), 0);
    const freed::block &b = freed::blocks().at(0);
    for (int i = 0; i < 64; i++)
        EXPECT_EQ(b.bytes[i], i < 55 ? 0 : FILL_BYTE) << i;
}

TEST_F(hit, readmiss_sums_whole_columns_of_whole_blocks_into_the_first_word)
{
    uint32_t words[16];
    auto fill = [&words] {
        for (uint32_t i = 0; i < 16; i++)
            words[i] = i;
    };
    struct {
        uint32_t stride, passes, sum;
    } cases[] = {
        {32, 1, 100 + 120},  // 8 columns of 2 blocks: every word
        {32, 2, 100 + 240},
        {32, 0, 100},
        {6, 1, 100 + 45},    // 10 blocks, 4-byte step, one column: words 0 to 9
        {2, 1, 100},         // no whole column
    };
    for (const auto &c : cases) {
        fill();
        fake::script_lrand48({100});
        EXPECT_EQ(cache_readmiss(words, 64, c.stride, c.passes), 0);
        EXPECT_EQ(words[0], c.sum) << "stride " << c.stride << " passes " << c.passes;
        EXPECT_EQ(words[15], 15u);
    }
}

TEST_F(hit, runs_four_kernels_each_on_a_cache_sized_buffer)
{
    // Line 12: the column kernel gets stride 6, so 10 blocks of one column.
    fake::script_lrand48({1, 2, 1000});
    EXPECT_EQ(cache_hit_stress(nullptr, 64, 12, 1), 0);
    ASSERT_EQ(fake::memalign_results().size(), 4u);
    for (const fake::range &block : fake::memalign_results())
        EXPECT_EQ(block.length, 64u);
    EXPECT_EQ(fake::drand48_calls(), 1);
    EXPECT_EQ(fake::lrand48_calls(), 3);
    EXPECT_TRUE(fake::messages().empty());
    EXPECT_EQ(freed::blocks().at(3).word(0), 1000u + 10 * FILL_WORD);
}

TEST_F(hit, a_kernel_without_memory_is_skipped)
{
    fake::fail_memalign(2, 1);
    EXPECT_EQ(cache_hit_stress(nullptr, 64, 64, 1), 0);
    EXPECT_EQ(fake::memalign_calls(), 4);
    EXPECT_EQ(fake::lrand48_calls(), 3);

    fake::reset();
    fake::fail_memalign(4, 1);  // the column kernel's buffer
    EXPECT_EQ(cache_hit_stress(nullptr, 64, 64, 1), 0);
    EXPECT_EQ(fake::lrand48_calls(), 2);
}

TEST_F(hit, each_buffer_has_its_own_lock_texts)
{
    fake::fail_mlock(true);
    EXPECT_EQ(cache_hit_stress(nullptr, 64, 64, 1), 0);
    EXPECT_EQ(message_log(), (std::vector<std::string>{
                                 "0 8 l2cache: basic_dtype, ulong mlock failed!!\n",
                                 "0 8 l2cache: l2cachehit_wrrdwr, mlock failed!!\n",
                                 "0 8 l2cache: derived_dtype mlock failed!!\n",
                                 "0 8 l2cache: cache_miss mlock failed!!\n",
                             }));
    EXPECT_TRUE(fake::munlock_calls().empty());

    fake::reset();
    fake::fail_munlock(true);
    EXPECT_EQ(cache_hit_stress(nullptr, 64, 64, 1), 0);
    EXPECT_EQ(message_log(), (std::vector<std::string>{
                                 "0 8 l2cache: basic_dtype munlock failure!!\n",
                                 "0 8 l2cache: l2cachehit_wrrdwr: munlock failed!!\n",
                                 "0 8 l2cache: derived_dtype munlock failed!!\n",
                                 "0 8 l2cache: cache_miss munlock failed!!\n",
                             }));
    EXPECT_EQ(fake::munlock_calls().size(), 4u);
}

}  // namespace
