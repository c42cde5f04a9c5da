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

TEST(update_pattern, layouts_of_every_mode)
{
    const uint32_t v = 0x12345678;
    for (int32_t mode : {1, 2, 3, 4})
        EXPECT_EQ(built(v, 16, mode), runs(v, 1 << (mode - 1))) << "mode " << mode;
    const uint32_t masks[] = {0xFFFFFFFF, 0x0000FFFF, 0x00FF00FF, 0x0F0F0F0F, 0x33333333, 0x55555555};
    for (int32_t mode = 5; mode <= 10; mode++)
        EXPECT_EQ(built(v, 16, mode), words(16, v ^ masks[mode - 5])) << "mode " << mode;
    for (int32_t mode : {0, 11, 255, -1})  // unknown modes alternate like mode 1
        EXPECT_EQ(built(v, 16, mode), runs(v, 1)) << "mode " << mode;
}

TEST(sso_pattern, blocks_from_scripted_draws)
{
    const uint32_t bm = 0xFFF7FFF7;  // 35 % 16 = bit 3, 7 % 2 = base ones: B XOR M
    const struct {
        int32_t bus, line;
        std::vector<long> draws;
        words block;
    } rows[] = {
        {16, 128, {0, 0, 0}, groups({0x00010001, 0xFFFEFFFE}, 4)},
        {16, 128, {35, 7, 4}, groups({bm, ~bm}, 4)},  // 4 % 2 = mode 0
        {16, 128, {35, 7, 5}, groups({bm, 0}, 4)},
        {16, 256, {35, 7, 4}, groups({bm, ~bm}, 8)},
        {16, 256, {35, 7, 5}, groups({bm, 0}, 8)},
        {16, 256, {15, 0, 1}, groups({0x80008000, 0xFFFFFFFF}, 8)},
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
        words block(PATTERN_WORDS, untouched);
        EXPECT_EQ(getSSOPattern(block.data(), PATTERN_WORDS, row.bus, row.line), 0);
        EXPECT_EQ(block, row.block) << row.bus << "-bit bus, " << row.line << "-bit line, draws " << row.draws[0]
                                    << " " << row.draws[1] << " " << row.draws[2];
        EXPECT_EQ(fake::lrand48_calls(), 3);
    }
}

}  // namespace
