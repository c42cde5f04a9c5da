// The message catalogue: a text for every number the program emits, each
// consuming exactly that number's arguments; free texts; the
// exit status of each ending message.
#include <gtest/gtest.h>

#include <cstdarg>
#include <map>
#include <string>

#include "dxttest_internal.h"
#include "harness/testinfo.h"

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

std::string text_of(int number, const char *options, ...)
{
    char text[dxt::text_capacity];
    va_list args;
    va_start(args, options);
    dxt::format_message_text(text, sizeof text, number, options, args);
    va_end(args);
    return text;
}

TEST(Catalogue, ExactlyTheProgramsNumbersEachTakingItsArguments)
{
    // What the program passes after each number.
    std::map<int, std::string> program = {
        {MSG_RUN_START, ""}, {MSG_PASS_COUNT, "u"}, {MSG_WRRDVR_START, ""}, {MSG_RUN_END, ""},
        {MSG_SWAP_START, ""}, {MSG_SWAP_END, ""}, {MSG_ROW_MARCH_START, ""}, {MSG_ROW_MARCH_END, ""},
        {MSG_COL_MARCH_START, ""}, {MSG_COL_MARCH_END, ""}, {MSG_MARCH_LINE_START, ""}, {MSG_MARCH_LINE_END, ""},
        {MSG_MARCH_VAR_START, ""}, {MSG_MARCH_VAR_END, ""}, {MSG_INTERCONNECT_START, ""}, {MSG_INTERCONNECT_END, ""},
        {MSG_DEFAULT_TAKEN, "d"}, {MSG_CPC_ENABLED, ""}, {MSG_GEOMETRY_DEFAULTS, "sdds"}, {MSG_USAGE, "s"},
        {MSG_WRRDVR_NO_MEMORY, ""}, {MSG_NO_MEMORY, ""}, {MSG_BIND_FAILED, "ds"}, {MSG_THREAD_CREATE_FAILED, "d"},
        {MSG_MISCOMPARE, ""}, {MSG_BAD_SUBOPTION, "s"}, {MSG_WORKERS_FAILED, ""}, {MSG_SYSCALL_FAILED, "ss"},
        {MSG_UNKNOWN_VENDOR, ""},
    };
    std::map<int, std::string> catalogue;
    for (const dxt::catalogue_entry &entry : dxt::catalogue())
        EXPECT_TRUE(catalogue.emplace(entry.number, conversions(entry.format)).second) << entry.number << " twice";
    EXPECT_EQ(catalogue, program);
    EXPECT_EQ(dxt::catalogue_format(0), nullptr);
    EXPECT_EQ(dxt::catalogue_format(4242), nullptr);
}

TEST(Catalogue, FreeTextIsFormattedAndLosesOneNewlineAndTrailingBlanks)
{
    EXPECT_EQ(text_of(0, "", "Cache Access stress for cache_size %x line_size %x num_loops %d\n", 0x100000u, 0x40u, 8),
              "Cache Access stress for cache_size 100000 line_size 40 num_loops 8");
    EXPECT_EQ(text_of(0, "", "two\n\n"), "two\n");
    EXPECT_EQ(text_of(0, "", "failed on cpu %d, retval %d ; %s", 2, 5, ""), "failed on cpu 2, retval 5 ;");
}

TEST(ExitStatus, EachEndingMessageMapsToItsStatusAndVerdict)
{
    struct row {
        int number, exit_flag, status;
        const char *word;
    };
    const char *const cannot = "COULD NOT TEST";
    for (const row &r : {row{MSG_WORKERS_FAILED, DXT_FATAL, 1, "FAIL"}, row{MSG_MISCOMPARE, DXT_STEP_FAIL, 1, "FAIL"},
                         row{MSG_SYSCALL_FAILED, DXT_FATAL, 3, cannot}, row{MSG_UNKNOWN_VENDOR, DXT_FATAL, 3, cannot},
                         row{MSG_WRRDVR_NO_MEMORY, DXT_STEP_FAIL, 3, cannot},
                         row{MSG_FREE_TEXT, DXT_STEP_FAIL, 3, cannot},
                         row{12345, 7, 3, cannot}, row{MSG_WORKERS_FAILED, DXT_RETURN, 0, "PASS"}}) {
        EXPECT_EQ(dxt::exit_status_of(r.number, r.exit_flag), r.status) << r.number;
        EXPECT_STREQ(dxt::verdict_word(r.status), r.word) << r.number;
    }
    EXPECT_STREQ(dxt::verdict_word(2), "USAGE ERROR");
    EXPECT_STREQ(dxt::verdict_word(143), "INTERRUPTED");
}

}  // namespace
