// The message catalogue: a text for every number the program emits, each
// consuming exactly that number's arguments; free texts, unknown numbers,
// the usage text; the exit status of each ending message.
#include <gtest/gtest.h>

#include <cstdarg>
#include <set>
#include <string>

#include "dxttest_internal.h"
#include "harness/testinfo.h"

namespace {

// What the program passes after each number: d int, u unsigned, s text.
struct expected_arguments {
    int number;
    const char *types;
};
const expected_arguments program_messages[] = {
    {MSG_RUN_START, ""},
    {MSG_PASS_COUNT, "u"},
    {MSG_WRRDVR_START, ""},
    {MSG_RUN_END, ""},
    {MSG_SWAP_START, ""},
    {MSG_SWAP_END, ""},
    {MSG_ROW_MARCH_START, ""},
    {MSG_ROW_MARCH_END, ""},
    {MSG_COL_MARCH_START, ""},
    {MSG_COL_MARCH_END, ""},
    {MSG_MARCH_LINE_START, ""},
    {MSG_MARCH_LINE_END, ""},
    {MSG_MARCH_VAR_START, ""},
    {MSG_MARCH_VAR_END, ""},
    {MSG_INTERCONNECT_START, ""},
    {MSG_INTERCONNECT_END, ""},
    {MSG_DEFAULT_TAKEN, "d"},
    {MSG_CPC_ENABLED, ""},
    {MSG_GEOMETRY_DEFAULTS, "sdds"},
    {MSG_USAGE, "s"},
    {MSG_WRRDVR_NO_MEMORY, ""},
    {MSG_NO_MEMORY, ""},
    {MSG_BIND_FAILED, "ds"},
    {MSG_THREAD_CREATE_FAILED, "d"},
    {MSG_MISCOMPARE, ""},
    {MSG_BAD_SUBOPTION, "s"},
    {MSG_WORKERS_FAILED, ""},
    {MSG_SYSCALL_FAILED, "ss"},
    {MSG_UNKNOWN_VENDOR, ""},
};

// The argument types a printf format consumes, in order ('?' for any
// conversion the program never passes, '*' widths included).
std::string conversions(const char *format)
{
    std::string types;
    for (const char *p = format; *p != '\0'; p++) {
        if (*p != '%')
            continue;
        p++;
        if (*p == '%')
            continue;
        while (*p != '\0' && std::string_view("-+ #0123456789.*hlLqjzt").find(*p) != std::string_view::npos) {
            if (*p == '*')
                types += '*';
            p++;
        }
        switch (*p) {
        case 'd':
        case 'i':
            types += 'd';
            break;
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            types += 'u';
            break;
        case 's':
            types += 's';
            break;
        default:
            types += '?';
            break;
        }
        if (*p == '\0')
            break;
    }
    return types;
}

std::string text_of(int number, const char *options, ...)
{
    char text[dxt::text_capacity];
    va_list args;
    va_start(args, options);
    dxt::format_message_text(text, sizeof text, number, options, args);
    va_end(args);
    return text;
}

TEST(Catalogue, EveryProgramMessageHasATextTakingItsArguments)
{
    for (const expected_arguments &m : program_messages) {
        const char *format = dxt::catalogue_format(m.number);
        ASSERT_NE(format, nullptr) << "no text for " << m.number;
        EXPECT_EQ(conversions(format), m.types) << "message " << m.number << ": " << format;
    }
}

TEST(Catalogue, HoldsNothingButTheProgramsNumbers)
{
    std::set<int> expected;
    for (const expected_arguments &m : program_messages)
        expected.insert(m.number);
    std::set<int> present;
    for (const dxt::catalogue_entry &entry : dxt::catalogue()) {
        EXPECT_TRUE(present.insert(entry.number).second) << "number " << entry.number << " twice";
        EXPECT_TRUE(expected.contains(entry.number)) << "number " << entry.number << " not emitted";
    }
    EXPECT_EQ(present, expected);
    EXPECT_EQ(dxt::catalogue_format(0), nullptr);
}

TEST(Catalogue, ArgumentsLandInTheText)
{
    EXPECT_NE(text_of(MSG_PASS_COUNT, "", 8u).find("8"), std::string::npos);
    std::string geometry = text_of(MSG_GEOMETRY_DEFAULTS, "", "dxt_tlib_get_cpu_cacheinfo()", 3, -1, "no sysfs");
    EXPECT_NE(geometry.find("dxt_tlib_get_cpu_cacheinfo()"), std::string::npos);
    EXPECT_NE(geometry.find("cpu 3"), std::string::npos);
    EXPECT_NE(geometry.find("-1"), std::string::npos);
    EXPECT_TRUE(geometry.ends_with("no sysfs"));
    // An empty detail leaves no dangling blank.
    EXPECT_FALSE(text_of(MSG_GEOMETRY_DEFAULTS, "", "call", 0, 0, "").ends_with(" "));
    std::string bind = text_of(MSG_BIND_FAILED, "", 7, "Invalid argument");
    EXPECT_NE(bind.find("cpu 7"), std::string::npos);
    EXPECT_NE(bind.find("Invalid argument"), std::string::npos);
    EXPECT_NE(text_of(MSG_BAD_SUBOPTION, "", "count").find("\"count\""), std::string::npos);
    EXPECT_NE(text_of(MSG_SYSCALL_FAILED, "", "sysconf", "Bad").find("sysconf"), std::string::npos);
}

TEST(Catalogue, FreeTextIsFormattedAndLosesOneNewline)
{
    EXPECT_EQ(text_of(0, "", "Cache Access stress for cache_size %x line_size %x num_loops %d\n", 0x100000u, 0x40u, 8),
              "Cache Access stress for cache_size 100000 line_size 40 num_loops 8");
    EXPECT_EQ(text_of(0, "", "Cont with default march window\n"), "Cont with default march window");
    EXPECT_EQ(text_of(0, "", "two\n\n"), "two\n");
    EXPECT_EQ(text_of(0, "", "failed on cpu %d, retval %d ; %s", 2, 5, ""), "failed on cpu 2, retval 5 ;");
}

TEST(Catalogue, UnknownNumberIsNamedAndReadsNoArgument)
{
    // No argument follows: reading one would be undefined, so the text must
    // come from the number alone.
    EXPECT_EQ(text_of(4242, ""), "unknown message number 4242");
    EXPECT_EQ(text_of(-3, ""), "unknown message number -3");
}

TEST(Catalogue, UsageNamesTheTestItsOptionsAndTheHarnessOptions)
{
    std::string usage = text_of(MSG_USAGE, "dev=tarnel,count=[1..1024],cpc=[Enabled,Disabled]", "tarneltest");
    EXPECT_TRUE(usage.starts_with("usage: tarneltest [-o SUBOPTIONS] [-v | -q] [-d] [--json] [-h] [--version]"));
    EXPECT_NE(usage.find("dev=tarnel,count=[1..1024],cpc=[Enabled,Disabled]"), std::string::npos);
    for (const char *option : {"-o SUBOPTIONS", "-v, --verbose", "-q, --quiet", "-d, --debug", "--json", "-h, --help",
                               "--version", "exit status"})
        EXPECT_NE(usage.find(option), std::string::npos) << option;
    // A person reads the usage first: it lists the sub-options and every bit
    // of test_mask with its subtest.
    for (const char *item : {"count=N", "test_mask=N", "dev=tarnel", "cpc=Enabled|Disabled", "march_window=N"})
        EXPECT_NE(usage.find(item), std::string::npos) << item;
    for (const char *bit : {"8  Write/Read/Verify", "16  Cache Hit Stress", "32  Cache Miss Stress", "64  Random Swap",
                            "512  CPU-cache interconnect", "1024  the four marches", "4096  Random Offset"})
        EXPECT_NE(usage.find(bit), std::string::npos) << bit;
    EXPECT_LT(usage.size(), static_cast<size_t>(dxt::text_capacity) - 1) << "the usage was cut";
}

TEST(Subtests, StartAndEndMessagesNameTheirSubtest)
{
    auto name_started_by = [](int number) {
        int i = dxt::subtest_started_by(number);
        return i < 0 ? std::string("none") : std::string(dxt::subtests()[static_cast<size_t>(i)].name);
    };
    EXPECT_EQ(name_started_by(MSG_WRRDVR_START), "Write/Read/Verify");
    EXPECT_EQ(name_started_by(MSG_SWAP_START), "Random Swap");
    EXPECT_EQ(name_started_by(MSG_ROW_MARCH_START), "March with row striding");
    EXPECT_EQ(name_started_by(MSG_COL_MARCH_START), "March with column striding");
    EXPECT_EQ(name_started_by(MSG_MARCH_LINE_START), "30N March with line-length striding");
    EXPECT_EQ(name_started_by(MSG_MARCH_VAR_START), "30N March with variable stride length");
    EXPECT_EQ(name_started_by(MSG_INTERCONNECT_START), "CPU-cache interconnect");
    for (int number : {MSG_FREE_TEXT, MSG_RUN_START, MSG_RUN_END, MSG_SWAP_END, MSG_MISCOMPARE})
        EXPECT_EQ(name_started_by(number), "none") << number;
    EXPECT_EQ(dxt::subtest_ended_by(MSG_SWAP_END), dxt::subtest_started_by(MSG_SWAP_START));
    EXPECT_EQ(dxt::subtest_ended_by(MSG_INTERCONNECT_END), dxt::subtest_started_by(MSG_INTERCONNECT_START));
    EXPECT_EQ(dxt::subtest_ended_by(MSG_WRRDVR_START), -1);
    EXPECT_EQ(dxt::subtest_ending_with(MSG_MISCOMPARE), dxt::subtest_started_by(MSG_WRRDVR_START));
    EXPECT_EQ(dxt::subtest_ending_with(MSG_WRRDVR_NO_MEMORY), dxt::subtest_started_by(MSG_WRRDVR_START));
    EXPECT_EQ(dxt::subtest_ending_with(MSG_UNKNOWN_VENDOR), -1);
}

TEST(Subtests, TestMaskAsTheParserTakesIt)
{
    EXPECT_EQ(dxt::selected_test_mask(""), dxt::all_subtests);
    EXPECT_EQ(dxt::selected_test_mask("count=1"), dxt::all_subtests);
    EXPECT_EQ(dxt::selected_test_mask("count=1,test_mask=16"), 16);
    EXPECT_EQ(dxt::selected_test_mask("test_mask=16,count=2,test_mask=8"), 8);  // the last one counts
    EXPECT_EQ(dxt::selected_test_mask("test_mask=16,test_mask="), 16);         // an empty value keeps it
    EXPECT_EQ(dxt::selected_test_mask("test_mask=0"), 0);
    EXPECT_EQ(dxt::selected_test_mask("xtest_mask=8"), dxt::all_subtests);
}

TEST(ExitStatus, EachEndingMessageMapsToItsStatus)
{
    EXPECT_EQ(dxt::exit_status_of(MSG_WORKERS_FAILED, DXT_FATAL), 1);
    EXPECT_EQ(dxt::exit_status_of(MSG_MISCOMPARE, DXT_STEP_FAIL), 1);
    EXPECT_EQ(dxt::exit_status_of(MSG_SYSCALL_FAILED, DXT_FATAL), 3);
    EXPECT_EQ(dxt::exit_status_of(MSG_UNKNOWN_VENDOR, DXT_FATAL), 3);
    EXPECT_EQ(dxt::exit_status_of(MSG_WRRDVR_NO_MEMORY, DXT_STEP_FAIL), 3);
    EXPECT_EQ(dxt::exit_status_of(MSG_FREE_TEXT, DXT_STEP_FAIL), 3);
    EXPECT_EQ(dxt::exit_status_of(12345, 7), 3);
    EXPECT_EQ(dxt::exit_status_of(MSG_WORKERS_FAILED, DXT_RETURN), 0);
}

TEST(ExitStatus, VerdictWords)
{
    EXPECT_STREQ(dxt::verdict_word(0), "PASS");
    EXPECT_STREQ(dxt::verdict_word(1), "FAIL");
    EXPECT_STREQ(dxt::verdict_word(2), "USAGE ERROR");
    EXPECT_STREQ(dxt::verdict_word(3), "COULD NOT TEST");
    EXPECT_STREQ(dxt::verdict_word(143), "INTERRUPTED");
    EXPECT_STREQ(dxt::verdict_reason(1), "a fault was found");
}

}  // namespace
