// The cache miss stress test: the column kernels' column order, element
// widths and values, the set-trashing walk in its four modes, and how the
// test runs them on its two double-size buffers.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "stress/l2cache.h"
#include "stress_fixture.h"

namespace {

using miss = stress_fixture;

struct words64 {
    uint32_t w[16];
    explicit words64(uint32_t fill) { std::fill(w, w + 16, fill); }
};

TEST_F(miss, writemiss_stores_whole_columns_and_doubles_after_each_pass)
{
    words64 m(0xEEEEEEEE);
    EXPECT_EQ(cache_writemiss(m.w, 64, 16, 2, 0x80000001), 0);
    for (uint32_t i = 0; i < 16; i++)
        EXPECT_EQ(m.w[i], 2u) << i;

    // Stride 6: ten blocks with a 4-byte step and one column.
    words64 n(0xEEEEEEEE);
    EXPECT_EQ(cache_writemiss(n.w, 64, 6, 1, 7), 0);
    for (uint32_t i = 0; i < 16; i++)
        EXPECT_EQ(n.w[i], i < 10 ? 7u : 0xEEEEEEEEu) << i;

    words64 o(0xEEEEEEEE);
    EXPECT_EQ(cache_writemiss(o.w, 60, 16, 1, 7), 0);  // three whole blocks
    EXPECT_EQ(o.w[11], 7u);
    EXPECT_EQ(o.w[12], 0xEEEEEEEEu);
    EXPECT_EQ(cache_writemiss(o.w, 64, 3, 5, 7), 0);   // no column
    EXPECT_EQ(o.w[15], 0xEEEEEEEEu);
}

TEST_F(miss, writemissfp_stores_doubles_scaled_after_each_pass)
{
    double d[8];
    std::fill(d, d + 8, -1.0);
    EXPECT_EQ(cache_writemissfp(d, 64, 16, 2, 1.0), 0);
    double second = 1.0 * 1.5 / 1.75;
    for (double x : d)
        EXPECT_EQ(x, second);

    // Stride 12: five blocks with an 8-byte step and one column.
    std::fill(d, d + 8, -1.0);
    EXPECT_EQ(cache_writemissfp(d, 64, 12, 1, 3.0), 0);
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(d[i], i < 5 ? 3.0 : -1.0) << i;
}

TEST_F(miss, readmiss_write_multiplies_every_word_by_the_pattern)
{
    words64 m(0);
    for (uint32_t i = 0; i < 16; i++)
        m.w[i] = i + 1;
    EXPECT_EQ(cache_readmiss_write(m.w, 64, 16, 2, 3), 0);
    for (uint32_t i = 0; i < 16; i++)
        EXPECT_EQ(m.w[i], 9 * (i + 1)) << i;
}

TEST_F(miss, writemiss_read_doubles_per_element_in_column_order)
{
    // Four blocks of four words: column j of block k is the element
    // 4 j + k of the walk and holds 1 << (4 j + k); the sum lands on word 0.
    words64 m(0xEEEEEEEE);
    EXPECT_EQ(cache_writemiss_read(m.w, 64, 16, 1, 1), 0);
    EXPECT_EQ(m.w[0], 0xFFFFu);
    for (uint32_t k = 0; k < 4; k++)
        for (uint32_t j = 0; j < 4; j++)
            if (j + k != 0) {
                EXPECT_EQ(m.w[4 * k + j], 1u << (4 * j + k)) << k << "," << j;
            }

    // The doubling carries into the second pass: 1 << 16 .. 1 << 31.
    EXPECT_EQ(cache_writemiss_read(m.w, 64, 16, 2, 1), 0);
    EXPECT_EQ(m.w[0], 0xFFFFFFFFu);
    EXPECT_EQ(m.w[15], 0x80000000u);

    words64 n(0xEEEEEEEE);
    EXPECT_EQ(cache_writemiss_read(n.w, 64, 16, 0, 1), 0);
    EXPECT_EQ(n.w[0], 0u);
    EXPECT_EQ(n.w[1], 0xEEEEEEEEu);
}

TEST_F(miss, writemissfp_read_scales_per_element_in_column_order)
{
    // Four blocks of two doubles: element j of block k holds 1.5^(4 j + k).
    double d[8];
    EXPECT_EQ(cache_writemissfp_read(d, 64, 16, 1, 1.0), 0);
    EXPECT_EQ(d[0], 49.2578125);  // 1 + 1.5 + ... + 1.5^7, all exact
    EXPECT_EQ(d[2], 1.5);
    EXPECT_EQ(d[1], 5.0625);
    EXPECT_EQ(d[7], 17.0859375);

    EXPECT_EQ(cache_writemissfp_read(d, 64, 16, 1, 1e308), 0);
    EXPECT_EQ(d[2], 1.5e308);
    EXPECT_TRUE(std::isinf(d[4]));
    EXPECT_TRUE(std::isinf(d[0]));

    std::fill(d, d + 8, -1.0);
    EXPECT_EQ(cache_writemissfp_read(d, 64, 16, 0, 1.0), 0);
    EXPECT_EQ(d[0], 0.0);
    EXPECT_EQ(d[1], -1.0);
}

// 256 bytes, 16-byte stride, two ways: eight sets 16 bytes apart, the
// second way 128 bytes after the first.
TEST_F(miss, sets_trash_walks_set_by_set_with_the_pattern_doubling_per_store)
{
    for (int mode : {1, 3}) {
        uint32_t m[64];
        std::fill(m, m + 64, 0xEEEEEEEE);
        EXPECT_EQ(cache_sets_trash(m, 256, 16, 2, 2, 1, mode), 0);
        for (uint32_t i = 0; i < 64; i++) {
            uint32_t expected = 0xEEEEEEEE;
            if (i % 4 == 0)  // set i / 4 (way 0) or set i / 4 - 8 (way 1); the second pass wins
                expected = i < 32 ? 1u << (4 * (i / 4) + 2) : 1u << (4 * (i / 4 - 8) + 3);
            EXPECT_EQ(m[i], expected) << "mode " << mode << " word " << i;
        }
    }
}

TEST_F(miss, sets_trash_reads_or_multiplies_without_changing_the_pattern)
{
    uint32_t m[64];
    std::fill(m, m + 64, 3);
    EXPECT_EQ(cache_sets_trash(m, 256, 16, 2, 2, 5, 2), 0);
    for (uint32_t w : m)
        EXPECT_EQ(w, 3u);
    EXPECT_EQ(cache_sets_trash(m, 256, 16, 2, 2, 5, 4), 0);
    for (uint32_t i = 0; i < 64; i++)
        EXPECT_EQ(m[i], i % 4 == 0 ? 75u : 3u) << i;
}

TEST_F(miss, sets_trash_rounds_its_steps_to_whole_words)
{
    // Stride 18: 256 / 36 = 7 sets; the way step 126 becomes 124, the set
    // step 16.
    uint32_t m[64];
    std::fill(m, m + 64, 0);
    EXPECT_EQ(cache_sets_trash(m, 256, 18, 2, 1, 1, 1), 0);
    for (uint32_t s = 0; s < 7; s++) {
        EXPECT_EQ(m[4 * s], 1u << (2 * s)) << s;
        EXPECT_EQ(m[4 * s + 31], 1u << (2 * s + 1)) << s;
    }
    EXPECT_EQ(m[28], 0u);

    std::fill(m, m + 64, 0);
    EXPECT_EQ(cache_sets_trash(m, 16, 16, 2, 1, 1, 1), 0);  // no set
    EXPECT_EQ(cache_sets_trash(m, 256, 16, 2, 1, 1, 5), 0); // no such mode
    for (uint32_t w : m)
        EXPECT_EQ(w, 0u);
}

// cache_size 32, line 16: two 64-byte buffers of four blocks of four words
// (or two doubles). The last kernel to store decides the final contents.
TEST_F(miss, runs_the_column_kernels_then_the_set_kernels_on_its_two_buffers)
{
    const uint32_t p = 0x00030003;
    for (uint32_t ways : {1u, 0xFFFFFFFFu, 2u}) {
        SCOPED_TRACE(ways);
        fake::reset();
        freed::reset();
        fake::script_lrand48({3});
        fake::script_drand48({0.5});
        EXPECT_EQ(cache_miss_stress(nullptr, 32, 16, ways, 1), 0);
        EXPECT_EQ(fake::lrand48_calls(), 2);  // the pattern, the column read kernel's sum
        EXPECT_EQ(fake::drand48_calls(), 1);
        ASSERT_EQ(fake::memalign_results().size(), 2u);
        EXPECT_EQ(fake::memalign_results()[0].length, 64u);
        EXPECT_EQ(fake::memalign_results()[1].length, 64u);
        ASSERT_EQ(freed::blocks().size(), 2u);
        const freed::block &ints = freed::blocks()[0];  // released first
        const freed::block &fps = freed::blocks()[1];
        EXPECT_EQ(ints.address, fake::memalign_results()[0].address);

        uint32_t expected[16];
        for (uint32_t k = 0; k < 4; k++)
            for (uint32_t j = 0; j < 4; j++)
                expected[4 * k + j] = p << (4 * j + k);
        expected[0] = p * 0xFFFF;
        if (ways == 2) {
            // Two sets of two ways, each word once per mode: the last
            // mode multiplies what modes 1 and 3 stored.
            expected[0] = p * p;
            expected[8] = (p << 1) * p;
            expected[4] = (p << 2) * p;
            expected[12] = (p << 3) * p;
        }
        for (uint32_t i = 0; i < 16; i++)
            EXPECT_EQ(ints.word(i), expected[i]) << i;

        double value = 0.5 * 1024.0, sum = 0.0, stored[8];
        for (uint32_t j = 0; j < 2; j++)
            for (uint32_t k = 0; k < 4; k++) {
                stored[2 * k + j] = value;
                value *= 1.5;
                sum += stored[2 * k + j];
            }
        stored[0] = sum;
        for (int i = 0; i < 8; i++)
            EXPECT_EQ(fps.f64(i), stored[i]) << i;
    }
}

TEST_F(miss, without_a_buffer_returns_12_before_drawing)
{
    fake::fail_memalign(1, 1);
    EXPECT_EQ(cache_miss_stress(nullptr, 32, 16, 2, 1), 12);
    EXPECT_EQ(fake::memalign_calls(), 1);

    fake::reset();
    fake::fail_memalign(2, 1);
    EXPECT_EQ(cache_miss_stress(nullptr, 32, 16, 2, 1), 12);
    ASSERT_EQ(fake::munlock_calls().size(), 1u);  // the integer buffer, released
    EXPECT_EQ(fake::munlock_calls()[0].address, fake::memalign_results()[0].address);
    EXPECT_EQ(fake::lrand48_calls(), 0);
    EXPECT_EQ(fake::drand48_calls(), 0);
    EXPECT_TRUE(fake::messages().empty());
}

TEST_F(miss, lock_texts_name_the_buffer)
{
    fake::fail_mlock(true);
    EXPECT_EQ(cache_miss_stress(nullptr, 32, 16, 2, 1), 0);
    EXPECT_EQ(message_log(), (std::vector<std::string>{
                                 "0 8 l2cache: cache_miss mlock failed!!\n",
                                 "0 8 l2cache: cache_miss mlock failed in fp!!\n",
                             }));
    EXPECT_TRUE(fake::munlock_calls().empty());

    fake::reset();
    fake::fail_munlock(true);
    EXPECT_EQ(cache_miss_stress(nullptr, 32, 16, 2, 1), 0);
    EXPECT_EQ(message_log(), (std::vector<std::string>{
                                 "0 8 l2cache: cache_miss munlock failed!!\n",
                                 "0 8 l2cache: cache_miss munlock failed in fp!!\n",
                             }));
}

}  // namespace
