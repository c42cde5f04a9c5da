// What the block marches do to memory, seen through the fault model: which
// blocks each address order visits (by the words they leave written and by
// the number of accesses), the value they leave and the words they never
// touch.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "fakes.h"
#include "fault_model.h"
#include "march/genmarch.h"

namespace {

using words = std::vector<uint32_t>;
using ranges = std::vector<std::pair<uint32_t, uint32_t>>;

const uint32_t sentinel = 0x5EB7AC1E;

// The words at these byte offsets of the next buffer memalign hands out,
// redirected (fault::alias) into `values`, which start as the sentinel: what
// the march leaves there outlives the free at the end of the subtest.
struct shadow {
    explicit shadow(words offsets_) : offsets(std::move(offsets_)), values(offsets.size(), sentinel)
    {
        fault::in_allocation(0, [this](char *block, size_t) {
            for (size_t i = 0; i < offsets.size(); i++)
                fault::alias(block + offsets[i], &values[i]);
        });
    }

    // `value` in the words inside the written byte ranges, the sentinel elsewhere.
    words expected(const ranges &written, uint32_t value) const
    {
        words want(offsets.size(), sentinel);
        for (size_t i = 0; i < offsets.size(); i++)
            for (const auto &range : written)
                if (offsets[i] >= range.first && offsets[i] < range.second)
                    want[i] = value;
        return want;
    }

    words offsets, values;
};

// Every word of a buffer of `length` bytes.
words every_word(uint32_t length)
{
    words offsets;
    for (uint32_t offset = 0; offset + 4 <= length; offset += 4)
        offsets.push_back(offset);
    return offsets;
}

class block_march_memory : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        fault::reset();
    }
};

// A region of N blocks: ascending visits blocks 0 .. N-2 (`up` blocks),
// descending N-1 .. 1 (`down` blocks); each `written` range holds the last
// value afterwards.
struct bounds {
    uint32_t cache_size, iterations;
    uint32_t up, down;
    ranges written;
};

// The line march, per march: writes of 4 words in 6 ascending and 4
// descending elements; one word read in 8 elements of each order. Six
// marches a repetition, the last with base value 0.
TEST_F(block_march_memory, line_march_visits_32_byte_blocks_short_of_either_end)
{
    const ranges region_128 = {{0, 16}, {32, 48}, {64, 80}, {96, 112}};
    const bounds cases[] = {
        {64, 1, 0, 0, {}},                                    // region 32: no block
        {128, 1, 1, 1, {{0, 16}, {32, 48}}},                  // region 64
        {200, 1, 3, 3, {{0, 20}, {32, 52}, {64, 84}}},        // region 100: descending at +4
        {256, 1, 3, 3, region_128},
        {256, 2, 3, 3, region_128},
        {256, 0, 0, 0, {}},
    };
    for (const bounds &c : cases) {
        SetUp();
        shadow memory(every_word(c.cache_size));
        EXPECT_EQ(cache_march_stress3(nullptr, c.cache_size, c.iterations), 0);
        EXPECT_EQ(memory.values, memory.expected(c.written, 0x00000000)) << c.cache_size << " x " << c.iterations;
        EXPECT_EQ(fault::stores(), c.iterations * 6 * 4 * (6 * c.up + 4 * c.down)) << c.cache_size;
        EXPECT_EQ(fault::loads(), c.iterations * 6 * 8 * (c.up + c.down)) << c.cache_size;
    }
}

// The variable-data march, per march: 16-word block writes in 8 ascending
// and 6 descending operations; block reads in 8 ascending and 7
// descending, plus one word in element 16. Fifty marches, the last leaving
// Q of mode 10 and 0xF0F0F0F0: 0x5A5A5A5A in every word.
TEST_F(block_march_memory, variable_march_visits_64_byte_blocks_short_of_either_end)
{
    const bounds cases[] = {
        {64, 1, 0, 0, {}},           // region 32
        {128, 1, 0, 0, {}},          // region 64: no block
        {200, 1, 1, 1, {{0, 100}}},  // region 100: +0 ascending, +36 descending
        {256, 1, 1, 1, {{0, 128}}},  // region 128: +0 ascending, +64 descending
        {512, 1, 3, 3, {{0, 256}}},
    };
    for (const bounds &c : cases) {
        SetUp();
        shadow memory(every_word(c.cache_size));
        EXPECT_EQ(cache_march_stress4(nullptr, c.cache_size), 0);
        EXPECT_EQ(memory.values, memory.expected(c.written, 0x5A5A5A5A)) << c.cache_size;
        EXPECT_EQ(fault::stores(), 50u * 16 * (8 * c.up + 6 * c.down)) << c.cache_size;
        EXPECT_EQ(fault::loads(), 50u * (16 * 8 * c.up + (16 * 7 + 1) * c.down)) << c.cache_size;
    }
}

TEST_F(block_march_memory, both_marches_over_the_default_2_mib_cache)
{
    // Line march, 32768 blocks: ascending from +0 to +1048512, descending
    // from +1048544 down to +32; bytes 16 to 31 of each block and the second
    // half untouched.
    shadow memory({0, 16, 32, 1048512, 1048544, 1048556, 1048560, 1048576});
    EXPECT_EQ(cache_march_stress3(nullptr, 2097152, 1), 0);
    EXPECT_EQ(memory.values, (words{0, sentinel, 0, 0, 0, 0, sentinel, sentinel}));
    EXPECT_EQ(fault::stores(), 6u * 4 * (6 + 4) * 32767);
    EXPECT_EQ(fault::loads(), 6u * 8 * (1 + 1) * 32767);

    // Variable-data march, 16384 blocks, 16383 each way: told apart by the
    // two counts, since an ascending block takes more accesses than a
    // descending one (aliasing words as well would slow the simulated 380
    // million accesses severalfold).
    SetUp();
    EXPECT_EQ(cache_march_stress4(nullptr, 2097152), 0);
    EXPECT_EQ(fault::stores(), 50u * 16 * (8 + 6) * 16383);
    EXPECT_EQ(fault::loads(), 50u * (16 * 8 + 16 * 7 + 1) * 16383);
}

TEST_F(block_march_memory, interconnect_leaves_the_last_pattern_in_every_block_but_the_last)
{
    // Sixteen passes of six draws; the last pattern: bit 3, base ones, mode 1.
    std::vector<long> draws(16 * 6 - 3, 0);
    draws.insert(draws.end(), {35, 7, 5});
    fake::script_lrand48(draws);
    shadow memory(every_word(512));  // a region of four blocks
    EXPECT_EQ(cache_interconnect_stress(nullptr, 512, 1), 0);
    words want(128, sentinel);
    for (uint32_t i = 0; i < 3 * 16; i++)  // blocks 0 to 2: B XOR M in the even group, 0 in the odd one
        want[i] = i % 16 < 8 ? 0xFFF7FFF7 : 0;
    EXPECT_EQ(memory.values, want);
    EXPECT_EQ(fault::stores(), 16u * 2 * 16 * 3);
    EXPECT_EQ(fault::loads(), 16u * 2 * 16 * 3);
}

}  // namespace
