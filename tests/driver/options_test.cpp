// The sub-option parser: every keyword of the table with a good, a bad and a
// missing value, the rejection counter and the rule that nothing is stored
// once an item has been rejected.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "driver_fixture.h"

namespace {

class options : public driver_fixture {
protected:
    // process_args on a writable copy, as the harness hands it over.
    static int parse(const std::string &text)
    {
        std::vector<char> copy(text.begin(), text.end());
        copy.push_back('\0');
        return process_args(copy.data());
    }

    // The 8000 messages, by keyword.
    static std::vector<std::string> rejected_keywords()
    {
        std::vector<std::string> keywords;
        for (const fake::message &m : fake::messages_numbered(MSG_BAD_SUBOPTION)) {
            EXPECT_EQ(m.level, LVL_USAGE);
            EXPECT_EQ(m.exit_flag, DXT_RETURN);
            EXPECT_FALSE(m.has_tag);
            keywords.push_back(m.args.at(0));
        }
        return keywords;
    }
};

using strings = std::vector<std::string>;

TEST_F(options, empty_text_is_accepted_and_changes_nothing)
{
    EXPECT_EQ(parse(""), 1);
    EXPECT_TRUE(fake::messages().empty());
    EXPECT_EQ(count, 8u);
    EXPECT_EQ(test_mask, 1048575);
}

TEST_F(options, parser_is_traced_on_every_way_out)
{
    parse("");
    parse("count=x");
    EXPECT_EQ(fake::trace_log(), (strings{"before process_args", "after process_args", "before process_args",
                                          "after process_args"}));
}

TEST_F(options, dev_must_name_this_test)
{
    EXPECT_EQ(parse("dev=tarnel"), 1);
    EXPECT_TRUE(fake::messages().empty());
    EXPECT_EQ(parse("dev=other"), 0);
    EXPECT_EQ(parse("dev"), 0);
    EXPECT_EQ(parse("dev="), 0);
    EXPECT_EQ(rejected_keywords(), (strings{"dev", "dev", "dev"}));
}

TEST_F(options, count_in_range_is_stored)
{
    EXPECT_EQ(parse("count=1024"), 1);
    EXPECT_EQ(count, 1024u);
    EXPECT_EQ(parse("count=1"), 1);
    EXPECT_EQ(count, 1u);
    EXPECT_TRUE(fake::messages().empty());
}

TEST_F(options, count_out_of_range_takes_the_default_with_message_23)
{
    for (const char *item : {"count=0", "count=1025", "count=99999999999999999999"}) {
        count = 5;
        EXPECT_EQ(parse(item), 1) << item;
        EXPECT_EQ(count, 8u) << item;
    }
    auto defaults = fake::messages_numbered(MSG_DEFAULT_TAKEN);
    ASSERT_EQ(defaults.size(), 3u);
    for (const fake::message &m : defaults) {
        EXPECT_EQ(m.level, LVL_INFO);
        EXPECT_EQ(m.args, strings{"8"});
    }
    EXPECT_TRUE(rejected_keywords().empty());
}

TEST_F(options, malformed_count_is_rejected)
{
    for (const char *item : {"count=-5", "count=5x", "count=", "count", "count=+5", "count= 5"})
        EXPECT_EQ(parse(item), 0) << item;
    EXPECT_EQ(rejected_keywords(), strings(6, "count"));
    EXPECT_EQ(count, 8u);
}

TEST_F(options, tag_has_its_own_range_default)
{
    EXPECT_EQ(parse("tag=7"), 1);
    EXPECT_EQ(tag_count, 7u);
    EXPECT_EQ(parse("tag=0"), 1);
    EXPECT_EQ(tag_count, 1u);
    EXPECT_EQ(fake::messages_numbered(MSG_DEFAULT_TAKEN).at(0).args, strings{"1"});
    EXPECT_EQ(parse("tag=x"), 0);
    EXPECT_EQ(parse("tag"), 0);
    EXPECT_EQ(rejected_keywords(), (strings{"tag", "tag"}));
}

TEST_F(options, empty_march_window_counts_as_rejected_without_message_8000)
{
    EXPECT_EQ(parse("march_window"), 0);
    auto texts = fake::messages_numbered(MSG_FREE_TEXT);
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0].format, "Cont with default march window\n");
    EXPECT_EQ(texts[0].level, LVL_INFO);
    EXPECT_TRUE(rejected_keywords().empty());
    EXPECT_EQ(parse("march_window=12"), 1);
    EXPECT_EQ(march_window, 12u);
    EXPECT_EQ(parse("march_window=1a"), 0);
    EXPECT_EQ(rejected_keywords(), strings{"march_window"});
}

struct defaulted_option {
    const char *keyword;
    const char *text;
    int32_t *variable;
    int32_t initial;
};

TEST_F(options, empty_value_keeps_the_default_with_its_own_text)
{
    const defaulted_option rows[] = {
        {"march_al", "Cont with default march_algorithms\n", &march_al, 512},
        {"march_pats", "Cont with default march data patterns\n", &march_pats, 15},
        {"l1cache_write_policy", "Cont with default l1cache_write_policy\n", &l1cache_write_policy, -1},
        {"test_mask", "Cont with default value for test_mask\n", &test_mask, 1048575},
    };
    for (const defaulted_option &row : rows) {
        fake::reset();
        EXPECT_EQ(parse(std::string(row.keyword) + "="), 1) << row.keyword;
        EXPECT_EQ(parse(row.keyword), 1) << row.keyword;
        EXPECT_EQ(*row.variable, row.initial) << row.keyword;
        auto texts = fake::messages_numbered(MSG_FREE_TEXT);
        ASSERT_EQ(texts.size(), 2u) << row.keyword;
        EXPECT_EQ(texts[1].format, row.text);
        EXPECT_EQ(fake::messages().size(), 2u);

        EXPECT_EQ(parse(std::string(row.keyword) + "=77"), 1);
        EXPECT_EQ(*row.variable, 77) << row.keyword;
        EXPECT_EQ(parse(std::string(row.keyword) + "=0x4"), 0);
        EXPECT_EQ(*row.variable, 77) << row.keyword;
        EXPECT_EQ(rejected_keywords(), strings{row.keyword});
    }
}

TEST_F(options, test_mask_is_decimal_only)
{
    EXPECT_EQ(parse("test_mask=0x400"), 0);
    EXPECT_EQ(test_mask, 1048575);
    EXPECT_EQ(parse("test_mask=1024"), 1);
    EXPECT_EQ(test_mask, 1024);
}

TEST_F(options, cpc_accepts_exactly_enabled_and_disabled)
{
    EXPECT_EQ(parse("cpc=Enabled"), 1);
    EXPECT_EQ(fake::numbers(), std::vector<int>{MSG_CPC_ENABLED});
    EXPECT_EQ(parse("cpc=Disabled"), 1);
    EXPECT_EQ(fake::messages().size(), 1u);
    EXPECT_EQ(parse("cpc=enabled"), 0);
    EXPECT_EQ(parse("cpc"), 0);
    EXPECT_EQ(rejected_keywords(), (strings{"cpc", "cpc"}));
}

TEST_F(options, inactive_and_unknown_keywords_are_rejected_silently)
{
    for (const char *item : {"em", "em=1", "threshold=5", "march_addr_stride=64", "foo=1", "foo"})
        EXPECT_EQ(parse(item), 0) << item;
    EXPECT_TRUE(fake::messages().empty());
}

TEST_F(options, nothing_is_stored_after_the_first_rejection)
{
    EXPECT_EQ(parse("bogus,count=4,test_mask=8,march_al=3"), 0);
    EXPECT_EQ(count, 8u);
    EXPECT_EQ(test_mask, 1048575);
    EXPECT_EQ(march_al, 512);

    // Later items are still checked and still report.
    fake::reset();
    EXPECT_EQ(parse("count=4,count=x,tag=3,count=0,cpc=Enabled"), 0);
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(tag_count, 1u);
    EXPECT_EQ(fake::numbers(), (std::vector<int>{MSG_BAD_SUBOPTION, MSG_DEFAULT_TAKEN, MSG_CPC_ENABLED}));
}

TEST_F(options, every_rejection_counts_once)
{
    EXPECT_EQ(parse("dev=x,count=y,foo,threshold=1,march_window"), 0);
    EXPECT_EQ(rejected_keywords(), (strings{"dev", "count"}));
}

TEST_F(options, usage_routine_names_the_test)
{
    test_name = "tarneltest";
    EXPECT_EQ(routine_usage(), 0);
    auto usage = fake::messages();
    ASSERT_EQ(usage.size(), 1u);
    EXPECT_EQ(usage[0].number, MSG_USAGE);
    EXPECT_EQ(usage[0].level, LVL_USAGE);
    EXPECT_EQ(usage[0].exit_flag, DXT_RETURN);
    EXPECT_EQ(usage[0].args, strings{"tarneltest"});
}

}  // namespace
