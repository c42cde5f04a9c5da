// Processor lists and masks in the kernel's forms, read and written.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cpuset.h"

namespace {

using ids = std::vector<int>;

TEST(cpu_list, kernel_forms_and_malformed_texts)
{
    const struct {
        const char *text;
        ids expected;
    } lists[] = {{"0", {0}}, {"0-3,5\n", {0, 1, 2, 3, 5}}, {"4,0,2", {0, 2, 4}}, {"0-1,4-5", {0, 1, 4, 5}},
                 {"7-7,7", {7}}};
    for (const auto &list : lists) {
        ids got = {99};
        EXPECT_TRUE(parse_cpu_list(list.text, &got)) << '"' << list.text << '"';
        EXPECT_EQ(got, list.expected) << '"' << list.text << '"';
        EXPECT_EQ(format_cpu_list(got), format_cpu_list(list.expected));
    }
    for (const char *text : {"", "\n", "abc", "0-", "-1", "3-1", "0,,1", "0 1", "1,", "0-3\nx", "0x1", "0-99999999"}) {
        ids got = {99};
        EXPECT_FALSE(parse_cpu_list(text, &got)) << '"' << text << '"';
        EXPECT_TRUE(got.empty()) << '"' << text << '"';
    }
}

TEST(cpu_map, hexadecimal_groups_most_significant_first)
{
    ids got;
    EXPECT_TRUE(parse_cpu_map("80000000,00000003\n", &got));
    EXPECT_EQ(got, (ids{0, 1, 63}));
    for (const char *text : {"0x3", "00000000", "", "3g"})
        EXPECT_FALSE(parse_cpu_map(text, &got)) << text;
}

TEST(cpu_list_writer, ranges_and_a_cut_at_capacity)
{
    EXPECT_EQ(format_cpu_list({5, 0, 1, 2, 4, 10, 11}), "0-2,4-5,10-11");
    EXPECT_EQ(format_cpu_list({}), "");
    char text[6];
    size_t length = 0;
    cpu_list_writer writer{text, sizeof text, length};
    for (int id : {0, 1, 2, 100000})
        writer.add(id);
    writer.finish();
    EXPECT_EQ(std::string(text, length), "0-2,10");  // never past its storage
}

}  // namespace
