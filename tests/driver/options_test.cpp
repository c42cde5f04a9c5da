// The sub-option parser: every keyword of the table with good, bad and
// missing values, the rejection count, and the rule that nothing is stored
// once an item has been rejected.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "driver_fixture.h"

namespace {

using options = driver_fixture;

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

std::string times(int n, const std::string &entry)
{
    std::string log;
    for (int i = 0; i < n; i++)
        log += entry;
    return log;
}

// n rejections of the keyword: message 8000 with it.
std::string rejected(const std::string &keyword, int n = 1) { return times(n, "6 #8000 " + keyword + "|"); }

// The option variables that differ from their defaults.
std::string changed()
{
    std::string text;
    auto note = [&text](const char *name, long long value, long long initial) {
        if (value != initial)
            text += std::string(name) + "=" + std::to_string(value) + " ";
    };
    note("count", count, 8);
    note("tag", tag_count, 1);
    note("march_window", march_window, 0);
    note("march_al", march_al, 512);
    note("march_pats", march_pats, 15);
    note("l1cache_write_policy", l1cache_write_policy, -1);
    note("test_mask", test_mask, 1048575);
    return text;
}

TEST_F(options, every_keyword_of_the_table)
{
    const struct {
        std::string text;
        int result;
        std::string log, changed;
    } rows[] = {
        {"", 1, "", ""},
        {"dev=tarnel", 1, "", ""},
        {"dev=other,dev,dev=", 0, rejected("dev", 3), ""},
        {"count=1024", 1, "", "count=1024 "},
        {"count=1", 1, "", "count=1 "},
        {"count=5,count=0", 1, "7 #23 8|", ""},
        {"count=5,count=1025", 1, "7 #23 8|", ""},
        {"count=-5,count=5x,count=,count,count=+5,count= 5", 0, rejected("count", 6), ""},
        {"tag=7", 1, "", "tag=7 "},
        {"tag=3,tag=0", 1, "7 #23 1|", ""},
        {"tag=x,tag", 0, rejected("tag", 2), ""},
        {"march_window", 0, "7 Cont with default march window\n|", ""},
        {"march_window=12", 1, "", "march_window=12 "},
        {"march_window=1a", 0, rejected("march_window"), ""},
        {"march_al=,march_al", 1, times(2, "7 Cont with default march_algorithms\n|"),
         ""},
        {"march_al=77,march_al=0x4", 0, rejected("march_al"), "march_al=77 "},
        {"march_pats=,march_pats", 1,
         times(2, "7 Cont with default march data patterns\n|"), ""},
        {"march_pats=77,march_pats=0x4", 0, rejected("march_pats"), "march_pats=77 "},
        {"l1cache_write_policy=,l1cache_write_policy", 1,
         times(2, "7 Cont with default l1cache_write_policy\n|"), ""},
        {"l1cache_write_policy=77,l1cache_write_policy=0x4", 0, rejected("l1cache_write_policy"),
         "l1cache_write_policy=77 "},
        {"test_mask=,test_mask", 1,
         times(2, "7 Cont with default value for test_mask\n|"), ""},
        {"test_mask=1024,test_mask=0x400", 0, rejected("test_mask"), "test_mask=1024 "},
        {"cpc=Enabled", 1, "7 #24|", ""},
        {"cpc=Disabled", 1, "", ""},
        {"cpc=enabled,cpc", 0, rejected("cpc", 2), ""},
        // Inactive keywords of the table and unknown ones: rejected silently.
        {"em,em=1,threshold=5,march_addr_stride=64,foo=1,foo", 0, "", ""},
        // After a rejection later items are still checked but not stored.
        {"bogus,count=4,test_mask=8,march_al=3", 0, "", ""},
        {"count=4,count=x,tag=3,count=0,cpc=Enabled", 0, rejected("count") + "7 #23 8|7 #24|", "count=4 "},
    };
    for (const auto &row : rows) {
        SetUp();
        EXPECT_EQ(parse(row.text), row.result) << row.text;
        EXPECT_EQ(message_log(), row.log) << row.text;
        EXPECT_EQ(changed(), row.changed) << row.text;
        EXPECT_EQ(fake::trace_log(), (std::vector<std::string>{"before process_args", "after process_args"}));
    }
}

}  // namespace
