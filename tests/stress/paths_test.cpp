// Every subtest around its kernels: how often it tries to allocate, what a
// missing buffer gives, how many draws it makes, what it says, and the order
// in which the Random Swap test releases its buffers. (That each verifying
// subtest finds a bad word is measured in tests/coverage.)
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "fakes.h"
#include "harness/testinfo.h"
#include "march/genmarch.h"
#include "stress/l2cache.h"

namespace {

using strings = std::vector<std::string>;

const int ended = -999;  // a message ended the process

// Every message as "exit level tag: text" or "exit level tag: #number".
strings message_log()
{
    strings log;
    // Built with a stream: GCC 12 at -O3 raises a false -Werror=restrict on
    // a chain of string concatenations.
    for (const fake::message &m : fake::messages()) {
        std::ostringstream line;
        line << m.exit_flag << ' ' << m.level << ' ' << (m.has_tag ? m.tag : "-") << ": ";
        if (m.number == 0)
            line << m.text;
        else
            line << '#' << m.number;
        log.push_back(line.str());
    }
    return log;
}

class subtest_paths : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        pagesize = 4096;
    }
};

const std::function<int()> wrrdvr = [] { return cache_wrrdvr_stress(nullptr, 64, 1, 3); };
const std::function<int()> hit = [] { return cache_hit_stress(nullptr, 64, 64, 1); };
const std::function<int()> miss = [] { return cache_miss_stress(nullptr, 32, 16, 2, 1); };
const std::function<int()> swap = [] { return crand(nullptr, 64); };
const std::function<int()> rows = [] { return cache_march_stress1(nullptr, 64, 64, 3); };
const std::function<int()> columns = [] { return cache_march_stress2(nullptr, 64, 1); };
const std::function<int()> line_march = [] { return cache_march_stress3(nullptr, 1024, 1); };
const std::function<int()> variable_march = [] { return cache_march_stress4(nullptr, 1024); };
std::function<int()> interconnect(uint32_t cache_size, uint32_t iterations)
{
    return [=] { return cache_interconnect_stress(nullptr, cache_size, iterations); };
}

const std::string row_name = "0 8 l2cache: L2 March test with row striding";
const std::string column_name = "0 8 l2cache: L2 March test with column striding";

TEST_F(subtest_paths, allocation_attempts_statuses_and_draws)
{
    const struct {
        const char *name;
        std::function<int()> run;
        int first, failures;  // the memalign calls that fail
        int status, calls, lrand48s, drand48s;
        strings log;
    } cases[] = {
        {"wrrdvr, the fifth attempt", wrrdvr, 1, 4, 0, 5, 3, 0, {"0 7 -: #3"}},
        {"wrrdvr, no buffer", wrrdvr, 1, 5, ended, 5, 0, 0, {"1 3 -: #4001"}},
        {"wrrdvr, no pass", [] { return cache_wrrdvr_stress(nullptr, 64, 1, 0); }, 0, 0, 0, 1, 0, 0, {"0 7 -: #3"}},
        {"wrrdvr, below a word", [] { return cache_wrrdvr_stress(nullptr, 3, 1, 3); }, 0, 0, 0, 1, 3, 0,
         {"0 7 -: #3"}},
        {"hit, basic kernel skipped", hit, 1, 1, 0, 4, 3, 1, {}},
        {"hit, line kernel skipped", hit, 2, 1, 0, 4, 3, 1, {}},
        {"hit, column kernel skipped", hit, 4, 1, 0, 4, 2, 1, {}},
        {"basic kernel, no buffer", [] { return basic_dtype_l2cachehit_stress(nullptr, 64, 1); }, 1, 1, 12, 1, 1,
         1, {}},
        {"line kernel, no buffer", [] { return l2cachehit_wrrdwr(nullptr, 64, 64, 1); }, 1, 1, 12, 1, 1, 0, {}},
        {"record kernel, no buffer", [] { return derived_dtype_test(nullptr, 64, 1); }, 1, 1, 12, 1, 0, 0, {}},
        {"miss", miss, 0, 0, 0, 2, 2, 1, {}},
        {"miss, no integer buffer", miss, 1, 1, 12, 1, 0, 0, {}},
        {"miss, no floating buffer", miss, 2, 1, 12, 2, 0, 0, {}},
        {"swap, the sixteenth attempt", swap, 1, 15, 0, 17, 14, 0, {"0 7 -: #6", "0 7 -: #8"}},
        {"swap, no chunk1", swap, 1, 16, 12, 17, 0, 0, {"0 7 -: #6", "0 3 -: #4002"}},
        {"swap, no chunk2", swap, 2, 16, 12, 17, 0, 0, {"0 7 -: #6", "0 3 -: #4002"}},
        {"row march", rows, 0, 0, 0, 1, 3, 0, {row_name, "0 7 -: #9", "0 7 -: #10"}},
        {"row march, no buffer", rows, 1, 1, 12, 1, 0, 0, {row_name, "0 7 -: #9"}},
        {"row march, no word in a line", [] { return cache_march_stress1(nullptr, 64, 2, 3); }, 0, 0, 0, 1, 3, 0,
         {row_name, "0 7 -: #9", "0 7 -: #10"}},
        {"column march, no pass", [] { return cache_march_stress2(nullptr, 64, 0); }, 0, 0, 0, 1, 0, 0,
         {column_name, "0 7 -: #11", "0 7 -: #12"}},
        {"column march, no buffer", columns, 1, 1, 12, 1, 0, 0, {column_name, "0 7 -: #11"}},
        {"line march, the sixteenth attempt", line_march, 1, 15, 0, 16, 0, 0, {"0 7 -: #13", "0 7 -: #14"}},
        {"line march, no buffer", line_march, 1, 16, 12, 16, 0, 0, {"0 7 -: #13", "0 3 -: #4002"}},
        {"variable march, the sixteenth attempt", variable_march, 1, 15, 0, 16, 0, 0, {"0 7 -: #17", "0 7 -: #18"}},
        {"variable march, no buffer", variable_march, 1, 16, 12, 16, 0, 0, {"0 7 -: #17", "0 3 -: #4002"}},
        // Six draws per pass of sixteen, also where the region holds no block.
        {"interconnect, the sixteenth attempt", interconnect(1024, 1), 1, 15, 0, 16, 6 * 16, 0,
         {"0 7 -: #19", "0 7 -: #20"}},
        {"interconnect, no buffer", interconnect(1024, 1), 1, 16, 12, 16, 0, 0, {"0 7 -: #19", "0 3 -: #4002"}},
        {"interconnect, two passes", interconnect(1024, 2), 0, 0, 0, 1, 6 * 32, 0, {"0 7 -: #19", "0 7 -: #20"}},
        {"interconnect, no pass", interconnect(1024, 0), 0, 0, 0, 1, 0, 0, {"0 7 -: #19", "0 7 -: #20"}},
        {"interconnect, no block", interconnect(128, 1), 0, 0, 0, 1, 6 * 16, 0, {"0 7 -: #19", "0 7 -: #20"}},
    };
    for (const auto &c : cases) {
        SetUp();
        fake::fail_memalign(c.first, c.failures);
        int status = ended;
        try {
            status = c.run();
        } catch (const fake::exit_request &) {
        }
        EXPECT_EQ(status, c.status) << c.name;
        EXPECT_EQ(fake::memalign_calls(), c.calls) << c.name;
        EXPECT_EQ(fake::lrand48_calls(), c.lrand48s) << c.name;
        EXPECT_EQ(fake::drand48_calls(), c.drand48s) << c.name;
        EXPECT_EQ(message_log(), c.log) << c.name;
        EXPECT_EQ(fake::munlock_calls().size(), fake::mlock_calls().size()) << c.name << ": every lock undone";
    }
}

// Every buffer's lock and unlock failure texts, each where the test says
// it, and none for a lock that succeeded.
TEST_F(subtest_paths, lock_and_unlock_failure_texts_of_every_buffer)
{
    const std::string l2 = "0 8 l2cache: ", morvan = "0 8 morvantest: ", selvo = "0 8 selvotest: ";
    const struct {
        const char *name;
        std::function<int()> run;
        strings lock_failed, unlock_failed;
    } buffers[] = {
        {"wrrdvr (never locked)", wrrdvr, {"0 7 -: #3"}, {"0 7 -: #3"}},
        {"hit", hit,
         {l2 + "basic_dtype, ulong mlock failed!!\n", l2 + "l2cachehit_wrrdwr, mlock failed!!\n",
          l2 + "derived_dtype mlock failed!!\n", l2 + "cache_miss mlock failed!!\n"},
         {l2 + "basic_dtype munlock failure!!\n", l2 + "l2cachehit_wrrdwr: munlock failed!!\n",
          l2 + "derived_dtype munlock failed!!\n", l2 + "cache_miss munlock failed!!\n"}},
        {"miss", miss, {l2 + "cache_miss mlock failed!!\n", l2 + "cache_miss mlock failed in fp!!\n"},
         {l2 + "cache_miss munlock failed!!\n", l2 + "cache_miss munlock failed in fp!!\n"}},
        {"swap", swap,
         {"0 7 -: #6", morvan + "random loop chunk1 mlock failed!!\n", morvan + "random loop chunk2 mlock failed!!\n",
          "0 7 -: #8"},
         {"0 7 -: #6", "0 7 -: #8", morvan + "random loop chunk1 munlock failed!!\n",
          morvan + "random loop chunk2 munlock failed!!\n"}},
        {"rows", rows, {row_name, "0 7 -: #9", "0 7 -: #10"},
         {row_name, "0 7 -: #9", l2 + "cache_miss munlock failed!!\n", "0 7 -: #10"}},
        {"columns", columns, {column_name, "0 7 -: #11", "0 7 -: #12"},
         {column_name, "0 7 -: #11", l2 + "cache_miss munlock failed!!\n", "0 7 -: #12"}},
        {"line march", line_march, {"0 7 -: #13", morvan + "cache_miss mlock failed!!\n", "0 7 -: #14"},
         {"0 7 -: #13", "0 7 -: #14", morvan + "cache_miss munlock failed!!\n"}},
        {"variable march", variable_march, {"0 7 -: #17", morvan + "cache_miss mlock failed!!\n", "0 7 -: #18"},
         {"0 7 -: #17", "0 7 -: #18", morvan + "cache_miss munlock failed!!\n"}},
        {"interconnect", interconnect(1024, 1), {"0 7 -: #19", selvo + "cache_miss mlock failed!!\n", "0 7 -: #20"},
         {"0 7 -: #19", selvo + "cache_miss munlock failed!!\n", "0 7 -: #20"}},
    };
    for (const auto &row : buffers) {
        SetUp();
        fake::fail_mlock(true, false);
        EXPECT_EQ(row.run(), 0) << row.name;
        EXPECT_EQ(message_log(), row.lock_failed) << row.name << ": every lock fails";
        EXPECT_TRUE(fake::munlock_calls().empty()) << row.name << ": nothing unlocked that was not locked";
        SetUp();
        fake::fail_mlock(false, true);
        EXPECT_EQ(row.run(), 0) << row.name;
        EXPECT_EQ(message_log(), row.unlock_failed) << row.name << ": every unlock fails";
    }
}

// The random swap test unlocks chunk1, then chunk2, and only then frees
// either: a buffer is never freed while the other is still locked.
std::vector<size_t> unlocks_before_free;
TEST_F(subtest_paths, random_swap_unlocks_both_buffers_before_freeing_either)
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
