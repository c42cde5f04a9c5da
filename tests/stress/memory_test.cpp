// The subtests on the simulated faulty memory: every verifying test finds a
// planted fault and reports it its own way, the tests and kernels that only
// make traffic pass over the same faults, the Random Offset test draws in its
// order, and the Random Swap test releases its buffers in its order.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "fakes.h"
#include "fault_model.h"
#include "harness/testinfo.h"
#include "march/genmarch.h"
#include "stress/l2cache.h"

namespace {

using plant_fn = std::function<void(char *block)>;
using words = std::vector<uint32_t>;

const uint32_t FILL = 0x5A5A5A5A;  // every block memalign hands out starts so
const int ended = -999;            // a message ended the process

class stress_memory : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        fault::reset();
        pagesize = 4096;
    }
};

char *word(char *block, uint32_t i) { return block + 4 * i; }

// Fills the nth block memalign hands out and plants a fault in it.
void plant_in(int nth, plant_fn plant)
{
    fault::in_allocation(nth, [plant](char *block, size_t length) {
        std::memset(block, FILL & 0xFF, length);
        plant(block);
    });
}

TEST_F(stress_memory, verifying_tests_find_a_planted_fault)
{
    auto stuck = [](uint32_t at, int bit, int value) {
        return [=](char *b) { fault::stuck_at(word(b, at), bit, value); };
    };
    const struct {
        const char *name;
        int nth;  // the allocation planted in; -1: the buffer handed to the test
        plant_fn plant;
        std::vector<long> draws;
        std::function<int(char *given)> run;
        int status, lrand48s;  // the draws show that nothing ran after the miscompare
        std::vector<int> numbers;
    } cases[] = {
        // 16 words a region; the start 0x01000100 puts 0x01000105 into B[2].
        {"wrrdvr, region B", 0, stuck(16 + 2, 0, 0), {0x100},
         [](char *) { return cache_wrrdvr_stress(nullptr, 64, 1, 3); }, ended, 1, {3, 6000}},
        {"wrrdvr, lost write", 0, [](char *b) { fault::lost_write(word(b, 7)); }, {0x100},
         [](char *) { return cache_wrrdvr_stress(nullptr, 64, 1, 3); }, ended, 1, {3, 6000}},
        // drand48 0.375: the 64-bit phase stores 0.75, high word 0x3FE80000.
        {"hit, 64-bit phase", 0, stuck(1, 29, 0), {}, [](char *) { return cache_hit_stress(nullptr, 64, 64, 2); }, -1,
         1, {}},
        {"hit, record verify", 2, [](char *b) { fault::stuck_at(b + 8, 0, 1); }, {},  // slot 0's second 32-bit field
         [](char *) { return cache_hit_stress(nullptr, 64, 64, 1); }, -1, 2, {}},
        // Both lists hold word 5; the second pattern is 1.
        {"random offsets, store and check", -1, stuck(5, 0, 0), {1, 4, 5, 1, 4, 5, 4, 5},
         [](char *given) { return cache_rand_off_stress(given, 64, 2); }, -1, 6, {}},
        {"row march", 0, stuck(9, 31, 0), {0}, [](char *) { return cache_march_stress1(nullptr, 64, 64, 3); }, -1, 1,
         {0, MSG_ROW_MARCH_START, MSG_ROW_MARCH_END}},
        {"column march", 0, stuck(9, 31, 0), {0}, [](char *) { return cache_march_stress2(nullptr, 64, 3); }, -1, 1,
         {0, MSG_COL_MARCH_START, MSG_COL_MARCH_END}},
    };
    for (const auto &c : cases) {
        SetUp();
        alignas(8) char given[64] = {};
        if (c.nth < 0)
            c.plant(given);
        else
            plant_in(c.nth, c.plant);
        fake::script_lrand48(c.draws);
        fake::script_drand48({0.375});
        int status = ended;
        try {
            status = c.run(given);
        } catch (const fake::exit_request &) {
        }
        EXPECT_EQ(status, c.status) << c.name;
        EXPECT_EQ(fake::lrand48_calls(), c.lrand48s) << c.name;
        EXPECT_EQ(fake::numbers(), c.numbers) << c.name;
        if (status == ended) {
            EXPECT_EQ(fake::messages().back().exit_flag, DXT_STEP_FAIL) << c.name;
            EXPECT_EQ(fake::messages().back().level, LVL_TEST_ERROR) << c.name;
        }
    }
}

TEST_F(stress_memory, traffic_only_tests_pass_over_the_same_faults)
{
    // The faults go into word `at` and the next of the subtest's first
    // buffer, or of `given` for the kernels that are handed one.
    const derived_rec ones = {-1, -1, -1, -1};
    const struct {
        const char *name;
        uint32_t at;
        std::function<int(char *given)> run;
    } cases[] = {
        {"swap", 1, [](char *) { return crand(nullptr, 256); }},
        {"miss", 1, [](char *) { return cache_miss_stress(nullptr, 64, 16, 2, 2); }},
        {"line march", 3, [](char *) { return cache_march_stress3(nullptr, 1024, 1); }},  // word 3: every read
        {"variable march", 3, [](char *) { return cache_march_stress4(nullptr, 1024); }},
        {"interconnect", 3, [](char *) { return cache_interconnect_stress(nullptr, 1024, 1); }},
        {"line kernel", 0, [](char *) { return l2cachehit_wrrdwr(nullptr, 64, 4, 1); }},
        // One pass: only the store phases reach word 14.
        {"basic kernel's store phases", 14, [](char *) { return basic_dtype_l2cachehit_stress(nullptr, 64, 1); }},
        {"record writes", 1, [&ones](char *given) { return derived_dtype_write(given, 33, 2, &ones); }},
        {"offset stores", 1, [](char *given) { return rand_off_wr_loop(given, 16, 2, 1); }},
        {"offset loads", 1, [](char *given) { return rand_off_rd_loop(given, 16, 2); }},
    };
    for (const auto &c : cases) {
        SetUp();
        auto plant = [&c](char *block) {
            fault::stuck_at(word(block, c.at), 5, 1);
            fault::lost_write(word(block, c.at + 1));
        };
        plant_in(0, plant);
        alignas(8) char given[64] = {};
        plant(given);
        fake::script_lrand48({8, 1, 2});  // the offset lists: words 1 and 2
        EXPECT_EQ(c.run(given), 0) << c.name;
    }
}

TEST_F(stress_memory, random_offsets_draw_pattern_list_pattern_list_list)
{
    uint32_t buffer[16];
    std::fill(buffer, buffer + 16, FILL);
    fake::script_lrand48({
        0x8001,        // first starting pattern: 0x80018001
        12, 3, 5, 19,  // 3 entries for the store list: words 3, 5, 3 (19 mod 16)
        0x40,          // second starting pattern, raw
        8, 7, 9,       // store-and-check list
        4, 11,         // load list
    });
    EXPECT_EQ(cache_rand_off_stress(buffer, 64, 2), 0);
    EXPECT_EQ(fake::lrand48_calls(), 11);
    words expected(16, FILL);
    expected[3] = expected[5] = 0x00030002;  // the second pass: bit 31 shifted out
    expected[7] = expected[9] = 0x80;
    EXPECT_EQ(words(buffer, buffer + 16), expected);

    fake::script_lrand48({1, 8, 1, 2, 1, 4, 3, 0});
    EXPECT_EQ(cache_rand_off_stress(buffer, 64, 0), 0);  // no pass: every list still drawn
    EXPECT_EQ(fake::lrand48_calls(), 11 + 8);

    fake::script_lrand48({1, 8});
    fake::fail_next_malloc();
    EXPECT_EQ(cache_rand_off_stress(buffer, 64, 1), 12);  // no list: no entry, no second pattern
    EXPECT_EQ(fake::lrand48_calls(), 11 + 8 + 2);
    EXPECT_EQ(words(buffer, buffer + 16), expected);
}

// The random swap test unlocks chunk1, then chunk2, and only then frees
// either: a buffer is never freed while the other is still locked.
std::vector<size_t> unlocks_before_free;
TEST_F(stress_memory, random_swap_unlocks_both_buffers_before_freeing_either)
{
    unlocks_before_free.clear();
    fake::on_free([](void *block) {
        for (const fake::range &r : fake::memalign_results())
            if (r.address == block)
                unlocks_before_free.push_back(fake::munlock_calls().size());
    });
    EXPECT_EQ(crand(nullptr, 4096), 0);
    fake::on_free(nullptr);
    std::vector<fake::range> blocks = fake::memalign_results(), unlocked = fake::munlock_calls();
    ASSERT_EQ(blocks.size(), 2u);
    ASSERT_EQ(unlocked.size(), 2u);
    EXPECT_EQ(unlocked[0].address, blocks[0].address);  // chunk1 first
    EXPECT_EQ(unlocked[1].address, blocks[1].address);
    EXPECT_EQ(unlocks_before_free, (std::vector<size_t>{2, 2}));
}

}  // namespace
