// The program against the fakes: the sub-option parser, and one worker's
// sequence (geometry and its fallbacks, the vendor check, the subtests that
// test_mask selects in their order, the stop at the first failing one).
// Every expected value can be worked out by hand. The run around the workers
// (their table, creation, binding and joining) is proven end to end.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "driver/tarnel.h"
#include "fakes.h"
#include "option_defaults.h"
#include "table.h"
#include "harness/testinfo.h"
#include "stress/l2cache.h"

namespace {

using numbers = std::vector<int>;
using strings = std::vector<std::string>;

class driver : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        reset_options();
        iterations = 0;
        nprocs = 0;
        threads_spawned = 0;
    }
};

// process_args on a writable copy, as the harness hands it over.
int parse(const std::string &text)
{
    std::vector<char> copy(text.begin(), text.end());
    copy.push_back('\0');
    return process_args(copy.data());
}

// Every message as "level #number args|" or "level text|".
std::string message_log()
{
    std::string log;
    for (const fake::message &m : fake::messages()) {
        EXPECT_EQ(m.exit_flag, DXT_RETURN);
        EXPECT_FALSE(m.has_tag);
        log += std::to_string(m.level) + (m.number == 0 ? " " + m.format : " #" + std::to_string(m.number));
        for (const std::string &arg : m.args)
            log += " " + arg;
        log += "|";
    }
    return log;
}

// The option variables that differ from their defaults.
std::string changed()
{
    const option_values now = options_now(), &d = option_defaults;
    using option = std::tuple<const char *, long long, long long>;  // name, now, at the start
    std::string text;
    for (auto [name, value, initial] :
         {option{"count", now.count, d.count}, {"tag", now.tag_count, d.tag_count},
          {"march_window", now.march_window, d.march_window}, {"march_al", now.march_al, d.march_al},
          {"march_pats", now.march_pats, d.march_pats},
          {"l1cache_write_policy", now.l1cache_write_policy, d.l1cache_write_policy},
          {"test_mask", now.test_mask, d.test_mask}})
        if (value != initial)
            text += (text.empty() ? "" : " ") + std::string(name) + "=" + std::to_string(value);
    return text;
}

// The reviewed table cache_info.txt.
TEST_F(driver, get_cache_info_chooses_a_non_empty_descriptor)
{
    const auto rows = table_rows(TARNEL_TEST_DATA "/cache_info.txt", 8);
    EXPECT_EQ(rows.size(), 8u);
    for (const auto &row : rows) {
        std::vector<int> n;
        for (const std::string &field : row)
            n.push_back(std::stoi(field));
        SetUp();
        std::fill(std::begin(thr_db), std::end(thr_db), thr_db_entry{-1, 0, 0});
        thr_db[1].cpu_id = 6;
        for (int i : {0, 1, 2})
            fake::set_descriptor(6, 2 * i, static_cast<uint32_t>(n[1 + i]), 64, 2 * i + 1);
        fake::set_cacheinfo_result(6, n[4]);
        fake::set_errmsg("no cache record");
        uint32_t size = 7, line = 7, ways = 7;
        EXPECT_EQ(get_cache_info(n[0], &size, &line, &ways), n[5]) << testing::PrintToString(row);
        EXPECT_EQ((std::vector<uint32_t>{size, line, ways}),
                  (std::vector<uint32_t>{uint32_t(n[6]), n[5] == 0 ? 64u : 7u, uint32_t(n[7])}))
            << testing::PrintToString(row);
        EXPECT_EQ(message_log(), n[5] == 0 ? "" : "7 dxt_tlib_get_cpu_cacheinfo() failed on cpu %d, retval %d ; %s|");
        if (n[5] != 0) {
            EXPECT_EQ(fake::messages().at(0).text, "dxt_tlib_get_cpu_cacheinfo() failed on cpu 6, retval " + row[4] +
                                                       " ; " + (n[4] == -1 ? "no cache record" : ""));
        }
    }
}

// The reviewed table suboptions.txt.
TEST_F(driver, every_keyword_of_the_table)
{
    const auto rows = table_rows(TARNEL_TEST_DATA "/suboptions.txt", 4);
    EXPECT_EQ(rows.size(), 28u);
    for (const auto &row : rows) {
        SetUp();
        EXPECT_EQ(parse(row[0]), std::stoi(row[1])) << row[0];
        EXPECT_EQ(message_log(), row[2]) << row[0];
        EXPECT_EQ(changed(), row[3]) << row[0];
    }
}

class sequence : public driver {
protected:
    void SetUp() override
    {
        driver::SetUp();
        test_mask = 0;
        iterations = 1;
        fake::set_descriptor(cpu, 4, 4096, 64, 4);  // a tiny cache keeps every subtest quick
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

    // The level-8 texts of the l2cache tag.
    static strings debug_texts()
    {
        strings texts;
        for (const fake::message &m : fake::messages_numbered(0))
            if (m.level == LVL_DEBUG && m.tag == "l2cache")
                texts.push_back(m.text);
        return texts;
    }

    const int cpu = 3;
};

TEST_F(sequence, geometry_from_descriptor_4_then_2_then_the_defaults)
{
    const strings no_41;
    const struct {
        uint32_t descriptor_4[3], descriptor_2[3];  // size, line size, ways
        int retval;
        uint32_t size, ways;  // ways: seen in the Write/Read/Verify buffer, 2 x ways x size
        const char *line;     // size and line size as the debug line shows them
        strings defaults;     // the arguments of message 41
    } rows[] = {
        {{4096, 64, 4}, {1048576, 64, 8}, 0, 4096, 4, "1000 line_size 40", no_41},
        {{0, 0, 0}, {1048576, 64, 8}, 0, 1048576, 8, "100000 line_size 40", no_41},
        {{256, 0, 0}, {}, 0, 256, 4, "100 line_size 40", no_41},  // zero line size and ways replaced
        {{0, 64, 8}, {}, 0, 2097152, 4, "200000 line_size 40", {"dxt_tlib_get_cpu_cacheinfo()", "3", "0", ""}},
        {{4096, 64, 4}, {}, -1, 2097152, 4, "200000 line_size 40",
         {"dxt_tlib_get_cpu_cacheinfo()", "3", "-1", "cannot read caches"}},
        {{4096, 64, 4}, {}, 9, 2097152, 4, "200000 line_size 40", {"dxt_tlib_get_cpu_cacheinfo()", "3", "9", ""}},
    };
    for (const auto &row : rows) {
        SetUp();
        test_mask = TEST_WRRDVR;
        fake::set_errmsg("cannot read caches");
        fake::set_descriptor(cpu, 4, row.descriptor_4[0], row.descriptor_4[1], row.descriptor_4[2]);
        fake::set_descriptor(cpu, 2, row.descriptor_2[0], row.descriptor_2[1], row.descriptor_2[2]);
        fake::set_cacheinfo_result(cpu, row.retval);
        EXPECT_EQ(run_worker(), 0) << row.line;
        EXPECT_EQ(debug_texts(), strings{std::string("Cache Access stress for cache_size ") + row.line +
                                         " num_loops 1\n"});
        ASSERT_EQ(fake::memalign_results().size(), 1u) << row.line;
        EXPECT_EQ(fake::memalign_results()[0].length, 2u * row.ways * row.size) << row.line;
        strings defaults;
        for (const fake::message &m : fake::messages_numbered(MSG_GEOMETRY_DEFAULTS)) {
            EXPECT_EQ(m.level, LVL_INFO);
            defaults.insert(defaults.end(), m.args.begin(), m.args.end());
        }
        EXPECT_EQ(defaults, row.defaults) << row.line;
    }
}

TEST_F(sequence, only_intel_and_amd_are_tested)
{
    fake::set_vendor(cpu, VENDOR_INTEL);
    EXPECT_EQ(run_worker(), 0);

    SetUp();
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

TEST_F(sequence, test_mask_selects_subtests_in_table_order_until_one_fails)
{
    // The start messages, and the buffers that tell the silent subtests
    // apart: Write/Read/Verify 2 x ways x size, the hit test's four, the miss
    // test's two doubles, ..., the Random Offset buffer last.
    const size_t c = 4096;
    const std::vector<int> all = {MSG_WRRDVR_START,    MSG_SWAP_START,       MSG_INTERCONNECT_START,
                                  MSG_MARCH_VAR_START, MSG_MARCH_LINE_START, MSG_ROW_MARCH_START,
                                  MSG_COL_MARCH_START};
    const struct {
        int32_t mask;
        int failing_allocation, status;
        std::vector<int> starts;
        std::vector<size_t> lengths;
    } rows[] = {
        {0, 0, 0, {}, {}},
        {TEST_MARCHES, 0, 0, std::vector<int>(all.begin() + 3, all.end()), {c, c, 2 * c, c}},
        {1048575, 0, 0, all, {8 * c, c, c, c, c, 2 * c, 2 * c, c, c, c, c, c, 2 * c, c, c}},
        // The first failing subtest ends the sequence with its status: here
        // the miss test, whose first buffer is the sixth allocation.
        {1048575, 6, L2_NO_MEMORY, {MSG_WRRDVR_START}, {8 * c, c, c, c, c}},
    };
    for (const auto &row : rows) {
        SetUp();
        SCOPED_TRACE(testing::Message() << "mask " << row.mask << ", allocation " << row.failing_allocation
                                        << " failing");
        test_mask = row.mask;
        fake::fail_memalign(row.failing_allocation, 1);
        EXPECT_EQ(run_worker(), row.status);
        EXPECT_EQ(fake::bound_cpus(), std::vector<int>{cpu});
        EXPECT_EQ(pagesize.load(), static_cast<uint32_t>(sysconf(_SC_PAGESIZE)));
        std::vector<int> starts;
        for (int n : fake::numbers())
            if (std::find(all.begin(), all.end(), n) != all.end())
                starts.push_back(n);
        EXPECT_EQ(starts, row.starts);
        std::vector<size_t> lengths;
        for (const fake::range &block : fake::memalign_results())
            lengths.push_back(block.length);
        EXPECT_EQ(lengths, row.lengths);
    }
}

}  // namespace
