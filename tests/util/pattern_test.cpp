// The 16-word pattern blocks in every mode of update_pattern, and the
// simultaneous-switching patterns from scripted draws (position, base and
// mode, in that order).
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "fakes.h"
#include "util/l2_util.h"

namespace {

using words = std::vector<uint32_t>;

const uint32_t untouched = 0xDEADBEEF;

// update_pattern over a block of `length` words (untouched beyond n).
words built(uint32_t value, int32_t n, int32_t mode, size_t length = PATTERN_WORDS)
{
    words block(length, untouched);
    update_pattern(value, block.data(), n, mode);
    return block;
}

// Each value `run` times in turn, repeated over 16 words.
words groups(const words &values, int run)
{
    words block;
    for (int i = 0; i < PATTERN_WORDS; i++)
        block.push_back(values[(i / run) % values.size()]);
    return block;
}

// `run` words of v, then `run` of ~v, repeated over 16 words.
words runs(uint32_t v, int run) { return groups({v, ~v}, run); }

// Modes 1 to 10 over 16 words are in the variable-stride march's record;
// here the block lengths and modes no march uses.
TEST(update_pattern, other_lengths_and_unknown_modes)
{
    const uint32_t v = 0x12345678;
    for (int32_t mode : {0, 11, 255, -1})  // unknown modes alternate like mode 1
        EXPECT_EQ(built(v, 16, mode), runs(v, 1)) << "mode " << mode;
    EXPECT_EQ(built(v, 5, 1, 6), (words{v, ~v, v, ~v, v, untouched}));  // an odd last word keeps v
    EXPECT_EQ(built(v, 12, 4), (words{v, v, v, v, v, v, v, v, v, v, v, v, untouched, untouched, untouched,
                                      untouched}));  // no whole group of 16
    EXPECT_EQ(built(v, 12, 3, 12), (words{v, v, v, v, ~v, ~v, ~v, ~v, v, v, v, v}));
    EXPECT_EQ(built(v, 0, 5), words(16, untouched));
    EXPECT_EQ(built(v, -3, 1), words(16, untouched));
}

TEST(sso_pattern, blocks_from_scripted_draws)
{
    // The 16-bit bus with 128- and 256-bit lines, the interconnect test's, is
    // in its record; here the other widths.
    const struct {
        int32_t bus, line;
        std::vector<long> draws;
        words block;
    } rows[] = {
        // A 512-bit line has no odd group, whatever the mode.
        {16, 512, {2, 1, 0}, words(16, 0xFFFBFFFB)},
        {16, 512, {2, 1, 1}, words(16, 0xFFFBFFFB)},
        // A 16-bit line treats every word by the half-mask rule of its mode.
        {16, 16, {2, 0, 0}, words(16, 0xFFFB0004)},
        {16, 16, {2, 1, 1}, words(16, 0x0004FFFF)},
        // A 32-bit bus walks one bit over 32: 63 % 32 = bit 31.
        {32, 512, {63, 0, 0}, words(16, 0x80000000)},
        {32, 512, {20, 1, 1}, words(16, 0xFFEFFFFF)},
        {32, 32, {5, 0, 0}, groups({0x00000020, 0xFFFFFFDF}, 1)},
        {32, 64, {0, 1, 1}, groups({0xFFFFFFFE, 0}, 2)},
    };
    for (const auto &row : rows) {
        fake::reset();
        fake::script_lrand48(row.draws);
        words block(PATTERN_WORDS + 1, untouched);  // a guard word past the block
        EXPECT_EQ(getSSOPattern(block.data(), PATTERN_WORDS, row.bus, row.line), 0);
        EXPECT_EQ(block.back(), untouched) << "written past the block";
        block.pop_back();
        EXPECT_EQ(block, row.block) << row.bus << "-bit bus, " << row.line << "-bit line, draws " << row.draws[0]
                                    << " " << row.draws[1] << " " << row.draws[2];
        EXPECT_EQ(fake::lrand48_calls(), 3);
    }
}

// Refused: nothing drawn, nothing written, -1. Widths are checked as signed
// numbers, and a bus wider than a word has no walking-bit seed.
TEST(sso_pattern, refused_arguments)
{
    const struct {
        int32_t n, bus, line;
    } refused[] = {
        {15, 16, 128}, {17, 16, 128}, {0, 16, 128}, {-16, 16, 128},  // the count is 16
        {16, 24, 128}, {16, 8, 128},  {16, 0, 128}, {16, -16, 128},  // a bus of the six widths
        {16, 64, 128}, {16, 512, 512},                               // none wider than a word
        {16, 32, 16},  {16, 16, 8},   {16, 16, 96}, {16, 16, 1024},  // a line of the six, not below the bus
    };
    for (const auto &r : refused) {
        fake::reset();
        words block(PATTERN_WORDS + 1, untouched);
        EXPECT_EQ(getSSOPattern(block.data(), r.n, r.bus, r.line), -1) << r.n << " " << r.bus << " " << r.line;
        EXPECT_EQ(block, words(PATTERN_WORDS + 1, untouched)) << r.n << " " << r.bus << " " << r.line;
        EXPECT_EQ(fake::lrand48_calls(), 0) << r.n << " " << r.bus << " " << r.line;
    }
}

}  // namespace
