// The verdict as the harness assembles it: the geometry a worker takes and
// its sources, which subtest a failed worker was in, what the corrected-error
// counters say, and the JSON record and text block for every kind of
// verdict, from hand-made machines and failures.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "harness/testinfo.h"
#include "json_check.h"
#include "verdict.h"

namespace {

using json_check::kind;

std::string str(const dxt::text_buffer &b) { return std::string(b.data, b.length); }

// A cache record with descriptors 2 and 4 as given (size, line, ways).
struct record_words {
    uint32_t words[2 + 4 * CACHEINFO_DESCRIPTORS] = {};
    void set(int descriptor, uint32_t size, uint32_t line, uint32_t ways)
    {
        uint32_t *d = words + CACHEINFO_FIRST_WORD + CACHEINFO_DESC_WORDS * descriptor;
        d[CACHEINFO_SIZE] = size;
        d[CACHEINFO_LINE] = line;
        d[CACHEINFO_WAYS] = ways;
    }
};

TEST(ChooseL2, DescriptorFourThenTwoThenTheDefaults)
{
    record_words r;
    r.set(2, 4 << 20, 64, 16);
    r.set(4, 1 << 20, 128, 8);
    dxt::l2_geometry g = dxt::choose_l2(3, 0, r.words, "sysfs", "sysconf", "2-3");
    EXPECT_EQ(g.cpu, 3);
    EXPECT_EQ(g.size, 1u << 20);
    EXPECT_EQ(g.line, 128u);
    EXPECT_EQ(g.ways, 8u);
    EXPECT_STREQ(g.size_source, "sysfs");
    EXPECT_STREQ(g.ways_source, "sysfs");
    EXPECT_STREQ(g.shared_cpus, "2-3");

    r.set(4, 0, 0, 0);
    g = dxt::choose_l2(3, 0, r.words, "none", "sysconf", "unknown");
    EXPECT_EQ(g.size, 4u << 20);
    EXPECT_EQ(g.ways, 16u);
    EXPECT_STREQ(g.line_source, "sysconf");

    r.set(2, 0, 0, 0);
    g = dxt::choose_l2(3, 0, r.words, "none", "none", "unknown");
    EXPECT_EQ(g.size, 2u << 20);
    EXPECT_EQ(g.line, 64u);
    EXPECT_EQ(g.ways, 4u);
    EXPECT_STREQ(g.size_source, "defaults");

    // A record the library could not give: the defaults, whatever it holds.
    r.set(4, 1 << 20, 128, 8);
    for (int result : {-1, 1}) {
        g = dxt::choose_l2(3, result, r.words, "sysfs", "sysconf", "unknown");
        EXPECT_EQ(g.size, 2u << 20) << result;
        EXPECT_STREQ(g.size_source, "defaults");
    }
}

TEST(ChooseL2, ZeroLineOrWaysComeFromTheDefaultsEachWithItsSource)
{
    record_words r;
    r.set(4, 1 << 20, 0, 0);
    dxt::l2_geometry g = dxt::choose_l2(0, 0, r.words, "CPUID leaf 4", "none", "0");
    EXPECT_EQ(g.size, 1u << 20);
    EXPECT_STREQ(g.size_source, "CPUID leaf 4");
    EXPECT_EQ(g.line, 64u);
    EXPECT_STREQ(g.line_source, "defaults");
    EXPECT_EQ(g.ways, 4u);
    EXPECT_STREQ(g.ways_source, "defaults");

    dxt::line_buffer text;
    dxt::put_geometry_text(text, g);
    EXPECT_EQ(str(text), "L2 of cpu0: 1048576 bytes (CPUID leaf 4), 64-byte lines (defaults), 4 ways (defaults), "
                         "shared by cpus 0");
}

// The subtests' indexes in the worker's order.
enum {
    wrrdvr,
    cache_hit,
    cache_miss,
    random_swap,
    interconnect,
    march_variable,
    march_line,
    march_row,
    march_column,
    random_offset,
};

std::vector<int> guess(int32_t mask, int last_started, bool last_ended, bool status_known = false,
                       intptr_t status = 0)
{
    dxt::subtest_set set = dxt::possible_subtests(mask, last_started, last_ended, status_known, status);
    return std::vector<int>(set.index, set.index + set.count);
}

TEST(FailedWorker, TheSubtestItWasIn)
{
    const int32_t all = dxt::all_subtests;
    // Started and not ended: that one.
    EXPECT_EQ(guess(all, random_swap, false), std::vector<int>{random_swap});
    EXPECT_EQ(guess(all, march_row, false, true, -1), std::vector<int>{march_row});
    // Nothing started: the selected subtests before the first that announces itself.
    EXPECT_EQ(guess(16, -1, false, true, -1), std::vector<int>{cache_hit});
    EXPECT_EQ(guess(16 | 32 | 64, -1, false), (std::vector<int>{cache_hit, cache_miss}));
    EXPECT_EQ(guess(0x1000, -1, false), std::vector<int>{random_offset});
    // After the Write/Read/Verify test, which has no end message: the status
    // tells the comparing Cache Hit test from the allocating Cache Miss test.
    EXPECT_EQ(guess(all, wrrdvr, false), (std::vector<int>{cache_hit, cache_miss}));
    EXPECT_EQ(guess(all, wrrdvr, false, true, -1), std::vector<int>{cache_hit});
    EXPECT_EQ(guess(all, wrrdvr, false, true, 12), std::vector<int>{cache_miss});
    EXPECT_EQ(guess(all, wrrdvr, false, true, 5), (std::vector<int>{cache_hit, cache_miss}));
    // A status no candidate gives keeps them all rather than none.
    EXPECT_EQ(guess(8 | 32, wrrdvr, false, true, -1), std::vector<int>{cache_miss});
    // After the last march ended: the Random Offset test, if selected.
    EXPECT_EQ(guess(all, march_column, true), std::vector<int>{random_offset});
    EXPECT_EQ(guess(0x400, march_column, true), std::vector<int>{});
    // Ended, and the next selected one announces itself: none can be named.
    EXPECT_EQ(guess(all, random_swap, true), std::vector<int>{});
}

dxt_corrected_errors snapshot(int edac, uint64_t corrected, int mce, uint64_t machine_checks)
{
    return {edac, corrected, mce, machine_checks, corrected + machine_checks};
}

TEST(CorrectedErrors, AnIncreaseIsCountedFromTheSourcesReadBothTimes)
{
    dxt::corrected_check c =
        dxt::compare_corrected_errors(true, snapshot(1, 10, 1, 2), true, snapshot(1, 13, 1, 2));
    EXPECT_TRUE(c.checked);
    EXPECT_TRUE(c.available);
    EXPECT_EQ(c.before, 12u);
    EXPECT_EQ(c.after, 15u);
    EXPECT_EQ(c.increase, 3u);
    EXPECT_STREQ(c.sources, "EDAC memory controllers and machine-check exceptions");

    // The machine-check line went away: only EDAC compares.
    c = dxt::compare_corrected_errors(true, snapshot(1, 10, 1, 2), true, snapshot(1, 11, 0, 0));
    EXPECT_EQ(c.increase, 1u);
    EXPECT_EQ(c.before, 10u);
    EXPECT_STREQ(c.sources, "EDAC memory controllers");

    // A counter reset is no increase.
    c = dxt::compare_corrected_errors(true, snapshot(0, 0, 1, 7), true, snapshot(0, 0, 1, 0));
    EXPECT_EQ(c.increase, 0u);
    EXPECT_STREQ(c.sources, "machine-check exceptions");
}

TEST(CorrectedErrors, NoSourceIsSaidOnceAndNeverWarns)
{
    dxt::corrected_check c = dxt::compare_corrected_errors(false, snapshot(0, 0, 0, 0), false, snapshot(0, 0, 0, 0));
    EXPECT_TRUE(c.checked);
    EXPECT_FALSE(c.available);
    EXPECT_EQ(c.increase, 0u);
    ASSERT_NE(dxt::corrected_errors_note(false), nullptr);
    EXPECT_NE(std::string(dxt::corrected_errors_note(false)).find("not checked"), std::string::npos);
    EXPECT_EQ(dxt::corrected_errors_note(true), nullptr);
}

// A machine of four processors: 0 and 1 tested, sharing an L2 from sysfs,
// 2 offline, 3 outside the allowed set.
dxt::machine_description small_machine()
{
    dxt::machine_description m;
    m.tested = {0, 1};
    m.left_out = {{2, false}, {3, true}};
    m.l2 = {{0, 1 << 20, 64, 16, "sysfs", "sysfs", "sysfs", "0-1"},
            {1, 1 << 20, 64, 16, "sysfs", "sysfs", "sysfs", "0-1"}};
    return m;
}

dxt::corrected_check rising_errors()
{
    return dxt::compare_corrected_errors(true, snapshot(1, 4, 0, 0), true, snapshot(1, 6, 0, 0));
}

json_check::object record_of(const dxt::verdict_record &record)
{
    std::vector<char> storage(dxt::verdict_room(record));
    dxt::text_buffer out{storage.data(), storage.size()};
    dxt::put_verdict_record(out, record);
    std::string line = str(out);
    EXPECT_TRUE(line.ends_with("}\n")) << line;
    EXPECT_EQ(line.find('\n'), line.size() - 1) << "one line";
    auto parsed = json_check::parse_object_line(line.substr(0, line.size() - 1));
    EXPECT_TRUE(parsed.has_value()) << line;
    return parsed.value_or(json_check::object{});
}

std::vector<json_check::member> array_of(const json_check::member &m)
{
    EXPECT_EQ(m.type, kind::array) << m.text;
    return json_check::parse_array(m.text).value_or(std::vector<json_check::member>{});
}

json_check::object object_of(const json_check::member &m)
{
    EXPECT_EQ(m.type, kind::object) << m.text;
    return json_check::parse_object_line(m.text).value_or(json_check::object{});
}

TEST(VerdictRecord, PassNamesTheMachine)
{
    dxt::machine_description m = small_machine();
    json_check::object r =
        record_of({1795412418, 0, 2013, "tarneltest passed in 2.0 s", 1, &m, {}, rising_errors(), "node-17"});
    EXPECT_EQ(r.at("time").text, "2026-11-23T05:40:18Z");
    EXPECT_EQ(r.at("host").text, "node-17");
    EXPECT_EQ(r.at("schema_version").text, "1");
    EXPECT_EQ(r.at("verdict").text, "pass");
    EXPECT_EQ(r.at("exit_status").text, "0");
    EXPECT_EQ(r.at("elapsed_seconds").text, "2.013");
    EXPECT_EQ(r.at("text").text, "tarneltest passed in 2.0 s");
    EXPECT_EQ(r.at("cpu").text, "1");
    EXPECT_EQ(r.at("tested_cpus").text, "[0,1]");

    std::vector<json_check::member> left = array_of(r.at("left_out_cpus"));
    ASSERT_EQ(left.size(), 2u);
    EXPECT_EQ(object_of(left[0]).at("cpu").text, "2");
    EXPECT_EQ(object_of(left[0]).at("reason").text, "offline");
    EXPECT_EQ(object_of(left[1]).at("cpu").text, "3");
    EXPECT_EQ(object_of(left[1]).at("reason").text, "not-allowed");

    std::vector<json_check::member> l2 = array_of(r.at("l2"));
    ASSERT_EQ(l2.size(), 2u);
    json_check::object first = object_of(l2[0]);
    EXPECT_EQ(first.at("cpu").text, "0");
    EXPECT_EQ(first.at("size").text, "1048576");
    EXPECT_EQ(first.at("line").text, "64");
    EXPECT_EQ(first.at("ways").text, "16");
    EXPECT_EQ(first.at("source").text, "sysfs");
    EXPECT_EQ(object_of(first.at("sources")).at("ways").text, "sysfs");
    EXPECT_EQ(first.at("shared_cpus").text, "0-1");

    EXPECT_EQ(r.at("failures").text, "[]");
    json_check::object corrected = object_of(r.at("corrected_errors"));
    EXPECT_EQ(corrected.at("checked").text, "true");
    EXPECT_EQ(corrected.at("available").text, "true");
    EXPECT_EQ(corrected.at("increase").text, "2");
    EXPECT_EQ(corrected.at("before").text, "4");
    EXPECT_EQ(corrected.at("sources").text, "EDAC memory controllers");
    // A warning, never a failure.
    std::vector<json_check::member> warnings = array_of(r.at("warnings"));
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].text.find("2 corrected hardware errors counted during the run"), std::string::npos);
}

TEST(VerdictRecord, FaultNamesTheProcessorAndTheSubtests)
{
    dxt::machine_description m = small_machine();
    dxt::failure_site found;
    found.cpu = 1;
    found.message = MSG_WORKERS_FAILED;
    found.status_known = true;
    found.status = 12;
    found.subtests = dxt::possible_subtests(dxt::all_subtests, random_swap, false, true, 12);
    dxt::failure_site unsure;
    unsure.cpu = 0;
    unsure.message = MSG_WORKERS_FAILED;
    unsure.status_known = true;
    unsure.status = 5;
    unsure.subtests = dxt::possible_subtests(dxt::all_subtests, wrrdvr, false, true, 5);
    std::vector<dxt::failure_site> sites{found, unsure};
    json_check::object r = record_of({0, 1, 10, "a fault was found (exit status 1)", 0, &m, sites, {}});
    EXPECT_EQ(r.at("verdict").text, "fault");
    EXPECT_EQ(r.at("exit_status").text, "1");
    std::vector<json_check::member> failures = array_of(r.at("failures"));
    ASSERT_EQ(failures.size(), 2u);
    json_check::object one = object_of(failures[0]);
    EXPECT_EQ(one.at("cpu").text, "1");
    EXPECT_EQ(one.at("message").text, "8011");
    EXPECT_EQ(one.at("worker_status").text, "12");
    EXPECT_EQ(one.at("subtest").text, "Random Swap");
    EXPECT_EQ(one.at("possible_subtests").text, "[\"Random Swap\"]");
    EXPECT_EQ(one.at("address").text, "null");
    json_check::object two = object_of(failures[1]);
    EXPECT_EQ(two.at("subtest").text, "null");
    EXPECT_EQ(two.at("possible_subtests").text, "[\"Cache Hit Stress\",\"Cache Miss Stress\"]");
    // Corrected errors not read: said so, with no numbers.
    json_check::object corrected = object_of(r.at("corrected_errors"));
    EXPECT_EQ(corrected.at("checked").text, "false");
    EXPECT_EQ(corrected.at("increase").text, "null");
    EXPECT_EQ(r.at("warnings").text, "[]");
}

TEST(VerdictRecord, CouldNotTestNamesTheProcessorWithoutASubtest)
{
    // The vendor check of a worker bound to processor 1 (8014): no subtest
    // had started.
    dxt::machine_description m = small_machine();
    dxt::failure_site vendor;
    vendor.cpu = 1;
    vendor.message = MSG_UNKNOWN_VENDOR;
    vendor.subtests = dxt::possible_subtests(dxt::all_subtests, -1, false, false, 0);
    json_check::object r = record_of({0, dxt::exit_could_not_test, 5, "the run could not test this machine (exit status 3)",
                                      1, &m, {&vendor, 1}, {}});
    EXPECT_EQ(r.at("verdict").text, "could-not-test");
    EXPECT_EQ(r.at("exit_status").text, "3");
    std::vector<json_check::member> failures = array_of(r.at("failures"));
    ASSERT_EQ(failures.size(), 1u);
    json_check::object f = object_of(failures[0]);
    EXPECT_EQ(f.at("cpu").text, "1");
    EXPECT_EQ(f.at("message").text, "8014");
    EXPECT_EQ(f.at("worker_status").text, "null");
    EXPECT_EQ(f.at("subtest").text, "null");
    EXPECT_EQ(f.at("possible_subtests").text, "[]");
    EXPECT_EQ(r.at("tested_cpus").text, "[0,1]");
}

TEST(VerdictRecord, UsageAndInterruptedKinds)
{
    json_check::object usage = record_of({0, dxt::exit_usage, 0, "unrecognised option '-x' (exit status 2)", -1,
                                          nullptr, {}, {}});
    EXPECT_EQ(usage.at("verdict").text, "usage");
    EXPECT_EQ(usage.at("exit_status").text, "2");
    EXPECT_EQ(usage.at("cpu").text, "null");
    EXPECT_EQ(usage.at("host").text, "null");  // not known
    EXPECT_EQ(usage.at("tested_cpus").text, "[]");
    EXPECT_EQ(usage.at("left_out_cpus").text, "[]");
    EXPECT_EQ(usage.at("l2").text, "[]");
    EXPECT_EQ(usage.at("text").text, "unrecognised option '-x' (exit status 2)");

    dxt::machine_description m = small_machine();
    json_check::object interrupted =
        record_of({0, 143, 61000, "interrupted by SIGTERM (exit status 143)", 0, &m, {}, {}});
    EXPECT_EQ(interrupted.at("verdict").text, "interrupted");
    EXPECT_EQ(interrupted.at("exit_status").text, "143");
    EXPECT_EQ(interrupted.at("elapsed_seconds").text, "61.000");
    EXPECT_STREQ(dxt::verdict_name(129), "interrupted");
}

TEST(VerdictRecord, RoomSufficesForALargeMixedMachine)
{
    dxt::machine_description m;
    for (int cpu = 0; cpu < 512; cpu++) {
        if (cpu % 7 == 3) {
            m.left_out.push_back({cpu, cpu % 2 == 0});
            continue;
        }
        m.tested.push_back(cpu);
        m.l2.push_back({cpu, uint32_t(cpu % 2 ? 1 << 20 : 2 << 20), 64, 16, "CPUID leaf 0x8000001D", "defaults",
                        "sysfs", "0-3,8-11,256-259,300-303"});
    }
    std::vector<dxt::failure_site> sites(m.tested.size());
    for (size_t i = 0; i < sites.size(); i++) {
        sites[i].cpu = m.tested[i];
        sites[i].subtests = dxt::possible_subtests(dxt::all_subtests, -1, false, false, 0);
    }
    std::string text(300, '"');
    dxt::verdict_record record{0, 1, 0, text, 0, &m, sites, rising_errors()};
    size_t room = dxt::verdict_room(record);
    for (bool json : {true, false}) {
        std::vector<char> storage(room);
        dxt::text_buffer out{storage.data(), storage.size()};
        if (json)
            dxt::put_verdict_record(out, record);
        else
            dxt::put_verdict_block(out, record, false);
        ASSERT_LT(out.length, room) << (json ? "json" : "text");
        EXPECT_EQ(out.data[out.length - 1], '\n');
        if (json) {
            EXPECT_TRUE(json_check::parse_object_line(std::string_view(out.data, out.length - 1)).has_value());
        }
    }
}

std::vector<std::string> lines_of(const dxt::verdict_record &record, bool quiet)
{
    std::vector<char> storage(dxt::verdict_room(record));
    dxt::text_buffer out{storage.data(), storage.size()};
    dxt::put_verdict_block(out, record, quiet);
    std::vector<std::string> lines;
    std::istringstream in(str(out));
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

TEST(VerdictBlock, SummaryLinesThenTheVerdictLine)
{
    dxt::machine_description m = small_machine();
    m.tested.push_back(5);
    m.l2.push_back({5, 512 << 10, 64, 8, "CPUID leaf 4", "CPUID leaf 4", "defaults", "5"});
    dxt::failure_site site;
    site.cpu = 5;
    site.message = MSG_WORKERS_FAILED;
    site.status_known = true;
    site.status = -1;
    site.subtests = dxt::possible_subtests(dxt::all_subtests, wrrdvr, false, true, -1);
    dxt::verdict_record record{1795412418, 1, 0, "a fault was found (exit status 1)", 0, &m, {&site, 1},
                               rising_errors()};
    const std::string at = "2026-11-23T05:40:18Z SUMMARY ";
    std::vector<std::string> lines = lines_of(record, false);
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0], at + "processors tested: 0-1,5; left out: 2 (offline), 3 (outside the allowed CPU set)");
    EXPECT_EQ(lines[1], at + "L2 of cpu 0-1: 1048576 bytes, 64-byte lines, 16 ways, from sysfs");
    EXPECT_EQ(lines[2],
              at + "L2 of cpu 5: 524288 bytes, 64-byte lines, 8 ways, from size: CPUID leaf 4, line: CPUID leaf 4, "
                   "ways: defaults");
    EXPECT_EQ(lines[3], at + "L2 shared by cpus 0-1");
    EXPECT_EQ(lines[4], at + "failure on cpu5: Cache Hit Stress (message 8011, worker exit status -1)");
    EXPECT_EQ(lines[5], at + "WARNING: 2 corrected hardware errors counted during the run (EDAC memory controllers); "
                             "they do not fail the run, but the hardware is correcting errors");
    EXPECT_EQ(lines[6], "2026-11-23T05:40:18Z VERDICT cpu0 FAIL: a fault was found (exit status 1)");

    // Quiet: only what went wrong, and the verdict.
    std::vector<std::string> quiet = lines_of(record, true);
    ASSERT_EQ(quiet.size(), 3u);
    EXPECT_EQ(quiet[0], lines[4]);
    EXPECT_EQ(quiet[1], lines[5]);
    EXPECT_EQ(quiet[2], lines[6]);
}

TEST(VerdictBlock, UnknownPlacesAndOwnCaches)
{
    dxt::machine_description m;
    m.tested = {0, 1};
    m.l2 = {{0, 1 << 20, 64, 8, "sysfs", "sysfs", "sysfs", "0"}, {1, 1 << 20, 64, 8, "sysfs", "sysfs", "sysfs", "1"}};
    dxt::failure_site bus;
    bus.address_known = true;
    bus.address = 0x7f0040;
    std::vector<std::string> lines = lines_of({0, 1, 0, "x", -1, &m, {&bus, 1}, {}}, false);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_TRUE(lines[0].ends_with("processors tested: 0-1; left out: none")) << lines[0];
    EXPECT_TRUE(lines[2].ends_with("each tested processor has an L2 of its own")) << lines[2];
    EXPECT_TRUE(lines[3].ends_with("failure on an unknown processor: subtest unknown (signal, address 0x7f0040)"))
        << lines[3];
    EXPECT_TRUE(lines[4].ends_with("VERDICT cpu? FAIL: x")) << lines[4];
}

TEST(Progress, SubtestAndProcessorCountsOnOneShortLine)
{
    dxt::line_buffer line;
    dxt::put_progress_text(line, -1, 0, 0, 2);
    EXPECT_EQ(str(line), "starting on 2 cpus");
    for (const dxt::subtest &s : dxt::subtests()) {
        line.length = 0;
        dxt::put_progress_text(line, static_cast<int>(&s - dxt::subtests().data()), 128, 127, 128);
        EXPECT_LE(line.length, 79u) << str(line);
    }
    line.length = 0;
    dxt::put_progress_text(line, random_swap, 2, 1, 4);
    EXPECT_EQ(str(line), "Random Swap: 2/4 cpus started, 1/4 finished");
}

}  // namespace
