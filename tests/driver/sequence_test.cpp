// One worker's sequence: geometry choice and its fallbacks, the vendor
// check, the binding, the subtests that test_mask selects in their fixed
// order, the stop at the first failing one, and the Random Offset buffer.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "driver_fixture.h"
#include "stress/l2cache.h"

namespace {

using strings = std::vector<std::string>;

class sequence : public driver_fixture {
protected:
    void SetUp() override
    {
        driver_fixture::SetUp();
        test_mask = 0;
        iterations = 1;
        // A tiny cache keeps every subtest quick.
        fake::set_descriptor(cpu, 4, 4096, 64, 4);
    }

    // The worker's exit status, as thr_exit carries it.
    int run_worker()
    {
        try {
            l2cache_stress(reinterpret_cast<void *>(static_cast<intptr_t>(cpu)));
        } catch (const fake::thread_exit &done) {
            return static_cast<int>(reinterpret_cast<intptr_t>(done.status));
        }
        ADD_FAILURE() << "the worker returned instead of ending its thread";
        return -999;
    }

    static std::string debug_line()
    {
        for (const fake::message &m : fake::messages_numbered(0))
            if (m.has_tag && m.tag == "l2cache" && m.format.rfind("Cache Access stress", 0) == 0)
                return m.text;
        return "";
    }

    // The numbered start messages of the subtests that emit one.
    static std::vector<int> starts()
    {
        std::vector<int> found;
        for (int n : fake::numbers())
            if (n == MSG_WRRDVR_START || n == MSG_SWAP_START || n == MSG_INTERCONNECT_START ||
                n == MSG_MARCH_VAR_START || n == MSG_MARCH_LINE_START || n == MSG_ROW_MARCH_START ||
                n == MSG_COL_MARCH_START)
                found.push_back(n);
        return found;
    }

    const int cpu = 3;
};

TEST_F(sequence, empty_mask_binds_and_reports_geometry_only)
{
    iterations = 8;
    EXPECT_EQ(run_worker(), 0);
    EXPECT_EQ(fake::bound_cpus(), std::vector<int>{cpu});
    EXPECT_EQ(debug_line(), "Cache Access stress for cache_size 1000 line_size 40 num_loops 8\n");
    EXPECT_EQ(fake::memalign_calls(), 0);
    EXPECT_EQ(fake::lrand48_calls(), 0);
    EXPECT_EQ(pagesize.load(), static_cast<uint32_t>(sysconf(_SC_PAGESIZE)));
}

TEST_F(sequence, second_level_descriptor_2_when_4_is_empty)
{
    fake::set_descriptor(cpu, 4, 0, 0, 0);
    fake::set_descriptor(cpu, 2, 1048576, 64, 8);
    EXPECT_EQ(run_worker(), 0);
    EXPECT_EQ(debug_line(), "Cache Access stress for cache_size 100000 line_size 40 num_loops 1\n");
    EXPECT_EQ(fake::count_of(MSG_GEOMETRY_DEFAULTS), 0);
}

TEST_F(sequence, defaults_when_no_descriptor_or_no_record)
{
    struct {
        int retval;
        const char *detail;
    } const cases[] = {{0, ""}, {-1, "cannot read caches"}, {9, ""}};
    for (const auto &c : cases) {
        fake::reset();
        fake::set_descriptor(cpu, 4, 0, 64, 8);
        fake::set_cacheinfo_result(cpu, c.retval);
        fake::set_errmsg("cannot read caches");
        EXPECT_EQ(run_worker(), 0);
        auto defaults = fake::messages_numbered(MSG_GEOMETRY_DEFAULTS);
        ASSERT_EQ(defaults.size(), 1u);
        EXPECT_EQ(defaults[0].level, LVL_INFO);
        EXPECT_EQ(defaults[0].args,
                  (strings{"dxt_tlib_get_cpu_cacheinfo()", std::to_string(cpu), std::to_string(c.retval), c.detail}));
        EXPECT_EQ(debug_line(), "Cache Access stress for cache_size 200000 line_size 40 num_loops 1\n");
    }
}

TEST_F(sequence, zero_line_size_and_ways_take_their_defaults)
{
    fake::set_descriptor(cpu, 4, 256, 0, 0);
    test_mask = TEST_WRRDVR;
    EXPECT_EQ(run_worker(), 0);
    EXPECT_EQ(debug_line(), "Cache Access stress for cache_size 100 line_size 40 num_loops 1\n");
    // The Write/Read/Verify buffer is 2 x ways x cache_size: ways became 4.
    ASSERT_FALSE(fake::memalign_results().empty());
    EXPECT_EQ(fake::memalign_results()[0].length, 2u * 4 * 256);
}

TEST_F(sequence, unknown_vendor_ends_the_run_before_any_subtest)
{
    fake::set_vendor(cpu, 3);
    test_mask = 0xFFFFF;
    try {
        run_worker();
        FAIL() << "the worker went on with an unknown vendor";
    } catch (const fake::exit_request &end) {
        EXPECT_EQ(end.number, MSG_UNKNOWN_VENDOR);
        EXPECT_EQ(end.exit_flag, DXT_FATAL);
    }
    EXPECT_EQ(fake::messages_numbered(MSG_UNKNOWN_VENDOR).at(0).level, LVL_FATAL);
    EXPECT_TRUE(fake::bound_cpus().empty());
    EXPECT_EQ(fake::memalign_calls(), 0);
}

TEST_F(sequence, intel_and_amd_are_accepted)
{
    for (int vendor : {VENDOR_INTEL, VENDOR_AMD}) {
        fake::set_vendor(cpu, vendor);
        EXPECT_EQ(run_worker(), 0);
    }
}

TEST_F(sequence, march_bit_runs_the_four_marches_in_order)
{
    test_mask = TEST_MARCHES;
    EXPECT_EQ(run_worker(), 0);
    EXPECT_EQ(starts(), (std::vector<int>{MSG_MARCH_VAR_START, MSG_MARCH_LINE_START, MSG_ROW_MARCH_START,
                                          MSG_COL_MARCH_START}));
}

TEST_F(sequence, default_mask_runs_every_subtest_in_table_order)
{
    test_mask = 1048575;
    EXPECT_EQ(run_worker(), 0);
    EXPECT_EQ(starts(), (std::vector<int>{MSG_WRRDVR_START, MSG_SWAP_START, MSG_INTERCONNECT_START,
                                          MSG_MARCH_VAR_START, MSG_MARCH_LINE_START, MSG_ROW_MARCH_START,
                                          MSG_COL_MARCH_START}));
    // The buffers tell the silent subtests apart: Write/Read/Verify 2 x ways
    // x size, four cache-sized kernel buffers of the hit test, two double
    // buffers of the miss test, ..., and the Random Offset buffer last.
    std::vector<size_t> lengths;
    for (const fake::range &block : fake::memalign_results())
        lengths.push_back(block.length);
    const size_t c = 4096;
    EXPECT_EQ(lengths, (std::vector<size_t>{8 * c, c, c, c, c, 2 * c, 2 * c, c, c, c, c, c, 2 * c, c, c}));
}

TEST_F(sequence, first_failing_subtest_ends_the_sequence_with_its_status)
{
    test_mask = 1048575;
    // Calls: 1 Write/Read/Verify, 2-5 the hit kernels, 6 the miss test's
    // integer buffer.
    fake::fail_memalign(6, 1);
    EXPECT_EQ(run_worker(), L2_NO_MEMORY);
    EXPECT_EQ(fake::count_of(MSG_SWAP_START), 0);
    EXPECT_EQ(fake::memalign_calls(), 6);
}

TEST_F(sequence, random_offset_buffer_is_locked_and_released)
{
    test_mask = TEST_RANDOM_OFFSET;
    EXPECT_EQ(run_worker(), 0);
    ASSERT_EQ(fake::memalign_results().size(), 1u);
    fake::range buffer = fake::memalign_results()[0];
    EXPECT_EQ(buffer.length, 4096u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.address) % pagesize, 0u);
    ASSERT_EQ(fake::mlock_calls().size(), 1u);
    EXPECT_EQ(fake::mlock_calls()[0].address, buffer.address);
    EXPECT_EQ(fake::mlock_calls()[0].length, 4096u);
    ASSERT_EQ(fake::munlock_calls().size(), 1u);
    EXPECT_EQ(fake::munlock_calls()[0].address, buffer.address);
}

TEST_F(sequence, random_offset_lock_failures_are_debug_texts_only)
{
    auto lock_texts = [] {
        strings found;
        for (const fake::message &m : fake::messages_numbered(0))
            if (m.level == LVL_DEBUG && m.tag == "l2cache" && m.format.rfind("cache_miss", 0) == 0)
                found.push_back(m.format);
        return found;
    };
    test_mask = TEST_RANDOM_OFFSET;
    fake::fail_mlock(true);
    EXPECT_EQ(run_worker(), 0);
    EXPECT_EQ(lock_texts(), strings{"cache_miss mlock failed!!\n"});
    EXPECT_TRUE(fake::munlock_calls().empty()) << "a buffer whose lock failed is not unlocked";

    fake::reset();
    fake::set_descriptor(cpu, 4, 4096, 64, 4);
    fake::fail_munlock(true);
    EXPECT_EQ(run_worker(), 0);
    EXPECT_EQ(lock_texts(), strings{"cache_miss munlock failed!!\n"});
}

TEST_F(sequence, random_offset_without_a_buffer_stops_with_12)
{
    test_mask = TEST_RANDOM_OFFSET;
    fake::fail_memalign(1, 1);
    EXPECT_EQ(run_worker(), L2_NO_MEMORY);
    EXPECT_EQ(fake::lrand48_calls(), 0) << "the test itself never ran";
    EXPECT_TRUE(fake::mlock_calls().empty());
}

}  // namespace
