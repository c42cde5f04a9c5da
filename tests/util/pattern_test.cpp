// The 16-word pattern block primitives: the layouts update_pattern builds
// for every mode and word count, the complement, and the block store and
// load for any count.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

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

// v, v, ... then ~v, ~v, ...: `run` words of each, repeated to 16 words.
words runs(uint32_t v, int run)
{
    words block;
    for (int i = 0; i < PATTERN_WORDS; i++)
        block.push_back((i / run) % 2 == 0 ? v : ~v);
    return block;
}

TEST(update_pattern, sixteen_word_layouts_of_every_mode)
{
    const uint32_t v = 0x12345678;
    EXPECT_EQ(built(v, 16, 1), runs(v, 1));
    EXPECT_EQ(built(v, 16, 2), runs(v, 2));
    EXPECT_EQ(built(v, 16, 3), runs(v, 4));
    EXPECT_EQ(built(v, 16, 4), runs(v, 8));
    const uint32_t masks[] = {0xFFFFFFFF, 0x0000FFFF, 0x00FF00FF, 0x0F0F0F0F, 0x33333333, 0x55555555};
    for (int32_t mode = 5; mode <= 10; mode++)
        EXPECT_EQ(built(v, 16, mode), words(16, v ^ masks[mode - 5])) << "mode " << mode;
}

TEST(update_pattern, unknown_modes_alternate_like_mode_1)
{
    for (int32_t mode : {0, 11, 255, -1})
        EXPECT_EQ(built(0x0F0F0F0F, 16, mode), built(0x0F0F0F0F, 16, 1)) << "mode " << mode;
}

TEST(update_pattern, incomplete_groups_keep_the_fill_value)
{
    const uint32_t v = 0xA5A50000;
    EXPECT_EQ(built(v, 5, 1, 5), (words{v, ~v, v, ~v, v}));
    EXPECT_EQ(built(v, 6, 2, 6), (words{v, v, ~v, ~v, v, v}));
    EXPECT_EQ(built(v, 12, 3, 12), (words{v, v, v, v, ~v, ~v, ~v, ~v, v, v, v, v}));
    EXPECT_EQ(built(v, 12, 4, 12), words(12, v));
    // Two whole groups of 16 for a 32-word block.
    words twice = runs(v, 8);
    twice.insert(twice.end(), twice.begin(), twice.end());
    EXPECT_EQ(built(v, 32, 4, 32), twice);
}

TEST(update_pattern, masks_apply_to_the_value)
{
    EXPECT_EQ(built(0x00000000, 16, 5), words(16, 0xFFFFFFFF));
    EXPECT_EQ(built(0xFFFFFFFF, 16, 6), words(16, 0xFFFF0000));
    EXPECT_EQ(built(0xFFFFFFFF, 3, 7, 4), (words{0xFF00FF00, 0xFF00FF00, 0xFF00FF00, untouched}));
}

TEST(update_pattern, writes_only_the_n_words)
{
    for (int32_t n : {0, -1, -16})
        for (int32_t mode : {1, 4, 5})
            EXPECT_EQ(built(0, n, mode), words(16, untouched)) << "n " << n << " mode " << mode;
    EXPECT_EQ(built(7, 3, 1), (words{7, ~7u, 7, untouched, untouched, untouched, untouched, untouched, untouched,
                                     untouched, untouched, untouched, untouched, untouched, untouched, untouched}));
}

TEST(compl_pattern, complements_word_by_word)
{
    words source = built(0x55555555, 16, 1);
    words destination(16, untouched);
    compl_pattern(destination.data(), source.data(), 16);
    EXPECT_EQ(destination, runs(0xAAAAAAAA, 1));

    words kept(16, untouched);
    compl_pattern(kept.data(), source.data(), 0);
    compl_pattern(kept.data(), source.data(), -3);
    EXPECT_EQ(kept, words(16, untouched));
}

TEST(block_primitives, store_copies_n_words_and_load_returns_the_last)
{
    words pattern = built(0xC0DE0000, 16, 3);
    words memory(17, untouched);
    st_pattern(pattern.data(), memory.data(), 16);
    EXPECT_EQ(words(memory.begin(), memory.begin() + 16), pattern);
    EXPECT_EQ(memory[16], untouched);

    memory[15] = 0x15151515;
    EXPECT_EQ(ld_pattern(memory.data(), 16), 0x15151515u);
    EXPECT_EQ(ld_pattern(memory.data(), 3), memory[2]);

    words kept(16, untouched);
    st_pattern(pattern.data(), kept.data(), 0);
    st_pattern(pattern.data(), kept.data(), -1);
    EXPECT_EQ(kept, words(16, untouched));
}

}  // namespace
