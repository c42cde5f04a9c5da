// The run as the driver makes it: start and end messages around the
// workers, the verdict, the worker table, thread creation and joining, and
// the start-up geometry queries with their fallbacks.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "driver_fixture.h"

namespace {

using numbers = std::vector<int>;
using strings = std::vector<std::string>;

class driver : public driver_fixture {};

TEST_F(driver, passing_run_announces_counts_and_ends_once)
{
    fake::set_online({0, 1});
    run("count=3,test_mask=0");

    // 1, 2 with the pass count, one debug line per worker, 4.
    EXPECT_EQ(fake::numbers(), (numbers{MSG_RUN_START, MSG_PASS_COUNT, 0, 0, MSG_RUN_END}));
    EXPECT_EQ(fake::messages_numbered(MSG_PASS_COUNT).at(0).args, strings{"3"});
    EXPECT_EQ(iterations, 3);
    for (const fake::message &line : fake::messages_numbered(0))
        EXPECT_EQ(line.text, "Cache Access stress for cache_size 100000 line_size 40 num_loops 3\n");
    EXPECT_EQ(fake::test_end_calls(), 1);
    EXPECT_EQ(fake::sleeps(), (std::vector<unsigned int>{1, 1}));
    EXPECT_EQ(fake::trace_log(), (strings{"before process_args", "after process_args", "before clean_up",
                                          "after clean_up"}));
    for (const fake::message &m : fake::messages())
        EXPECT_EQ(m.exit_flag, DXT_RETURN);
}

TEST_F(driver, failed_workers_give_8011_once_and_no_end)
{
    fake::set_online({0, 1, 2});
    fake::script_worker_status(0, -1);
    fake::script_worker_status(2, 12);
    try {
        run("test_mask=0");
        FAIL() << "the run went on after failed workers";
    } catch (const fake::exit_request &end) {
        EXPECT_EQ(end.number, MSG_WORKERS_FAILED);
        EXPECT_EQ(end.exit_flag, DXT_FATAL);
    }
    auto verdict = fake::messages_numbered(MSG_WORKERS_FAILED);
    ASSERT_EQ(verdict.size(), 1u);
    EXPECT_EQ(verdict[0].level, LVL_FATAL);
    EXPECT_EQ(fake::count_of(MSG_RUN_END), 0);
    EXPECT_EQ(fake::test_end_calls(), 0);
    // Every worker was joined before the verdict.
    EXPECT_EQ(fake::joined_threads().size(), 3u);
}

TEST_F(driver, worker_table_holds_the_online_processors_in_order)
{
    fake::set_online({0, 2, 4, 1023, 1024});
    EXPECT_EQ(init_proc_db(), 4);
    EXPECT_EQ(thr_db[0].cpu_id, 0);
    EXPECT_EQ(thr_db[1].cpu_id, 2);
    EXPECT_EQ(thr_db[2].cpu_id, 4);
    EXPECT_EQ(thr_db[3].cpu_id, 1023);
    for (int i = 4; i < MAX_PROCS; i++)
        ASSERT_EQ(thr_db[i].cpu_id, -1) << i;
    for (const thr_db_entry &entry : thr_db) {
        ASSERT_EQ(entry.thr_id, 0u);
        ASSERT_EQ(entry.create_result, 0);
    }
}

TEST_F(driver, failed_creation_skips_one_processor_and_names_its_entry)
{
    fake::set_online({0, 1, 2, 3});
    fake::fail_create(2, EAGAIN);
    fake::script_worker_status(1, 7);  // never started: must not count
    nprocs = init_proc_db();
    run_ecache_thr();

    EXPECT_EQ(threads_spawned, 3);
    EXPECT_EQ(fake::started_cpus(), (std::vector<int>{0, 2, 3}));
    EXPECT_EQ(thr_db[1].create_result, EAGAIN);
    EXPECT_EQ(thr_db[1].thr_id, 0u);
    auto failed = fake::messages_numbered(MSG_THREAD_CREATE_FAILED);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].args, strings{"1"});
    EXPECT_EQ(failed[0].level, LVL_STEP_ERROR);
    EXPECT_EQ(failed[0].exit_flag, DXT_RETURN);

    EXPECT_EQ(wait_thr_db(), 0);
    EXPECT_EQ(fake::joined_threads().size(), 3u);
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(thr_db[i].thr_id, 0u);
        EXPECT_EQ(thr_db[i].cpu_id, i == 1 ? 1 : -1) << "only joined entries are emptied";
    }
}

TEST_F(driver, join_counts_each_failed_worker)
{
    fake::set_online({0, 1, 2, 3});
    fake::fail_create(1, EAGAIN);
    fake::script_worker_status(1, -1);
    fake::script_worker_status(2, 0);
    fake::script_worker_status(3, 12);
    nprocs = init_proc_db();
    run_ecache_thr();
    EXPECT_EQ(wait_thr_db(), 2);
}

TEST_F(driver, nothing_to_join_when_no_thread_started)
{
    fake::set_online({0});
    fake::fail_create(1, EAGAIN);
    nprocs = init_proc_db();
    run_ecache_thr();
    EXPECT_EQ(wait_thr_db(), 0);
    EXPECT_TRUE(fake::joined_threads().empty());
}

TEST_F(driver, failed_binding_is_reported_and_the_worker_still_counts)
{
    fake::set_online({3});
    fake::fail_bind(EPERM);
    run("test_mask=0");
    auto bind = fake::messages_numbered(MSG_BIND_FAILED);
    ASSERT_EQ(bind.size(), 1u);
    EXPECT_EQ(bind[0].args, (strings{"3", strerror(EPERM)}));
    EXPECT_EQ(bind[0].level, LVL_STEP_ERROR);
    EXPECT_EQ(fake::count_of(MSG_RUN_END), 1);
}

class cache_info : public driver_fixture {
protected:
    void SetUp() override
    {
        driver_fixture::SetUp();
        fake::set_online({2, 5});
        nprocs = init_proc_db();
    }

    uint32_t size = 0, line = 0, ways = 0;
};

TEST_F(cache_info, describes_the_first_online_processor)
{
    fake::set_descriptor(2, 2, 524288, 128, 16);
    fake::set_descriptor(5, 2, 1, 1, 1);
    EXPECT_EQ(get_cache_info(2, &size, &line, &ways), 0);
    EXPECT_EQ(fake::cacheinfo_queries(), std::vector<int>{2});
    EXPECT_EQ(size, 524288u);
    EXPECT_EQ(line, 128u);
    EXPECT_EQ(ways, 16u);
    EXPECT_TRUE(fake::messages().empty());
}

TEST_F(cache_info, second_level_falls_back_to_descriptor_4_but_first_level_does_not)
{
    // The default record has descriptor 2 empty and descriptor 4 filled.
    EXPECT_EQ(get_cache_info(2, &size, &line, &ways), 0);
    EXPECT_EQ(size, 1048576u);
    fake::set_descriptor(2, 0, 0, 64, 8);
    size = 77;
    EXPECT_EQ(get_cache_info(0, &size, &line, &ways), -1);
    EXPECT_EQ(size, 77u) << "outputs untouched on failure";
    auto detail = fake::messages();
    ASSERT_EQ(detail.size(), 1u);
    EXPECT_EQ(detail[0].level, LVL_INFO);
    EXPECT_EQ(detail[0].text, "dxt_tlib_get_cpu_cacheinfo() failed on cpu 2, retval 0 ; ");
}

TEST_F(cache_info, library_failure_carries_its_own_reason)
{
    fake::set_cacheinfo_result(2, -1);
    fake::set_errmsg("no cache source answers");
    EXPECT_EQ(get_cache_info(2, &size, &line, &ways), -1);
    fake::set_cacheinfo_result(2, 22);
    EXPECT_EQ(get_cache_info(2, &size, &line, &ways), -1);
    auto texts = fake::messages_numbered(0);
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0].text, "dxt_tlib_get_cpu_cacheinfo() failed on cpu 2, retval -1 ; no cache source answers");
    EXPECT_EQ(texts[1].text, "dxt_tlib_get_cpu_cacheinfo() failed on cpu 2, retval 22 ; ");
}

TEST_F(cache_info, empty_table_is_a_failed_query)
{
    fake::set_online({});
    nprocs = init_proc_db();
    EXPECT_EQ(get_cache_info(2, &size, &line, &ways), -1);
    EXPECT_TRUE(fake::cacheinfo_queries().empty());
    EXPECT_EQ(fake::count_of(0), 1);
}

TEST_F(driver, start_up_reports_unreadable_geometry_and_goes_on)
{
    fake::set_cacheinfo_result(0, 4);
    fake::script_worker_status(0, 0);
    run("test_mask=0");
    strings texts;
    for (const fake::message &m : fake::messages_numbered(0))
        texts.push_back(m.text);
    EXPECT_EQ(texts, (strings{
                         "dxt_tlib_get_cpu_cacheinfo() failed on cpu 0, retval 4 ; ",
                         "get_cache_info failed for L2 cache, dxt internal error, going ahead with default values",
                         "dxt_tlib_get_cpu_cacheinfo() failed on cpu 0, retval 4 ; ",
                         "get_cache_info failed for L1 cache, dxt internal error, going ahead with default values",
                     }));
    EXPECT_EQ(fake::messages_numbered(0).at(1).level, LVL_DEBUG);
    EXPECT_EQ(fake::count_of(MSG_RUN_END), 1);
}

}  // namespace
