// The run as the driver makes it: its messages and verdict, the worker
// table, thread creation and joining, and the start-up geometry queries.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "driver_fixture.h"

namespace {

using numbers = std::vector<int>;
using strings = std::vector<std::string>;

using driver = driver_fixture;

TEST_F(driver, passing_run_announces_counts_and_ends_once)
{
    fake::set_online({0, 1});
    run("count=3,test_mask=0");

    // 1, 2 with the pass count, one debug line per worker, 4.
    EXPECT_EQ(fake::numbers(), (numbers{MSG_RUN_START, MSG_PASS_COUNT, 0, 0, MSG_RUN_END}));
    EXPECT_EQ(fake::messages_numbered(MSG_PASS_COUNT).at(0).args, strings{"3"});
    for (const fake::message &line : fake::messages_numbered(0))
        EXPECT_EQ(line.text, "Cache Access stress for cache_size 100000 line_size 40 num_loops 3\n");
    EXPECT_EQ(fake::test_end_calls(), 1);
    EXPECT_EQ(fake::sleeps(), (std::vector<unsigned int>{1, 1}));
    EXPECT_EQ(fake::trace_log(), (strings{"before process_args", "after process_args", "before clean_up",
                                          "after clean_up"}));
}

TEST_F(driver, unreadable_geometry_is_reported_and_failed_workers_give_8011_once)
{
    fake::set_online({0, 1, 2});
    fake::set_cacheinfo_result(0, 4);
    fake::script_worker_status(0, -1);
    fake::script_worker_status(1, 0);
    fake::script_worker_status(2, 12);
    try {
        run("test_mask=0");
        FAIL() << "the run went on after failed workers";
    } catch (const fake::exit_request &end) {
        EXPECT_EQ(end.number, MSG_WORKERS_FAILED);
        EXPECT_EQ(end.exit_flag, DXT_FATAL);
    }
    strings texts;
    for (const fake::message &m : fake::messages_numbered(0))
        texts.push_back(std::to_string(m.level) + " " + m.text);
    EXPECT_EQ(texts, (strings{
                         "7 dxt_tlib_get_cpu_cacheinfo() failed on cpu 0, retval 4 ; ",
                         "8 get_cache_info failed for L2 cache, dxt internal error, going ahead with default values",
                         "7 dxt_tlib_get_cpu_cacheinfo() failed on cpu 0, retval 4 ; ",
                         "8 get_cache_info failed for L1 cache, dxt internal error, going ahead with default values",
                     }));
    ASSERT_EQ(fake::count_of(MSG_WORKERS_FAILED), 1);
    EXPECT_EQ(fake::messages_numbered(MSG_WORKERS_FAILED)[0].level, LVL_FATAL);
    EXPECT_EQ(fake::count_of(MSG_RUN_END), 0);
    EXPECT_EQ(fake::test_end_calls(), 0);
    EXPECT_EQ(fake::joined_threads().size(), 3u);  // every worker joined before the verdict
}

TEST_F(driver, one_worker_per_online_processor_and_only_joined_statuses_count)
{
    fake::set_online({0, 2, 4, 1023, 1024});  // 1024: beyond the table
    fake::fail_create(2, EAGAIN);               // the second of four
    fake::fail_bind(EPERM);
    fake::script_worker_status(0, -1);
    fake::script_worker_status(2, 7);  // never started: must not count
    fake::script_worker_status(1023, 12);
    test_mask = 0;
    nprocs = init_proc_db();
    EXPECT_EQ(nprocs, 4);
    const int online[] = {0, 2, 4, 1023};
    for (int i = 0; i < MAX_PROCS; i++)
        ASSERT_EQ(thr_db[i].cpu_id, i < 4 ? online[i] : -1) << i;

    run_ecache_thr();
    EXPECT_EQ(threads_spawned, 3);
    EXPECT_EQ(fake::started_cpus(), (std::vector<int>{0, 4, 1023}));
    EXPECT_EQ(thr_db[1].create_result, EAGAIN);
    EXPECT_EQ(thr_db[1].thr_id, 0u);
    // 4006 names the entry, 4003 the processor, whose worker still runs.
    strings reported;
    for (const fake::message &m : fake::messages()) {
        EXPECT_EQ(m.level, m.number == 0 ? LVL_DEBUG : LVL_STEP_ERROR);
        reported.push_back(std::to_string(m.number) + " " + (m.number == 0 ? m.text : m.args.at(0)));
    }
    EXPECT_EQ(reported, (strings{"4006 1", "4003 4",
                                 "0 Cache Access stress for cache_size 100000 line_size 40 num_loops 0\n"}));
    EXPECT_EQ(fake::messages_numbered(MSG_BIND_FAILED)[0].args.at(1), strerror(EPERM));

    EXPECT_EQ(wait_thr_db(), 2);
    EXPECT_EQ(fake::joined_threads().size(), 3u);
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(thr_db[i].cpu_id, i == 1 ? 2 : -1) << "only joined entries are emptied";
}

TEST_F(driver, cache_info_describes_the_first_online_processor_or_says_why_not)
{
    fake::set_online({2, 5});
    fake::set_descriptor(5, 2, 1, 1, 1);
    nprocs = init_proc_db();
    uint32_t size = 0, line = 0, ways = 0;
    auto got = [&] { return std::vector<uint32_t>{size, line, ways}; };
    // Descriptor 2 is empty in the default record: descriptor 4 stands in.
    EXPECT_EQ(get_cache_info(2, &size, &line, &ways), 0);
    EXPECT_EQ(got(), (std::vector<uint32_t>{1048576, 64, 8}));
    fake::set_descriptor(2, 2, 524288, 128, 16);
    EXPECT_EQ(get_cache_info(2, &size, &line, &ways), 0);
    EXPECT_EQ(got(), (std::vector<uint32_t>{524288, 128, 16}));
    EXPECT_TRUE(fake::messages().empty());

    fake::set_descriptor(2, 0, 0, 64, 8);  // the first level has no fallback
    EXPECT_EQ(get_cache_info(0, &size, &line, &ways), -1);
    fake::set_cacheinfo_result(2, -1);
    fake::set_errmsg("no cache source answers");
    EXPECT_EQ(get_cache_info(2, &size, &line, &ways), -1);
    fake::set_cacheinfo_result(2, 22);
    EXPECT_EQ(get_cache_info(2, &size, &line, &ways), -1);
    EXPECT_EQ(got(), (std::vector<uint32_t>{524288, 128, 16})) << "outputs untouched on failure";
    fake::set_online({});
    nprocs = init_proc_db();
    EXPECT_EQ(get_cache_info(2, &size, &line, &ways), -1);
    EXPECT_EQ(fake::cacheinfo_queries(), (std::vector<int>{2, 2, 2, 2, 2}));
    strings texts;
    for (const fake::message &m : fake::messages())
        texts.push_back(std::to_string(m.level) + " " + m.text);
    const std::string failed = "7 dxt_tlib_get_cpu_cacheinfo() failed on cpu ";
    EXPECT_EQ(texts, (strings{failed + "2, retval 0 ; ", failed + "2, retval -1 ; no cache source answers",
                              failed + "2, retval 22 ; ", failed + "-1, retval 0 ; "}));
}

}  // namespace
