// The random sources from scripted draws: pattern words, bounded draws and
// offset lists with their sizes, bounds and failure.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fakes.h"
#include "util/l2_util.h"

namespace {

class random_sources : public ::testing::Test {
protected:
    void SetUp() override { fake::reset(); }
};

TEST_F(random_sources, pattern_words_and_bounded_draws)
{
    fake::script_lrand48({0x7FFFFFFF, 0x12345678, 5, 0x7FFFABCD, 0x7FFFFFFF, 20, 20});
    EXPECT_EQ(l2_getrandom(1), 0u);
    // High half: the low 16 bits ORed with bits 16-30 of the draw.
    EXPECT_EQ(l2_getrandom(0xFFFFFFFF), (0x12345678u << 16 | 0x12345678u));
    EXPECT_EQ(l2_getrandom(3), 0x00020002u);
    EXPECT_EQ(l2_getrandom(0xFFFFFFFF) & 0xFFFF, 0xABCDu);
    EXPECT_EQ(l2_get32random(0), 0x7FFFFFFFu);  // 0: the full range
    EXPECT_EQ(l2_get32random(7), 6u);
    EXPECT_EQ(l2_get32random(2), 0u);
    EXPECT_EQ(fake::lrand48_calls(), 7);
}

TEST_F(random_sources, offset_list_size_comes_from_the_low_11_bits_even_when_malloc_fails)
{
    const struct {
        long size_draw;
        uint32_t entries;
    } cases[] = {{0, 0},      {1, 1},      {4, 1},      {5, 2},          {2044, 511},
                 {2045, 512}, {2046, 512}, {2047, 512}, {0x7FFFF800, 0}, {0x7FFFF803, 1}};
    for (const auto &c : cases) {
        fake::reset();
        fake::script_lrand48({c.size_draw});
        uint32_t entries = 999;
        uint32_t *list = l2_get_randbuf(100, &entries);
        EXPECT_EQ(entries, c.entries) << c.size_draw;
        EXPECT_EQ(fake::lrand48_calls(), static_cast<int>(1 + c.entries)) << "one draw per entry";
        free(list);
    }

    fake::reset();
    fake::script_lrand48({40});
    fake::fail_next_malloc();
    uint32_t entries = 0;
    EXPECT_EQ(l2_get_randbuf(64, &entries), nullptr);
    EXPECT_EQ(entries, 10u) << "a failed list still reports its size";
    EXPECT_EQ(fake::lrand48_calls(), 1) << "no entry drawn for a list that does not exist";
}

TEST_F(random_sources, offsets_are_reduced_modulo_the_bound_in_draw_order)
{
    fake::script_lrand48({12, 1000, 1001, 7});  // 12 bytes: 3 entries
    uint32_t entries = 0;
    uint32_t *list = l2_get_randbuf(1000, &entries);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(std::vector<uint32_t>(list, list + entries), (std::vector<uint32_t>{0, 1, 7}));
    free(list);

    // Unscripted draws: every entry still indexes inside the region.
    uint32_t *many = l2_get_randbuf(1024, &entries);
    ASSERT_NE(many, nullptr);
    for (uint32_t i = 0; i < entries; i++)
        ASSERT_LT(many[i], 1024u);
    free(many);
}

}  // namespace
