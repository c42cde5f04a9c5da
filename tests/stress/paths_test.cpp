// Every subtest around its kernels, from reviewed tables: how often it tries
// to allocate, what a missing buffer gives, how many draws it makes, what it
// says, and the order in which the Random Swap test releases its buffers. (That each verifying
// subtest finds a bad word is measured in tests/coverage.)
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "fakes.h"
#include "harness/testinfo.h"
#include "kernel_calls.h"
#include "stress/l2cache.h"
#include "table.h"

namespace {

// Every message as "exit level tag: text" or "exit level tag: #number",
// joined by " | ".
std::string message_log()
{
    // Built with a stream: GCC 12 at -O3 raises a false -Werror=restrict on
    // a chain of string concatenations.
    std::ostringstream log;
    for (const fake::message &m : fake::messages()) {
        log << (log.tellp() > 0 ? " | " : "") << m.exit_flag << ' ' << m.level << ' ' << (m.has_tag ? m.tag : "-")
            << ": ";
        if (m.number == 0)
            log << m.text;
        else
            log << '#' << m.number;
    }
    return log.str();
}

class subtest_paths : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        pagesize = 4096;
    }
};

// The reviewed table allocations.txt.
TEST_F(subtest_paths, allocation_attempts_statuses_and_draws)
{
    const auto rows = table_rows(TARNEL_TEST_DATA "/allocations.txt", 9);
    EXPECT_EQ(rows.size(), 30u);
    for (const auto &c : rows) {
        SetUp();
        fake::fail_memalign(std::stoi(c[2]), std::stoi(c[3]));
        std::string status = "ended";
        try {
            status = std::to_string(kernel_call(c[1])());
        } catch (const fake::exit_request &) {
        }
        EXPECT_EQ(status, c[4]) << c[0];
        EXPECT_EQ(fake::memalign_calls(), std::stoi(c[5])) << c[0];
        EXPECT_EQ(fake::lrand48_calls(), std::stoi(c[6])) << c[0];
        EXPECT_EQ(fake::drand48_calls(), std::stoi(c[7])) << c[0];
        EXPECT_EQ(message_log(), c[8]) << c[0];
        EXPECT_EQ(fake::munlock_calls().size(), fake::mlock_calls().size()) << c[0] << ": every lock undone";
    }
}

// The reviewed table lock_texts.txt: none for a lock that succeeded.
TEST_F(subtest_paths, lock_and_unlock_failure_texts_of_every_buffer)
{
    const auto rows = table_rows(TARNEL_TEST_DATA "/lock_texts.txt", 4);
    EXPECT_EQ(rows.size(), 9u);
    for (const auto &row : rows) {
        SetUp();
        fake::fail_mlock(true, false);
        EXPECT_EQ(kernel_call(row[1])(), 0) << row[0];
        EXPECT_EQ(message_log(), row[2]) << row[0] << ": every lock fails";
        EXPECT_TRUE(fake::munlock_calls().empty()) << row[0] << ": nothing unlocked that was not locked";
        SetUp();
        fake::fail_mlock(false, true);
        EXPECT_EQ(kernel_call(row[1])(), 0) << row[0];
        EXPECT_EQ(message_log(), row[3]) << row[0] << ": every unlock fails";
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
