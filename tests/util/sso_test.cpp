// Simultaneous-switching patterns from scripted draws: position, base and
// mode drawn in that order, the walking bit in every word, the group rules
// of both modes for every line width, and the refused arguments.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "fakes.h"
#include "util/l2_util.h"

namespace {

using words = std::vector<uint32_t>;

const uint32_t untouched = 0xDEADBEEF;

// Four groups of four words, as the tables give a 16-word block.
words quarters(uint32_t a, uint32_t b, uint32_t c, uint32_t d)
{
    words block;
    for (uint32_t value : {a, b, c, d})
        block.insert(block.end(), 4, value);
    return block;
}

class sso_pattern : public ::testing::Test {
protected:
    void SetUp() override { fake::reset(); }

    // One call with the draws (position, base, mode) scripted.
    words drawn(int32_t bus, int32_t line, std::vector<long> draws)
    {
        fake::script_lrand48(draws);
        words block(PATTERN_WORDS, untouched);
        EXPECT_EQ(getSSOPattern(block.data(), PATTERN_WORDS, bus, line), 0);
        EXPECT_EQ(fake::lrand48_calls(), 3);
        fake::reset();
        return block;
    }
};

TEST_F(sso_pattern, sixteen_bit_bus_with_128_and_256_bit_lines)
{
    // Base 0, bit 0: the example of the pattern's description.
    EXPECT_EQ(drawn(16, 128, {0, 0, 0}), quarters(0x00010001, 0xFFFEFFFE, 0x00010001, 0xFFFEFFFE));
    // Draws are reduced: 35 % 16 = bit 3, 7 % 2 = base ones, 4 % 2 = mode 0.
    const uint32_t bm = 0xFFF7FFF7;  // B XOR M
    EXPECT_EQ(drawn(16, 128, {35, 7, 4}), quarters(bm, ~bm, bm, ~bm));
    EXPECT_EQ(drawn(16, 128, {35, 7, 5}), quarters(bm, 0, bm, 0));
    EXPECT_EQ(drawn(16, 256, {35, 7, 4}), quarters(bm, bm, ~bm, ~bm));
    EXPECT_EQ(drawn(16, 256, {35, 7, 5}), quarters(bm, bm, 0, 0));
    // Base 0, bit 15: the mask is bits 15 and 31.
    EXPECT_EQ(drawn(16, 256, {15, 0, 1}), quarters(0x80008000, 0x80008000, 0xFFFFFFFF, 0xFFFFFFFF));
}

TEST_F(sso_pattern, the_draws_come_in_the_order_position_base_mode)
{
    // Swapping any two draws changes the block.
    words reference = drawn(16, 128, {6, 1, 0});
    EXPECT_NE(drawn(16, 128, {1, 6, 0}), reference);
    EXPECT_NE(drawn(16, 128, {6, 0, 1}), reference);
    EXPECT_EQ(reference, quarters(0xFFBFFFBF, 0x00400040, 0xFFBFFFBF, 0x00400040));
}

TEST_F(sso_pattern, a_512_bit_line_has_no_odd_group)
{
    for (long mode : {0, 1})
        EXPECT_EQ(drawn(16, 512, {2, 1, mode}), words(16, 0xFFFBFFFB)) << "mode " << mode;
}

TEST_F(sso_pattern, a_16_bit_line_treats_every_word_by_its_half_mask)
{
    EXPECT_EQ(drawn(16, 16, {2, 0, 0}), words(16, 0xFFFB0004));
    EXPECT_EQ(drawn(16, 16, {2, 1, 0}), words(16, 0x0004FFFB));
    EXPECT_EQ(drawn(16, 16, {2, 0, 1}), words(16, 0xFFFF0004));
    EXPECT_EQ(drawn(16, 16, {2, 1, 1}), words(16, 0x0004FFFF));
}

TEST_F(sso_pattern, a_32_bit_bus_walks_one_bit_over_32)
{
    // 63 % 32 = bit 31 in every word.
    EXPECT_EQ(drawn(32, 512, {63, 0, 0}), words(16, 0x80000000));
    EXPECT_EQ(drawn(32, 512, {20, 1, 1}), words(16, 0xFFEFFFFF));
    // A 32-bit line: every odd word is inverted, or the inverted base.
    words alternating;
    for (int i = 0; i < 8; i++)
        alternating.insert(alternating.end(), {0x00000020, 0xFFFFFFDF});
    EXPECT_EQ(drawn(32, 32, {5, 0, 0}), alternating);
    // A 64-bit line: pairs.
    words pairs;
    for (int i = 0; i < 4; i++)
        pairs.insert(pairs.end(), {0xFFFFFFFE, 0xFFFFFFFE, 0x00000000, 0x00000000});
    EXPECT_EQ(drawn(32, 64, {0, 1, 1}), pairs);
}

TEST_F(sso_pattern, refused_arguments_draw_and_write_nothing)
{
    struct {
        int32_t n, bus, line;
    } const refused[] = {
        {15, 16, 128}, {17, 16, 128}, {0, 16, 128},
        {16, 24, 128}, {16, 0, 128},  {16, -16, 128},
        {16, 16, 8},   {16, 16, 100}, {16, 32, 16},
        // Wider buses have no walking-bit seed: refused as well.
        {16, 64, 128}, {16, 128, 128}, {16, 512, 512},
    };
    for (const auto &c : refused) {
        fake::script_lrand48({1, 1, 1});
        words block(PATTERN_WORDS, untouched);
        EXPECT_EQ(getSSOPattern(block.data(), c.n, c.bus, c.line), -1) << c.n << " " << c.bus << " " << c.line;
        EXPECT_EQ(block, words(PATTERN_WORDS, untouched));
        EXPECT_EQ(fake::lrand48_calls(), 0);
    }
}

}  // namespace
