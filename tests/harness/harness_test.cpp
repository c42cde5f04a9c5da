// The harness's own rules, where no whole run can show them, each test
// named for the room it checks (lib/dxttest/<layer>/<room>): the catalogue
// against what the program passes, the watchdog's findings, the subtests a
// failed worker can be in, the run record's decisions, the JSON record's
// room, and the signals' report of a real bus error (in a child process:
// its exit status and its lines). Whole lines from many threads show in
// every JSON run of tests/e2e; the rooms' layout, in harness.rooms.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <regex>
#include <span>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "catalogue.h"
#include "machine.h"
#include "harness/testinfo.h"
#include "message_args.h"
#include "record.h"
#include "reports.h"
#include "sensors.h"
#include "sensors_record.h"
#include "signals.h"
#include "statuses.h"
#include "summary.h"
#include "table.h"
#include "watchdog.h"
#include "workers.h"

// What the program defines for the harness to read.
const char dxt_test_version[] = "9.9 2026/01/02 (harness test)";
int32_t test_mask = 0xFFFFF;

namespace {

// The argument types a printf format consumes, in order: d int, u unsigned,
// s text, '*' a width, '?' anything the program never passes.
std::string conversions(const char *format)
{
    std::string types;
    for (const char *p = format; *p != '\0'; p++) {
        if (*p != '%' || *++p == '%')
            continue;
        for (; *p != '\0' && std::string_view("-+ #0123456789.*hlLqjzt").find(*p) != std::string_view::npos; p++)
            if (*p == '*')
                types += '*';
        size_t kind = std::string_view("diuxXos").find(*p);
        types += kind == std::string_view::npos ? '?' : "dduuuus"[kind];
        if (*p == '\0')
            break;
    }
    return types;
}

TEST(Catalogue, ExactlyTheProgramsNumbersEachTakingItsArguments)
{
    std::map<int, std::string> program;
    for (const message_args &m : program_messages)
        program.emplace(m.number, m.args);
    std::map<int, std::string> catalogue;
    for (int number : dxt::catalogue_numbers())
        EXPECT_TRUE(catalogue.emplace(number, conversions(dxt::catalogue_format(number))).second) << number << " twice";
    EXPECT_EQ(catalogue, program);
    EXPECT_EQ(dxt::catalogue_format(0), nullptr);
    EXPECT_EQ(dxt::catalogue_format(4242), nullptr);
}

// Threads as the platform lists them, times in milliseconds: started and
// ended (0: still running).
std::vector<platform_thread> threads(std::vector<std::pair<long long, long long>> times)
{
    std::vector<platform_thread> out;
    for (auto [started, ended] : times)
        out.push_back({1, 1, -1, ended != 0, 0, 0, started, ended});
    return out;
}

// The run started at 0 with a limit of 3600 s; the relative limit is
// max(60 s, 10 x the slowest finished worker), once the others finished.
TEST(Watchdog, HungOnlyAloneAfterTenTimesTheSlowestOrPastTheLimit)
{
    const struct {
        std::vector<std::pair<long long, long long>> times;
        long long now;
        std::vector<size_t> hung;  // empty: not hung
    } rows[] = {
        {{{0, 5000}, {0, 0}}, 59999, {}},          // the floor: 60 s
        {{{0, 5000}, {0, 0}}, 60000, {1}},
        {{{0, 9000}, {1000, 0}}, 90999, {}},       // 10 x 9 s from its own start
        {{{0, 9000}, {1000, 0}}, 91000, {1}},
        {{{0, 5000}, {0, 9000}, {0, 0}}, 90000, {2}},  // the slowest finished one counts
        {{{0, 5000}, {0, 0}, {0, 0}}, 3599999, {}},    // two still going: only the limit
        {{{0, 5000}, {0, 0}, {0, 0}}, 3600000, {1, 2}},
        {{{0, 0}}, 3599999, {}},                   // alone from the start: only the limit
        {{}, 3600000, {}},                          // no worker, past the limit: the run hung
    };
    for (const auto &row : rows) {
        std::vector<platform_thread> t = threads(row.times);
        dxt::hang_finding found = dxt::find_hung(t, row.now, 0, 3600000);
        EXPECT_EQ(found.threads, row.hung) << row.now;
        EXPECT_EQ(found.hung, !row.hung.empty() || row.now >= 3600000) << row.now;
    }
}

// The row- and column-striding marches say their end before they return a
// miscompare: a worker that failed after that end is in one of them, or in a
// later subtest that announces nothing.
TEST(Subtests, AMarchThatEndedBeforeItsMiscompare)
{
    const auto &sequence = dxt::subtests();
    auto index = [&](std::string_view name) {
        for (size_t i = 0; i < sequence.size(); i++)
            if (name == sequence[i].name)
                return static_cast<int>(i);
        return -1;
    };
    auto names = [&](dxt::subtest_set set) {
        std::vector<std::string> out;
        for (int i = 0; i < set.count; i++)
            out.push_back(sequence[static_cast<size_t>(set.index[i])].name);
        return out;
    };
    int column = index("March with column striding"), line = index("30N March with line-length striding");
    using v = std::vector<std::string>;
    EXPECT_EQ(names(dxt::possible_subtests(1024, column, true, true, -1)), v{"March with column striding"});
    EXPECT_EQ(names(dxt::possible_subtests(1024 | 4096, column, true, true, -1)),
              (v{"March with column striding", "Random Offset"}));
    EXPECT_EQ(names(dxt::possible_subtests(1024 | 4096, column, true, true, 12)), v{"Random Offset"});
    EXPECT_EQ(names(dxt::possible_subtests(1024, line, true, true, -1)), v{});  // ends, then returns 0 or 12
    // A hung worker may still be in a subtest that says no end.
    EXPECT_EQ(names(dxt::possible_subtests(8 | 16, 0, false, false, 0, true)),
              (v{"Write/Read/Verify", "Cache Hit Stress"}));
}

// One decision of the table: its status, word, name and text ("-" where
// it makes none).
std::vector<std::string> decide(const std::string &kind, const std::string &input)
{
    std::istringstream words(input);
    std::string first;
    long long n = 0;
    words >> first >> n;
    dxt::line_buffer text;
    auto verdict = [&](int status, std::string_view said) {
        return std::vector<std::string>{std::to_string(status), dxt::verdict_word(status), dxt::verdict_name(status),
                                        std::string(said)};
    };
    if (kind == "message" || kind == "worker") {
        dxt::failure_site site;
        site.cpu = 3;
        int number = kind == "worker" ? MSG_WORKERS_FAILED : std::stoi(first);
        site.message = number;
        site.status_known = kind == "worker";
        site.status = std::stoi(first);
        site.no_memory = kind == "worker" ? dxt::lacks_memory_status(site.status) : dxt::lacks_memory(number);
        site.subtests = {1, {1}};
        int flag = kind == "worker" ? -1 : static_cast<int>(n);
        std::span<const dxt::failure_site> failures(&site, flag != 0);
        dxt::run_ending e = dxt::ending_of(dxt::exit_status_of(number, flag), failures);
        if (kind == "message")
            return verdict(e.status, e.reason);
        dxt::put_verdict_block(text, {0, e.status, 0, "", -1, nullptr, failures, nullptr}, true);
        std::string block(text.data, text.length);
        return verdict(e.status, block.substr(29, block.find('\n') - 29));  // after the time and SUMMARY
    }
    if (kind == "signal") {
        dxt::put_interrupted_by(text, std::stoi(first));
        return verdict(dxt::exit_signal_base + std::stoi(first), {text.data, text.length});
    }
    if (kind == "left-out") {
        dxt::machine_description m{{0}, {{1, first.c_str()}}, {"0"}};
        dxt::put_pass_text(text, "tarneltest", m, 2000);
        return {"-", "-", "-", {text.data, text.length}};
    }
    dxt::hardware_report r;
    ras::processor_counts grew{0};
    for (auto [key, count] : {std::pair{"mce", &grew.mce}, {"thr", &grew.thr}, {"dfr", &grew.dfr}, {"trm", &grew.trm}})
        if (first == key)
            *count = n;
    r.grew.push_back(grew);
    if (first == "corrected" || first == "untested")
        r.machine_checks.push_back({1, first == "corrected" ? 0 : 1, 6, first == "corrected", true,
                                    "Data CACHE Level-2 Data-Read Error", n});
    if (first == "others")
        r.machine_checks.push_back({1, 1, -1, false, false, ras::other_kinds, n});
    std::vector<std::string> said = dxt::report_warnings(r, std::vector<int>{0});
    return {"-", "-", "-", said.empty() ? "" : said[0]};
}

TEST(RunRecord, EachInputToItsVerdictAndText)
{
    for (const auto &row : table_rows(TARNEL_TEST_DATA "/decisions.txt", 6))
        EXPECT_EQ(decide(row[0], row[1]), std::vector<std::string>(row.begin() + 2, row.end()))
            << row[0] << " " << row[1];
}

// The workers announce their L2s in whatever order they start; the record
// lists them by processor, from a copy, while the log keeps each entry
// where it was written for a signal handler to read whole.
TEST(Workers, AnnouncementsReadInProcessorOrderWithoutMovingThem)
{
    auto log = std::make_unique<dxt::worker_log>();
    for (int cpu : {3, 0, 2})
        log->announced[log->announced_count++] = {cpu, 1 << 20, 64, 16, "sysfs", "sysfs", "sysfs", "0"};
    std::vector<dxt::l2_geometry> room(4);
    auto cpus = [](std::span<const dxt::l2_geometry> l2) {
        std::vector<int> ids;
        for (const dxt::l2_geometry &g : l2)
            ids.push_back(g.cpu);
        return ids;
    };
    EXPECT_EQ(cpus(dxt::announced_in_order(*log, room)), (std::vector<int>{0, 2, 3}));
    EXPECT_EQ(cpus(dxt::announced_so_far(*log)), (std::vector<int>{3, 0, 2}));
}

// One L2 at a time: the processors sharing an L2 take one turn, in the
// order of their first processor; a sharer the run does not test is no
// part of it, and a processor whose sharing is unknown, or whose list
// leaves it out, takes a turn alone.
TEST(Machine, EachL2ATurnOfItsTestedSharers)
{
    dxt::machine_description m{{0, 1, 2, 3, 5, 8, 9}, {}, {"0-1", "0-1", "2,10", "unknown", "4", "8-9", "8-9"}};
    EXPECT_EQ(dxt::l2_domains(m), (std::vector<std::vector<int>>{{0, 1}, {2}, {3}, {5}, {8, 9}}));
}

// The effective clock: the base clock times APERF's growth over MPERF's,
// across a wrap of both counters; no clock, with the reason, where it
// cannot be trusted or has no base.
TEST(Clock, BaseTimesTheCountersGrowthOrWhyNot)
{
    sensors::clock_counts before{true, ~0ULL - 99, ~0ULL - 199, 3900, ""};
    sensors::clock_counts after{true, 2900, 1800, -1, ""};  // 3000 and 2000 on
    sensors::processor_clock c = sensors::clock_between(4, before, after, {});
    EXPECT_EQ((std::tuple{c.mhz, c.aperf_growth, c.mperf_growth, c.base_mhz, std::string(c.base_from)}),
              (std::tuple{5850LL, 3000ULL, 2000ULL, 3900LL, std::string("MSR_PLATFORM_INFO")}));
    before.platform_base_mhz = -1;
    c = sensors::clock_between(4, before, after, {-1, -1, 3700000, "ACPI CPPC nominal_freq"});
    EXPECT_EQ((std::tuple{c.mhz, std::string(c.base_from)}), (std::tuple{5550LL, std::string("ACPI CPPC nominal_freq")}));
    EXPECT_EQ(sensors::clock_between(4, before, after, {}).why.substr(0, 26), "the base clock is not know");
    EXPECT_EQ(sensors::clock_between(4, before, before, {}).why, "MPERF did not advance over the run");
    after.aperf = before.aperf + 16 * 2000 + 1;
    EXPECT_EQ(sensors::clock_between(4, before, after, {-1, -1, 1000, "x"}).mhz, -1);
    sensors::clock_counts unread{false, 0, 0, -1, "/dev/cpu/4/msr is missing"};
    EXPECT_EQ(sensors::clock_between(4, unread, after, {}).why, "/dev/cpu/4/msr is missing");
}

// The clock's summary line: the spread of the known clocks, the processors
// more than a tenth below the median, and the unknown ones with the reason
// they share, or the first's.
TEST(Clock, TheSummaryLineOfKnownAndUnknownClocks)
{
    auto line = [](std::vector<std::pair<long long, std::string>> clocks) {
        sensors::sensor_report r;
        for (size_t i = 0; i < clocks.size(); i++) {
            r.clocks.push_back({});
            r.clocks.back().cpu = static_cast<int>(i);
            std::tie(r.clocks.back().mhz, r.clocks.back().why) = clocks[i];
        }
        std::vector<char> storage(4096);
        dxt::text_buffer out{storage.data(), storage.size()};
        dxt::put_sensors_text(out, 0, r);
        std::string text(out.data, out.length);
        return text.substr(0, text.find('\n'));
    };
    EXPECT_EQ(line({{3000, ""}, {2600, ""}, {3100, ""}, {-1, "/dev/cpu/3/msr is missing"}, {-1, "/dev/cpu/4/msr is missing"}}),
              "1970-01-01T00:00:00Z SUMMARY clock: lowest 2600 MHz (cpu1), median 3000 MHz, highest 3100 MHz (cpu2); "
              "more than a tenth below the median: cpu1; not known on cpus 3-4: /dev/cpu/N/msr is missing");
    EXPECT_EQ(line({{2700, ""}, {3000, ""}}), "1970-01-01T00:00:00Z SUMMARY clock: lowest 2700 MHz (cpu0), median 3000 "
                                              "MHz, highest 3000 MHz (cpu1); more than a tenth below the median: none");
    EXPECT_EQ(line({{-1, "/dev/cpu/0/msr is missing"}, {-1, "MPERF did not advance over the run"}}),
              "1970-01-01T00:00:00Z SUMMARY clock: not known on cpus 0-1: /dev/cpu/0/msr is missing (the others' "
              "reasons are in the record)");
}

// The room reckoned for a record holds it whole with the largest report a
// storm leaves: 32 kinds of each severity, each text 240 control
// characters (six bytes each escaped), and the counts of 512 processors.
TEST(Record, TheRoomReckonedHoldsAStormsRecordWhole)
{
    dxt::hardware_report r;
    r.checked = true;
    for (int cpu = 0; cpu < 512; cpu++)
        r.grew.push_back({cpu, 1, 2, 3, 4, 5, 6});
    for (int k = 0; k < 64; k++)
        r.machine_checks.push_back({k, 4095, 6, k % 2 == 0, true, std::string(ras::kept_text_bytes, '\x01'), 1000});
    r.unread = {std::string(300, '\x01')};
    dxt::machine_description m{{0}, {}, {"0"}};
    dxt::failure_site site;
    dxt::verdict_record record{0, 1, 0, "a fault", -1, &m, {&site, 1}, &r};
    std::vector<char> room(dxt::verdict_room(record));
    dxt::text_buffer out{room.data(), room.size()};
    dxt::put_verdict_record(out, record);
    std::string text(out.data, out.length);
    EXPECT_EQ(text.find("[cut]"), std::string::npos);
    EXPECT_TRUE(text.ends_with("]}\n")) << text.substr(text.size() - 80);
    // The record, its failure, hardware_counts, a processor's counts each,
    // and each kind of machine check.
    EXPECT_EQ(std::count(text.begin(), text.end(), '{'), 1 + 1 + 1 + 512 + 64);
}

// The harness started as the program starts it, without an option parser.
void start(std::vector<std::string> args)
{
    test_name = "tarneltest";
    args.insert(args.begin(), "tarneltest");
    std::vector<char *> argv;
    for (std::string &s : args)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    test_init(static_cast<int>(args.size()), argv.data(), nullptr, nullptr, "");
}

// The harness exits, installs signal handlers and keeps run-wide state, so
// the run is a death test, its output on the standard error that such a
// test reads.
TEST(Signals, BusErrorIsAHardwareFaultWithProcessorAndAddress)
{
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            start({});
            dxt_test_async_handler(0);
            // A read past the end of a file mapping is a bus error. The
            // mapping goes where the kernel puts it: a fixed address may lie
            // outside what a sanitizer lets the program map.
            int fd = fileno(tmpfile());
            void *where = ftruncate(fd, 4096) == 0 ? mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0) : MAP_FAILED;
            if (where != MAP_FAILED && ftruncate(fd, 0) == 0)
                (void)static_cast<volatile char *>(where)[64];
            _exit(99);
        },
        ::testing::ExitedWithCode(1), ::testing::Truly([](const std::string &out) {
            // Byte 64 of a page-aligned mapping: the address ends in 040.
            return std::regex_search(out, std::regex(" FATAL main #0 hardware fault: bus error \\(SIGBUS\\) on cpu([0-9]+) "
                                                     "at address (0x[0-9a-f]*040)\n(.*\n)*.* SUMMARY failure on "
                                                     "cpu\\1( \\([^)]*\\))?: .*\\(signal, address \\2\\)\n(.*\n)*.* VERDICT FAIL: "
                                                     "a fault was found on cpu\\1 \\(exit status 1\\)\n$"));
        }));
}

}  // namespace
