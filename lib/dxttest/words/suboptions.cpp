// The test's sub-options as the harness knows them (suboptions.h).
#include "suboptions.h"

#include <cstdio>
#include <cstring>

#include "testinfo.h"

namespace dxt {

namespace {

// What each bit of test_mask selects, for the usage.
constexpr struct {
    int32_t bit;
    char what[72];
} mask_bits[] = {
    {TEST_WRRDVR, "Write/Read/Verify"},
    {TEST_CACHE_HIT, "Cache Hit Stress"},
    {TEST_CACHE_MISS, "Cache Miss Stress"},
    {TEST_RANDOM_SWAP, "Random Swap"},
    {TEST_INTERCONNECT, "CPU-cache interconnect"},
    {TEST_MARCHES, "the four marches (30N variable stride, 30N line-length, row, column)"},
    {TEST_RANDOM_OFFSET, "Random Offset"},
};

// The sub-options the test takes, with their usage lines; those without a
// text are accepted for compatibility only and share one line.
constexpr struct {
    char keyword[24];
    char form[24];
    char what[64];
} suboptions[] = {
    {"count", "count=N", "passes of every subtest, 1 to 1024 (default 8)"},
    {"test_mask", "test_mask=N", "decimal sum of the subtests to run (default 1048575, all):"},
    {"dev", "dev=tarnel", "the device; any other value is refused"},
    {"cpc", "cpc=Enabled|Disabled", "accepted; performance counters stay off"},
    {"tag", "tag=N", ""},
    {"march_window", "march_window=N", ""},
    {"march_al", "march_al=N", ""},
    {"march_pats", "march_pats=N", ""},
    {"l1cache_write_policy", "l1cache_write_policy=N", ""},
};

bool taken(std::string_view keyword)
{
    for (const auto &option : suboptions)
        if (keyword == option.keyword)
            return true;
    return false;
}

}  // namespace

std::string oversized_mask(std::string_view subopts)
{
    while (!subopts.empty()) {
        size_t comma = subopts.find(',');
        std::string_view item = subopts.substr(0, comma);
        subopts = comma == std::string_view::npos ? std::string_view() : subopts.substr(comma + 1);
        if (!item.starts_with("test_mask="))
            continue;
        std::string_view digits = item.substr(strlen("test_mask="));
        unsigned long long value = 0;
        bool over = false;
        for (char c : digits) {
            if (c < '0' || c > '9')
                break;  // the parser refuses it, with its own message
            value = value * 10 + static_cast<unsigned>(c - '0');
            over = over || value > 0xFFFFFFFFull;
        }
        if (over)
            return "the sub-option " + std::string(item) + " does not fit in 32 bits (a test_mask is at most 4294967295)";
    }
    return "";
}

std::string silently_refused(std::string_view subopts)
{
    // Items end at a comma, as the parser splits them; a keyword ends at '='.
    std::string unknown;
    int empty = 0;
    while (!subopts.empty()) {
        size_t comma = subopts.find(',');
        std::string_view item = subopts.substr(0, comma);
        subopts = comma == std::string_view::npos ? std::string_view() : subopts.substr(comma + 1);
        std::string_view keyword = item.substr(0, item.find('='));
        if (item.empty())
            empty++;
        else if (!taken(keyword))
            unknown += (unknown.empty() ? "\"" : ", \"") + std::string(keyword) + "\"";
    }
    std::string said;
    if (!unknown.empty())
        said = "; not sub-options of this test: " + unknown;
    if (empty > 0)
        said += "; " + std::to_string(empty) + (empty == 1 ? " empty item" : " empty items");
    return said;
}

std::string usage_details(const char *options_text)
{
    std::string details = "\n  -o SUBOPTIONS  the test's sub-options, comma-separated keyword=value items: ";
    details += options_text != nullptr && *options_text != '\0' ? options_text : "(none)";
    details +=
        "\n                 (repeated -o texts are joined with commas)"
        "\n  -v, --verbose  show progress and information (levels 1 to 7; the default)"
        "\n  -q, --quiet    show only errors and faults (levels 1 to 3) and the verdict"
        "\n  -d, --debug    also show debug texts (level 8) and routine tracing"
        "\n      --json     one JSON object per line on standard output instead of text"
        "\n      --duration TIME"
        "\n                 burn-in: whole runs one after another, none started after TIME"
        "\n                 (90, 45s, 30m, 2h); the run in progress finishes, so a burn-in"
        "\n                 lasts at most TIME plus one run"
        "\n      --runs N   burn-in of N runs (with --duration, whichever limit comes first)"
        "\n      --keep-going"
        "\n                 go on past runs that found a fault (never past one that could not test)"
        "\n      --one-l2-at-a-time"
        "\n                 test one L2 at a time: the processors sharing each L2 together, in"
        "\n                 turn, the rest idle, each turn a run of its own; a burn-in cycles"
        "\n                 through them, ending only after a whole cycle"
        "\n      --timeout TIME"
        "\n                 a run still going after TIME has hung (exit status 4; default 1h,"
        "\n                 at least 3 s);"
        "\n                 so has a worker still going 10 times as long as the slowest other"
        "\n                 one took, at least 60 s, once all the others have finished"
        "\n      --retest N after a run that found a fault, run the failing subtest N more"
        "\n                 times on each failing processor alone and on each processor"
        "\n                 that shares its L2, alone"
        "\n      --localise TIME"
        "\n                 after a fault, sweep each failing processor with the harness's own"
        "\n                 kernels for up to TIME (default 5 s; 0: no sweep) to say which bits"
        "\n                 failed where, and whether the cell or the read was wrong"
        "\n      --seed N   seed the test's random draws with N (0 to 281474976710655): a run"
        "\n                 on one processor repeats its draws exactly; without it a run draws"
        "\n                 as it always did (seed 0), and a burn-in's later runs take fresh"
        "\n                 seeds"
        "\n      --sensors-from DIR"
        "\n                 read the clock registers (DIR/dev/cpu/N/msr), cpufreq and hwmon"
        "\n                 (DIR/sys/...) of a recording instead of this machine's"
        "\n      --ras-db PATH"
        "\n                 rasdaemon's database of machine checks (default"
        "\n                 /var/lib/rasdaemon/ras-mc_event.db), read before and after"
        "\n      --metrics FILE"
        "\n                 at the end, write the result to FILE for Prometheus, as"
        "\n                 node_exporter's textfile collector reads it (which reads only"
        "\n                 names ending in .prom: name it so); a pass whose FILE cannot"
        "\n                 be written is exit status 3"
        "\n      --describe show what a run would test, each processor's part and L2, and"
        "\n                 the processors left out, and test nothing (with --json, one"
        "\n                 object of processors and machine); it takes no run's options"
        "\n      --sysroot DIR"
        "\n                 with --describe: a recorded machine, DIR/sys/devices/system/cpu"
        "\n                 and DIR/proc/cpuinfo, instead of this one"
        "\n  -h, --help     show this usage and exit"
        "\n      --version  show the test's version and exit"
        "\nsub-options:";
    std::string compatible;
    for (const auto &option : suboptions) {
        if (*option.what == '\0') {
            compatible += (compatible.empty() ? "\n  " : ", ") + std::string(option.form);
            continue;
        }
        char line[160];
        size_t form = strlen(option.form);
        snprintf(line, sizeof line, "\n  %-15s%s%s", option.form, form < 15 ? "" : "\n                 ", option.what);
        details += line;
        if (strcmp(option.keyword, "test_mask") != 0)
            continue;
        for (const auto &bit : mask_bits) {
            snprintf(line, sizeof line, "\n%17s%5d  %s", "", static_cast<int>(bit.bit), bit.what);
            details += line;
        }
    }
    details += compatible +
        "\n                 accepted for compatibility; no subtest reads them"
        "\nexit status: 0 passed, 1 a fault was found, 2 usage error or rejected sub-options,"
        "\n             3 the run could not test (a processor left untested, no subtest"
        "\n             selected, no memory for a subtest, lost output or metrics),"
        "\n             4 a worker or the main thread hung (see --timeout),"
        "\n             128+N interrupted by signal N; for a burn-in: 0 every run passed,"
        "\n             1 a run found a fault, 4 a run hung and none found a fault, 3 a run"
        "\n             could not test and none found a fault or hung"
        "\nWith --json the last line is the verdict record (of the burn-in, for a burn-in);"
        "\nsee tarneltest(1).";
    return details;
}

}  // namespace dxt
