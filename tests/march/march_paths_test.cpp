// The block marches around their marches: start and end messages, the
// sixteen allocation attempts, the lock and unlock texts and their order,
// and the draws of the interconnect test.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "fakes.h"
#include "harness/testinfo.h"
#include "march/genmarch.h"

namespace {

// What tells the three tests apart around their marches.
struct subtest {
    const char *name;
    std::function<int(uint32_t cache_size, uint32_t iterations)> run;
    int start, end;
    const char *tag;
    bool end_after_release;  // the end message follows the free
};

void PrintTo(const subtest &t, std::ostream *out) { *out << t.name; }

const subtest subtests[] = {
    {"cache_march_stress3", [](uint32_t size, uint32_t n) { return cache_march_stress3(nullptr, size, n); },
     MSG_MARCH_LINE_START, MSG_MARCH_LINE_END, "morvantest", false},
    {"cache_march_stress4", [](uint32_t size, uint32_t) { return cache_march_stress4(nullptr, size); },
     MSG_MARCH_VAR_START, MSG_MARCH_VAR_END, "morvantest", false},
    {"cache_interconnect_stress",
     [](uint32_t size, uint32_t n) { return cache_interconnect_stress(nullptr, size, n); }, MSG_INTERCONNECT_START,
     MSG_INTERCONNECT_END, "selvotest", true},
};

class block_march_paths : public ::testing::TestWithParam<subtest> {
protected:
    void SetUp() override { fake::reset(); }
};

INSTANTIATE_TEST_SUITE_P(each, block_march_paths, ::testing::ValuesIn(subtests),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(block_march_paths, runs_on_a_locked_page_aligned_cache_sized_buffer)
{
    const subtest &t = GetParam();
    EXPECT_EQ(t.run(1024, 1), 0);
    EXPECT_EQ(fake::numbers(), (std::vector<int>{t.start, t.end}));
    for (const fake::message &m : fake::messages()) {
        EXPECT_EQ(m.exit_flag, 0);
        EXPECT_EQ(m.level, LVL_INFO);
        EXPECT_FALSE(m.has_tag);
    }
    ASSERT_EQ(fake::memalign_results().size(), 1u);
    fake::range buffer = fake::memalign_results()[0];
    EXPECT_EQ(buffer.length, 1024u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.address) % sysconf(_SC_PAGESIZE), 0u);
    ASSERT_EQ(fake::mlock_calls().size(), 1u);
    ASSERT_EQ(fake::munlock_calls().size(), 1u);
    for (const fake::range &r : {fake::mlock_calls()[0], fake::munlock_calls()[0]}) {
        EXPECT_EQ(r.address, buffer.address);
        EXPECT_EQ(r.length, 1024u);
    }
}

TEST_P(block_march_paths, sixteen_failed_allocations_give_4002_and_12)
{
    const subtest &t = GetParam();
    fake::fail_memalign(1, 16);
    EXPECT_EQ(t.run(1024, 1), 12);
    EXPECT_EQ(fake::memalign_calls(), 16);
    EXPECT_EQ(fake::numbers(), (std::vector<int>{t.start, MSG_NO_MEMORY}));
    fake::message no_memory = fake::messages_numbered(MSG_NO_MEMORY).at(0);
    EXPECT_EQ(no_memory.exit_flag, 0);
    EXPECT_EQ(no_memory.level, LVL_STEP_ERROR);
    EXPECT_FALSE(no_memory.has_tag);
    EXPECT_TRUE(fake::mlock_calls().empty());
    EXPECT_EQ(fake::lrand48_calls(), 0);
}

TEST_P(block_march_paths, the_sixteenth_attempt_is_enough)
{
    const subtest &t = GetParam();
    fake::fail_memalign(1, 15);
    EXPECT_EQ(t.run(1024, 1), 0);
    EXPECT_EQ(fake::memalign_calls(), 16);
    EXPECT_EQ(fake::numbers(), (std::vector<int>{t.start, t.end}));
}

TEST_P(block_march_paths, a_failed_lock_is_a_debug_text_and_nothing_is_unlocked)
{
    const subtest &t = GetParam();
    fake::fail_mlock(true);
    EXPECT_EQ(t.run(1024, 1), 0);
    EXPECT_EQ(fake::numbers(), (std::vector<int>{t.start, MSG_FREE_TEXT, t.end}));
    fake::message text = fake::messages_numbered(MSG_FREE_TEXT).at(0);
    EXPECT_EQ(text.exit_flag, 0);
    EXPECT_EQ(text.level, LVL_DEBUG);
    EXPECT_EQ(text.tag, t.tag);
    EXPECT_EQ(text.text, "cache_miss mlock failed!!\n");
    EXPECT_EQ(fake::mlock_calls().size(), 1u);
    EXPECT_TRUE(fake::munlock_calls().empty());
}

TEST_P(block_march_paths, a_failed_unlock_is_a_debug_text_in_its_place)
{
    const subtest &t = GetParam();
    fake::fail_munlock(true);
    EXPECT_EQ(t.run(1024, 1), 0);
    std::vector<int> order = t.end_after_release ? std::vector<int>{t.start, MSG_FREE_TEXT, t.end}
                                                 : std::vector<int>{t.start, t.end, MSG_FREE_TEXT};
    EXPECT_EQ(fake::numbers(), order);
    fake::message text = fake::messages_numbered(MSG_FREE_TEXT).at(0);
    EXPECT_EQ(text.level, LVL_DEBUG);
    EXPECT_EQ(text.tag, t.tag);
    EXPECT_EQ(text.text, "cache_miss munlock failed!!\n");
}

TEST_P(block_march_paths, no_region_still_runs_to_the_end)
{
    const subtest &t = GetParam();
    for (uint32_t size : {0u, 64u, 71u}) {  // regions of 0 to 32 bytes
        fake::reset();
        EXPECT_EQ(t.run(size, 1), 0) << size;
        EXPECT_EQ(fake::numbers(), (std::vector<int>{t.start, t.end})) << size;
        EXPECT_EQ(fake::munlock_calls().size(), 1u) << size;
    }
}

class interconnect_draws : public ::testing::Test {
protected:
    void SetUp() override { fake::reset(); }
};

TEST_F(interconnect_draws, six_per_pass_with_or_without_blocks)
{
    struct {
        uint32_t cache_size, iterations;
        int draws;
    } const cases[] = {
        {1024, 1, 6 * 16}, {1024, 2, 6 * 32}, {1024, 0, 0},
        {128, 1, 6 * 16},  // a 64-byte region: no block, both patterns all the same
        {0, 3, 6 * 48},
    };
    for (const auto &c : cases) {
        fake::reset();
        EXPECT_EQ(cache_interconnect_stress(nullptr, c.cache_size, c.iterations), 0);
        EXPECT_EQ(fake::lrand48_calls(), c.draws) << c.cache_size << " x " << c.iterations;
        EXPECT_EQ(fake::numbers(), (std::vector<int>{MSG_INTERCONNECT_START, MSG_INTERCONNECT_END}));
    }
}

TEST(block_march_tables, base_values_in_order_up_to_the_marker)
{
    const std::vector<uint32_t> line{0xFFFFFFFF, 0xAAAAAAAA, 0x3C3C3C3C, 0xF0F0F0F0, 0xA5A5A5A5, 0x00000000, PATT_END};
    const std::vector<uint32_t> var{0xFFFFFFFF, 0x00000000, 0x55555555, 0xDDDDDDDD, 0xF0F0F0F0, PATT_END};
    EXPECT_EQ(std::vector<uint32_t>(gen_cache_patt, gen_cache_patt + line.size()), line);
    EXPECT_EQ(std::vector<uint32_t>(cache_patt, cache_patt + var.size()), var);
}

TEST(block_march_draws, only_the_interconnect_test_draws)
{
    fake::reset();
    EXPECT_EQ(cache_march_stress3(nullptr, 1024, 2), 0);
    EXPECT_EQ(cache_march_stress4(nullptr, 1024), 0);
    EXPECT_EQ(fake::lrand48_calls(), 0);
    EXPECT_EQ(fake::drand48_calls(), 0);
}

}  // namespace
