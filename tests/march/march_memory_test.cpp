// What the block marches do to memory, seen through the fault model: which
// blocks each address order visits (by the words they leave written and by
// the number of accesses), the value they leave, the words they never
// touch, and that a bad word never fails a test that only makes traffic.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "fakes.h"
#include "fault_model.h"
#include "harness/testinfo.h"
#include "march/genmarch.h"
#include "util/l2_util.h"

namespace {

const uint32_t sentinel = 0x5EB7AC1E;

// Words of the next buffer memalign hands out, redirected (fault::alias)
// into this shadow, which starts as the sentinel: what the march leaves
// there outlives the free at the end of the subtest.
class shadow {
public:
    // Every word of a buffer of `length` bytes.
    explicit shadow(size_t length) : shadow(every_word(length)) {}
    // Only the words at these byte offsets (for buffers too large to alias
    // word by word).
    explicit shadow(std::vector<uint32_t> offsets) : offsets_(std::move(offsets)), words_(offsets_.size(), sentinel)
    {
        fault::in_allocation(0, [this](char *block, size_t) {
            for (size_t i = 0; i < offsets_.size(); i++)
                fault::alias(block + offsets_[i], &words_[i]);
        });
    }

    const std::vector<uint32_t> &words() const { return words_; }

    // The shadow as it should be: `value` in the words inside [begin, end)
    // of each written byte range, the sentinel elsewhere.
    std::vector<uint32_t> expected(const std::vector<std::pair<uint32_t, uint32_t>> &written, uint32_t value) const
    {
        std::vector<uint32_t> want(offsets_.size(), sentinel);
        for (size_t i = 0; i < offsets_.size(); i++)
            for (const auto &range : written)
                if (offsets_[i] >= range.first && offsets_[i] < range.second)
                    want[i] = value;
        return want;
    }

private:
    static std::vector<uint32_t> every_word(size_t length)
    {
        std::vector<uint32_t> offsets;
        for (uint32_t offset = 0; offset + 4 <= length; offset += 4)
            offsets.push_back(offset);
        return offsets;
    }

    std::vector<uint32_t> offsets_;
    std::vector<uint32_t> words_;
};

class block_march_memory : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        fault::reset();
    }
};

// A region of N blocks: ascending visits blocks 0 .. N-2 (`up` blocks),
// descending N-1 .. 1 (`down` blocks), each `written` range holds the last
// value afterwards.
struct bounds {
    uint32_t cache_size;
    uint32_t up, down;
    std::vector<std::pair<uint32_t, uint32_t>> written;
};

// The line march, per march: writes of 4 words in 6 ascending and 4
// descending elements; one word read in 8 elements of each order. Six
// marches a repetition, the last with base value 0.
TEST_F(block_march_memory, line_march_visits_32_byte_blocks_short_of_either_end)
{
    const bounds cases[] = {
        {64, 0, 0, {}},                                                     // region 32: no block
        {128, 1, 1, {{0, 16}, {32, 48}}},                                   // region 64
        {200, 3, 3, {{0, 20}, {32, 52}, {64, 84}}},                         // region 100: descending at +4
        {256, 3, 3, {{0, 16}, {32, 48}, {64, 80}, {96, 112}}},              // region 128
    };
    for (const bounds &c : cases) {
        SetUp();
        shadow memory(c.cache_size);
        EXPECT_EQ(cache_march_stress3(nullptr, c.cache_size, 1), 0);
        EXPECT_EQ(memory.words(), memory.expected(c.written, 0x00000000)) << c.cache_size;
        EXPECT_EQ(fault::stores(), 6u * 4 * (6 * c.up + 4 * c.down)) << c.cache_size;
        EXPECT_EQ(fault::loads(), 6u * 8 * (c.up + c.down)) << c.cache_size;
    }
}

TEST_F(block_march_memory, line_march_over_the_default_2_mib_cache)
{
    // 32768 blocks: ascending from +0 to +1048512, descending from +1048544
    // down to +32; bytes 16 to 31 of each block and the second half untouched.
    shadow memory({0, 16, 32, 1048512, 1048544, 1048556, 1048560, 1048576});
    EXPECT_EQ(cache_march_stress3(nullptr, 2097152, 1), 0);
    EXPECT_EQ(memory.words(), (std::vector<uint32_t>{0, sentinel, 0, 0, 0, 0, sentinel, sentinel}));
    EXPECT_EQ(fault::stores(), 6u * 4 * (6 + 4) * 32767);
    EXPECT_EQ(fault::loads(), 6u * 8 * (1 + 1) * 32767);
}

TEST_F(block_march_memory, line_march_repeats_iterations_times)
{
    const std::vector<std::pair<uint32_t, uint32_t>> written_none, written_256{{0, 16}, {32, 48}, {64, 80}, {96, 112}};
    for (uint32_t iterations : {0u, 2u}) {
        SetUp();
        shadow memory(256);
        EXPECT_EQ(cache_march_stress3(nullptr, 256, iterations), 0);
        EXPECT_EQ(fault::loads(), iterations * 6 * 8 * (3 + 3));
        EXPECT_EQ(memory.words(), memory.expected(iterations == 0 ? written_none : written_256, 0));
    }
}

// The variable-data march, per march: 16-word block writes in 8 ascending
// and 6 descending operations; block reads in 8 ascending and 7
// descending, plus one word in element 16. Fifty marches, the last leaving
// Q of mode 10 and 0xF0F0F0F0: 0x5A5A5A5A in every word.
TEST_F(block_march_memory, variable_march_visits_64_byte_blocks_short_of_either_end)
{
    const bounds cases[] = {
        {64, 0, 0, {}},           // region 32
        {128, 0, 0, {}},          // region 64: no block
        {200, 1, 1, {{0, 100}}},  // region 100: +0 ascending, +36 descending
        {256, 1, 1, {{0, 128}}},  // region 128: +0 ascending, +64 descending
        {512, 3, 3, {{0, 256}}},
    };
    for (const bounds &c : cases) {
        SetUp();
        shadow memory(c.cache_size);
        EXPECT_EQ(cache_march_stress4(nullptr, c.cache_size), 0);
        EXPECT_EQ(memory.words(), memory.expected(c.written, 0x5A5A5A5A)) << c.cache_size;
        EXPECT_EQ(fault::stores(), 50u * 16 * (8 * c.up + 6 * c.down)) << c.cache_size;
        EXPECT_EQ(fault::loads(), 50u * (16 * 8 * c.up + (16 * 7 + 1) * c.down)) << c.cache_size;
    }
}

TEST_F(block_march_memory, variable_march_over_the_default_2_mib_cache)
{
    // 16384 blocks, 16383 each way: told apart by the two counts, since an
    // ascending block takes more accesses than a descending one. (Aliasing
    // words as well would slow the simulated 380 million accesses severalfold.)
    EXPECT_EQ(cache_march_stress4(nullptr, 2097152), 0);
    EXPECT_EQ(fault::stores(), 50u * 16 * (8 + 6) * 16383);
    EXPECT_EQ(fault::loads(), 50u * (16 * 8 + 16 * 7 + 1) * 16383);
}

// The interconnect test leaves the last 256-bit-line pattern in every block
// but the last of the region.
TEST_F(block_march_memory, interconnect_sweeps_every_block_but_the_last)
{
    // Sixteen passes of six draws; the last pattern: bit 3, base ones, mode 1.
    std::vector<long> draws(16 * 6 - 3, 0);
    draws.insert(draws.end(), {35, 7, 5});
    const uint32_t bm = 0xFFF7FFF7;
    std::vector<uint32_t> last_pattern;
    for (uint32_t value : {bm, bm, 0u, 0u})
        last_pattern.insert(last_pattern.end(), 4, value);

    const struct {
        uint32_t cache_size, blocks;
    } cases[] = {{128, 0}, {256, 1}, {512, 3}};
    for (const auto &c : cases) {
        SetUp();
        fake::script_lrand48(draws);
        shadow memory(c.cache_size);
        EXPECT_EQ(cache_interconnect_stress(nullptr, c.cache_size, 1), 0);
        std::vector<uint32_t> want(c.cache_size / 4, sentinel);
        for (uint32_t block = 0; block < c.blocks; block++)
            std::copy(last_pattern.begin(), last_pattern.end(), want.begin() + 16 * block);
        EXPECT_EQ(memory.words(), want) << c.cache_size;
        EXPECT_EQ(fault::stores(), 16u * 2 * 16 * c.blocks) << c.cache_size;
        EXPECT_EQ(fault::loads(), 16u * 2 * 16 * c.blocks) << c.cache_size;
    }
}

TEST_F(block_march_memory, interconnect_over_the_default_2_mib_cache)
{
    shadow memory({0, 1048448, 1048508, 1048512, 1048576});
    EXPECT_EQ(cache_interconnect_stress(nullptr, 2097152, 1), 0);
    const std::vector<uint32_t> &words = memory.words();
    EXPECT_NE(words[0], sentinel);
    EXPECT_NE(words[1], sentinel);
    EXPECT_NE(words[2], sentinel);
    EXPECT_EQ(words[3], sentinel);  // the last block of the region
    EXPECT_EQ(words[4], sentinel);
    EXPECT_EQ(fault::stores(), 16u * 2 * 16 * 16383);
    EXPECT_EQ(fault::loads(), 16u * 2 * 16 * 16383);
}

TEST_F(block_march_memory, a_stuck_bit_never_fails_a_traffic_only_test)
{
    auto plant = [] {
        fault::in_allocation(0, [](char *block, size_t) {
            fault::stuck_at(block + 12, 0, 1);  // the word every march reads
            fault::stuck_at(block + 64, 31, 0);
        });
    };
    plant();
    EXPECT_EQ(cache_march_stress3(nullptr, 1024, 1), 0);
    plant();
    EXPECT_EQ(cache_march_stress4(nullptr, 1024), 0);
    plant();
    EXPECT_EQ(cache_interconnect_stress(nullptr, 1024, 1), 0);
    EXPECT_TRUE(fake::messages_numbered(MSG_FREE_TEXT).empty());
}

}  // namespace
