// The message catalogue: the text of every numbered message the test emits,
// as a printf format taking exactly the arguments that come with its number,
// the subtests those messages name, and the exit status a message that ends
// the run gives the process.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dxttest_internal.h"
#include "testinfo.h"

namespace dxt {

namespace {

// number, format, then one sample argument of each type the number takes.
// The samples never reach a text: they only let the compiler check each
// format against its argument list (check_arguments below).
#define DXT_CATALOGUE(X)                                                                                              \
    X(MSG_RUN_START, "Second-level cache test started")                                                               \
    X(MSG_PASS_COUNT, "Passes per subtest: %u", 0u)                                                                   \
    X(MSG_WRRDVR_START, "Write/Read/Verify test started")                                                             \
    X(MSG_RUN_END, "Second-level cache test finished: no worker failed")                                        \
    X(MSG_SWAP_START, "Random Swap test started")                                                                     \
    X(MSG_SWAP_END, "Random Swap test finished")                                                                      \
    X(MSG_ROW_MARCH_START, "March with row striding started")                                                         \
    X(MSG_ROW_MARCH_END, "March with row striding finished")                                                          \
    X(MSG_COL_MARCH_START, "March with column striding started")                                                      \
    X(MSG_COL_MARCH_END, "March with column striding finished")                                                       \
    X(MSG_MARCH_LINE_START, "30N March with line-length striding started")                                            \
    X(MSG_MARCH_LINE_END, "30N March with line-length striding finished")                                             \
    X(MSG_MARCH_VAR_START, "30N March with variable stride length started")                                           \
    X(MSG_MARCH_VAR_END, "30N March with variable stride length finished")                                            \
    X(MSG_INTERCONNECT_START, "CPU-cache interconnect test started")                                                  \
    X(MSG_INTERCONNECT_END, "CPU-cache interconnect test finished")                                                   \
    X(MSG_DEFAULT_TAKEN, "Value outside 1..1024, taking the default %d instead", 0)                                   \
    X(MSG_CPC_ENABLED, "Performance counters asked for (cpc=Enabled); they stay off on this platform")                \
    X(MSG_GEOMETRY_DEFAULTS, "%s failed on cpu %d (return code %d); testing with default geometry. %s", "", 0, 0, "") \
    X(MSG_USAGE, "usage: %s [-o SUBOPTIONS] [-v | -q] [-d] [--json] [--duration TIME] [--runs N] "                    \
                 "[--keep-going] [--timeout TIME] [--retest N] [--ras-db PATH] [--metrics FILE] "  \
                 "[--describe [--sysroot DIR]] [-h] [--version]", "")                                                               \
    X(MSG_WRRDVR_NO_MEMORY, "Write/Read/Verify test could not allocate its buffer")                                   \
    X(MSG_NO_MEMORY, "Could not allocate a test buffer")                                                              \
    X(MSG_BIND_FAILED, "Could not bind the worker thread to cpu %d: %s", 0, "")                                       \
    X(MSG_THREAD_CREATE_FAILED, "Could not create the worker thread of worker table entry %d", 0)                     \
    X(MSG_MISCOMPARE, "Write/Read/Verify test: a word read back differs from the word written")                       \
    X(MSG_BAD_SUBOPTION, "Sub-option \"%s\" rejected: its value is missing or malformed", "")                         \
    X(MSG_WORKERS_FAILED, "At least one processor's worker failed its cache test")                                    \
    X(MSG_SYSCALL_FAILED, "The system call %s failed: %s", "", "")                                                    \
    X(MSG_UNKNOWN_VENDOR, "This processor's vendor is neither Intel nor AMD: the test cannot run on it")

#define DXT_ENTRY(number, format, ...) {number, format},
constexpr catalogue_entry entries[] = {DXT_CATALOGUE(DXT_ENTRY)};
#undef DXT_ENTRY

[[gnu::format(printf, 1, 2)]] void check_format(const char *, ...) {}

// Never called: compiled only so that -Wformat (an error here) proves every
// format consumes exactly its number's arguments, of the right types.
[[maybe_unused]] void check_arguments()
{
#define DXT_CHECK(number, format, ...) check_format(format __VA_OPT__(, ) __VA_ARGS__);
    DXT_CATALOGUE(DXT_CHECK)
#undef DXT_CHECK
}

// Drops one trailing newline, then trailing blanks (an empty last argument
// must not leave a dangling space).
void trim_end(char *text)
{
    size_t n = strlen(text);
    if (n > 0 && text[n - 1] == '\n')
        text[--n] = '\0';
    while (n > 0 && (text[n - 1] == ' ' || text[n - 1] == '\t'))
        text[--n] = '\0';
}

// The sequence a worker runs, in its order. Only the Cache Hit Stress test
// treats a kernel's missing memory as a skip, so it alone never ends a
// worker with 12; the Write/Read/Verify test ends the run itself (6000,
// 4001) and so never ends a worker at all; tests that only make traffic
// never end one with -1.
constexpr subtest sequence[] = {
    {"Write/Read/Verify", TEST_WRRDVR, MSG_WRRDVR_START, 0, false, false, false},
    // Its kernels are skipped, not failed, when their memory cannot be had.
    {"Cache Hit Stress", TEST_CACHE_HIT, 0, 0, true, false, false, true},
    {"Cache Miss Stress", TEST_CACHE_MISS, 0, 0, false, true, false},
    {"Random Swap", TEST_RANDOM_SWAP, MSG_SWAP_START, MSG_SWAP_END, false, true, false},
    {"CPU-cache interconnect", TEST_INTERCONNECT, MSG_INTERCONNECT_START, MSG_INTERCONNECT_END, false, true, false},
    {"30N March with variable stride length", TEST_MARCHES, MSG_MARCH_VAR_START, MSG_MARCH_VAR_END, false, true,
     false},
    {"30N March with line-length striding", TEST_MARCHES, MSG_MARCH_LINE_START, MSG_MARCH_LINE_END, false, true,
     false},
    // The row- and column-striding marches release their buffer and say
    // their end message before they return a miscompare.
    {"March with row striding", TEST_MARCHES, MSG_ROW_MARCH_START, MSG_ROW_MARCH_END, true, true, true},
    {"March with column striding", TEST_MARCHES, MSG_COL_MARCH_START, MSG_COL_MARCH_END, true, true, true},
    {"Random Offset", TEST_RANDOM_OFFSET, 0, 0, true, true, false},
};

// What each bit of test_mask selects, for the usage.
constexpr struct {
    int32_t bit;
    const char *what;
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
    const char *keyword;
    const char *form;
    const char *what;
} suboptions[] = {
    {"count", "count=N", "passes of every subtest, 1 to 1024 (default 8)"},
    {"test_mask", "test_mask=N", "decimal sum of the subtests to run (default 1048575, all):"},
    {"dev", "dev=tarnel", "the device; any other value is refused"},
    {"cpc", "cpc=Enabled|Disabled", "accepted; performance counters stay off"},
    {"tag", "tag=N", nullptr},
    {"march_window", "march_window=N", nullptr},
    {"march_al", "march_al=N", nullptr},
    {"march_pats", "march_pats=N", nullptr},
    {"l1cache_write_policy", "l1cache_write_policy=N", nullptr},
};

bool taken(std::string_view keyword)
{
    for (const auto &option : suboptions)
        if (keyword == option.keyword)
            return true;
    return false;
}

}  // namespace

std::span<const subtest> subtests() { return sequence; }

int32_t subtest_bits()
{
    int32_t bits = 0;
    for (const subtest &s : sequence)
        bits |= s.mask_bit;
    return bits;
}

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

int subtest_started_by(int number)
{
    for (size_t i = 0; i < std::size(sequence); i++)
        if (number != 0 && sequence[i].start_message == number)
            return static_cast<int>(i);
    return -1;
}

int subtest_ended_by(int number)
{
    for (size_t i = 0; i < std::size(sequence); i++)
        if (number != 0 && sequence[i].end_message == number)
            return static_cast<int>(i);
    return -1;
}

int subtest_ending_with(int number)
{
    return number == MSG_MISCOMPARE || number == MSG_WRRDVR_NO_MEMORY ? 0 : -1;
}

std::span<const catalogue_entry> catalogue() { return entries; }

const char *catalogue_format(int number)
{
    for (const catalogue_entry &entry : entries)
        if (entry.number == number)
            return entry.format;
    return nullptr;
}

namespace {

// The usage's option list, with the test's own options text.
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
        "\n      --timeout TIME"
        "\n                 a run still going after TIME has hung (exit status 4; default 1h,"
        "\n                 at least 3 s);"
        "\n                 so has a worker still going 10 times as long as the slowest other"
        "\n                 one took, at least 60 s, once all the others have finished"
        "\n      --retest N after a run that found a fault, run the failing subtest N more"
        "\n                 times on each failing processor alone and on each processor"
        "\n                 that shares its L2, alone"
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
        if (option.what == nullptr) {
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

}  // namespace

void format_message_text(char *text, size_t size, int number, const char *options_text, va_list args)
{
    if (size == 0)
        return;
    if (number == 0) {
        const char *format = va_arg(args, const char *);
        if (format == nullptr)
            snprintf(text, size, "(free text without a format)");
        else
            vsnprintf(text, size, format, args);
    } else if (const char *format = catalogue_format(number)) {
        vsnprintf(text, size, format, args);
        if (number == MSG_USAGE) {
            size_t used = strlen(text);
            snprintf(text + used, size - used, "%s", usage_details(options_text).c_str());
        }
    } else {
        // Its arguments are unknown too: none is read.
        snprintf(text, size, "unknown message number %d", number);
    }
    trim_end(text);
}

int exit_status_of(int number, int exit_flag)
{
    if (exit_flag == 0)
        return exit_passed;
    switch (number) {
    case MSG_MISCOMPARE:
    case MSG_WORKERS_FAILED:
        return exit_fault_found;
    default:  // 4001, 8012, 8014 and anything else that stops the run
        return exit_could_not_test;
    }
}

namespace {

// Every way a run ends: its exit status, the word of the verdict line, the
// verdict record's name and the sentence.
struct verdict_kind {
    int status;
    const char *word;
    const char *name;
    const char *reason;
};
constexpr verdict_kind verdict_kinds[] = {
    {exit_passed, "PASS", "pass", "every processor passed"},
    {exit_fault_found, "FAIL", "fault", "a fault was found"},
    {exit_usage, "USAGE ERROR", "usage", "the command line or the sub-options were rejected"},
    {exit_could_not_test, "COULD NOT TEST", "could-not-test", "the run could not test this machine"},
    {exit_hung, "HUNG", "hung", "a worker stopped making progress"},
};
constexpr verdict_kind interrupted = {exit_signal_base, "INTERRUPTED", "interrupted", "interrupted by a signal"};
constexpr verdict_kind ended = {-1, "ENDED", "ended", "the run ended"};

const verdict_kind &kind_of(int status)
{
    for (const verdict_kind &kind : verdict_kinds)
        if (kind.status == status)
            return kind;
    return status > exit_signal_base ? interrupted : ended;
}

constexpr auto every_verdict_name = [] {
    std::array<const char *, std::size(verdict_kinds) + 1> names{};
    for (size_t i = 0; i < std::size(verdict_kinds); i++)
        names[i] = verdict_kinds[i].name;
    names.back() = interrupted.name;
    return names;
}();

}  // namespace

std::span<const char *const> verdict_names() { return every_verdict_name; }
const char *verdict_word(int status) { return kind_of(status).word; }
const char *verdict_name(int status) { return kind_of(status).name; }
const char *verdict_reason(int status) { return kind_of(status).reason; }

}  // namespace dxt
