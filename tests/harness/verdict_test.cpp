// The verdict as the harness assembles it, from hand-made machines and
// failures: which subtest a failed worker was in, the corrected-error
// warning, the JSON record and the text block.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness/testinfo.h"
#include "json_check.h"
#include "verdict.h"

namespace {

std::string str(const dxt::text_buffer &b) { return std::string(b.data, b.length); }

// The subtests' indexes in the worker's order.
enum { wrrdvr, cache_hit, cache_miss, random_swap, march_column = 8, random_offset };

TEST(FailedWorker, TheSubtestItWasIn)
{
    struct row {
        const char *name;
        int32_t mask;
        int last_started;
        bool ended, status_known;
        intptr_t status;
        std::vector<int> expected;
    };
    const int32_t all = dxt::all_subtests;
    const row rows[] = {
        {"started, not ended", all, random_swap, false, true, -1, {random_swap}},
        {"none started", 16 | 32 | 64, -1, false, false, 0, {cache_hit, cache_miss}},
        {"after Write/Read/Verify", all, wrrdvr, false, false, 0, {cache_hit, cache_miss}},
        {"miscompare status", all, wrrdvr, false, true, -1, {cache_hit}},
        {"no-memory status", all, wrrdvr, false, true, 12, {cache_miss}},
        {"status no candidate gives", 8 | 32, wrrdvr, false, true, -1, {cache_miss}},
        {"after the last march", all, march_column, true, false, 0, {random_offset}},
        {"ended, next announces itself", all, random_swap, true, false, 0, {}},
    };
    for (const row &r : rows) {
        dxt::subtest_set set = dxt::possible_subtests(r.mask, r.last_started, r.ended, r.status_known, r.status);
        EXPECT_EQ(std::vector<int>(set.index, set.index + set.count), r.expected) << r.name;
    }
}

dxt_corrected_errors snapshot(int edac, uint64_t corrected, int mce, uint64_t machine_checks)
{
    return {edac, corrected, mce, machine_checks, corrected + machine_checks};
}

// Processors 0 and 1 tested, sharing an L2 from sysfs; 2 offline, 3 outside
// the allowed set.
dxt::machine_description small_machine()
{
    dxt::machine_description m;
    m.tested = {0, 1};
    m.left_out = {{2, "offline"}, {3, "not-allowed"}};
    return m;
}

// What its two workers announced.
std::vector<dxt::l2_geometry> small_l2 = {{0, 1 << 20, 64, 16, "sysfs", "sysfs", "sysfs", "0-1"},
                                          {1, 1 << 20, 64, 16, "sysfs", "sysfs", "sysfs", "0-1"}};

// The JSON record, checked to be one line of valid JSON.
std::string record_of(const dxt::verdict_record &record)
{
    std::vector<char> storage(dxt::verdict_room(record));
    dxt::text_buffer out{storage.data(), storage.size()};
    dxt::put_verdict_record(out, record);
    std::string line = str(out);
    EXPECT_EQ(line.find('\n'), line.size() - 1) << "not one line: " << line;
    line.pop_back();
    EXPECT_TRUE(json_check::parse_object_line(line).has_value()) << line;
    return line;
}

std::string block_of(const dxt::verdict_record &record, bool quiet)
{
    std::vector<char> storage(dxt::verdict_room(record));
    dxt::text_buffer out{storage.data(), storage.size()};
    dxt::put_verdict_block(out, record, quiet);
    return str(out);
}

TEST(CorrectedErrors, AnIncreaseWarnsAndNoCounterGivesOnlyADebugNote)
{
    dxt::machine_description m = small_machine();
    dxt::corrected_check rising =
        dxt::compare_corrected_errors(true, snapshot(1, 10, 1, 2), true, snapshot(1, 13, 1, 2));
    std::string r = record_of({0, 0, 0, "passed", 0, &m, {}, rising});
    EXPECT_NE(r.find(",\"verdict\":\"pass\","), std::string::npos) << r;  // a warning, never a failure
    EXPECT_TRUE(r.ends_with(",\"corrected_errors\":{\"checked\":true,\"available\":true,\"sources\":\"EDAC memory "
                            "controllers and machine-check exceptions\",\"before\":12,\"after\":15,\"increase\":3},"
                            "\"warnings\":[\"3 corrected hardware errors counted during the run (EDAC memory "
                            "controllers and machine-check exceptions); they do not fail the run, but the hardware is "
                            "correcting errors\"]}"))
        << r;
    EXPECT_NE(block_of({0, 0, 0, "passed", 0, &m, {}, rising}, true).find(" SUMMARY WARNING: 3 corrected"),
              std::string::npos);

    dxt::corrected_check none = dxt::compare_corrected_errors(false, snapshot(0, 0, 0, 0), false, snapshot(0, 0, 0, 0));
    EXPECT_TRUE(record_of({0, 0, 0, "passed", 0, &m, {}, none})
                    .ends_with(",\"corrected_errors\":{\"checked\":true,\"available\":false,\"sources\":\"\","
                               "\"before\":null,\"after\":null,\"increase\":null},\"warnings\":[]}"));
    EXPECT_EQ(block_of({0, 0, 0, "passed", 0, &m, {}, none}, false).find("WARNING"), std::string::npos);
    ASSERT_NE(dxt::corrected_errors_note(false), nullptr);
    EXPECT_TRUE(std::string(dxt::corrected_errors_note(false)).starts_with("corrected hardware errors are not"));
    EXPECT_EQ(dxt::corrected_errors_note(true), nullptr);
}

TEST(VerdictRecord, EveryKeyOfAFailedRun)
{
    dxt::machine_description m = small_machine();
    std::vector<dxt::failure_site> sites(3);
    const int32_t all = dxt::all_subtests;
    sites[0] = {1, MSG_WORKERS_FAILED, true, 12, dxt::possible_subtests(all, random_swap, false, true, 12)};
    sites[1] = {0, MSG_WORKERS_FAILED, true, 5, dxt::possible_subtests(all, wrrdvr, false, true, 5)};
    sites[2].address_known = true;  // a SIGBUS on an unknown processor
    sites[2].address = 0x7f0040;
    dxt::corrected_check same = dxt::compare_corrected_errors(true, snapshot(1, 4, 0, 0), true, snapshot(1, 4, 0, 0));
    // cpu 1's worker was never created (entry 1 of the worker table): left
    // out, not tested.
    dxt::left_out_processor lost{1, "thread-not-created", 1};
    EXPECT_EQ(record_of({1795412418, 1, 2013, "a fault was found (exit status 1)", 1, &m, sites, same, "node-17",
                         {&lost, 1}, "count=1,tag=2", "1.0 2026/11/23 (t)", small_l2}),
              "{\"time\":\"2026-11-23T05:40:18Z\",\"host\":\"node-17\",\"schema_version\":1,\"verdict\":\"fault\","
              "\"exit_status\":1,\"elapsed_seconds\":2.013,\"text\":\"a fault was found (exit status 1)\",\"cpu\":1,"
              "\"thread\":\"worker\",\"options\":\"count=1,tag=2\",\"version\":\"1.0 2026/11/23 (t)\","
              "\"tested_cpus\":[0],\"left_out_cpus\":[{\"cpu\":2,\"reason\":\"offline\"},{\"cpu\":3,\"reason\":"
              "\"not-allowed\"},{\"cpu\":1,\"reason\":\"thread-not-created\",\"entry\":1}],\"failed_cpus\":[1,0],\"l2\":[{\"cpu\":0,\"size\":1048576,\"line\":64,\"ways\":16,\"source\":\"sysfs\","
              "\"sources\":{\"size\":\"sysfs\",\"line\":\"sysfs\",\"ways\":\"sysfs\"},\"shared_cpus\":\"0-1\"},"
              "{\"cpu\":1,\"size\":1048576,\"line\":64,\"ways\":16,\"source\":\"sysfs\",\"sources\":{\"size\":"
              "\"sysfs\",\"line\":\"sysfs\",\"ways\":\"sysfs\"},\"shared_cpus\":\"0-1\"}],\"failures\":[{\"cpu\":1,"
              "\"message\":8011,\"worker_status\":12,\"subtest\":\"Random Swap\",\"possible_subtests\":"
              "[\"Random Swap\"],\"address\":null},{\"cpu\":0,\"message\":8011,\"worker_status\":5,\"subtest\":null,"
              "\"possible_subtests\":[\"Cache Hit Stress\",\"Cache Miss Stress\"],\"address\":null},{\"cpu\":null,"
              "\"message\":0,\"worker_status\":null,\"subtest\":null,\"possible_subtests\":[],\"address\":"
              "\"0x7f0040\"}],\"corrected_errors\":{\"checked\":true,\"available\":true,\"sources\":"
              "\"EDAC memory controllers\",\"before\":4,\"after\":4,\"increase\":0},\"warnings\":[]}");
}

TEST(VerdictBlock, SummaryLinesThenTheVerdictLine)
{
    dxt::machine_description m = small_machine();
    m.tested.push_back(5);
    std::vector<dxt::l2_geometry> l2 = small_l2;
    l2.push_back({5, 512 << 10, 64, 8, "CPUID leaf 4", "CPUID leaf 4", "defaults", "5"});
    dxt::failure_site site{5, MSG_WORKERS_FAILED, true, -1,
                           dxt::possible_subtests(dxt::all_subtests, wrrdvr, false, true, -1)};
    dxt::verdict_record record{1795412418, 1, 0, "a fault was found (exit status 1)", 0, &m, {&site, 1},
                               dxt::compare_corrected_errors(true, snapshot(1, 4, 0, 0), true, snapshot(1, 6, 0, 0))};
    record.l2 = l2;
    const std::string at = "\n2026-11-23T05:40:18Z SUMMARY ";
    const std::string failed = at + "failure on cpu5: Cache Hit Stress (message 8011, worker exit status -1)" + at +
                               "WARNING: 2 corrected hardware errors counted during the run (EDAC memory controllers); "
                               "they do not fail the run, but the hardware is correcting errors\n2026-11-23T05:40:18Z "
                               "VERDICT FAIL: a fault was found (exit status 1)\n";
    // Compared without the leading newline: GCC 12 at -O3 raises a false
    // -Werror=restrict on a literal joined to a temporary string.
    EXPECT_EQ(block_of(record, false),
              (at + "sub-options \"\"" + at +
                  "processors tested: 0-1,5; left out: 2 (offline), 3 (outside the allowed CPU set)" + at +
                  "L2 of cpu 0-1: 1048576 bytes, 64-byte lines, 16 ways, from sysfs" + at +
                  "L2 of cpu 5: 524288 bytes, 64-byte lines, 8 ways, from size: CPUID leaf 4, line: CPUID leaf 4, "
                  "ways: defaults" + at + "L2 shared by cpus 0-1" + failed).substr(1));
    // Quiet: only what went wrong, and the verdict.
    EXPECT_EQ(block_of(record, true), failed.substr(1));
}

}  // namespace
