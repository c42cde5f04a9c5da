// The sysfs source on cache directories laid out by the test.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "cacheinfo_sources.h"

namespace {

namespace fs = std::filesystem;

class sysfs_tree : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "sysinfo_tree.XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
    }
    void TearDown() override { fs::remove_all(root); }

    // One cache entry as the kernel writes it, line ends included.
    fs::path entry(int cpu, int index, int level, const std::string &type, const std::string &size,
                   int line_size, int ways)
    {
        fs::path dir = root / ("cpu" + std::to_string(cpu)) / "cache" / ("index" + std::to_string(index));
        fs::create_directories(dir);
        write(dir / "level", std::to_string(level));
        write(dir / "type", type);
        write(dir / "size", size);
        write(dir / "coherency_line_size", std::to_string(line_size));
        write(dir / "ways_of_associativity", std::to_string(ways));
        return dir;
    }

    static void write(const fs::path &file, const std::string &text) { std::ofstream(file) << text << "\n"; }

    bool read(int cpu, cache_pair *caches)
    {
        sysfs_answer answer;
        bool found = sysfs_caches(root.c_str(), cpu, &answer);
        *caches = answer.caches;
        shared = answer.l2_shared;
        return found;
    }

    fs::path root;
    std::string shared;  // l2_shared of the last read
};

void expect_desc(const cache_desc &desc, uint32_t size, uint32_t line_size, uint32_t ways)
{
    EXPECT_EQ(desc.source, CACHE_SOURCE_SYSFS);
    EXPECT_EQ(desc.size, size);
    EXPECT_EQ(desc.line_size, line_size);
    EXPECT_EQ(desc.ways, ways);
}

TEST_F(sysfs_tree, usual_layout_gives_level_2_and_level_1_data)
{
    entry(0, 0, 1, "Data", "32K", 64, 8);
    entry(0, 1, 1, "Instruction", "64K", 64, 4);
    entry(0, 2, 2, "Unified", "1024K", 64, 8);
    entry(0, 3, 3, "Unified", "32768K", 64, 16);
    cache_pair caches;
    ASSERT_TRUE(read(0, &caches));
    expect_desc(caches.l2, 1048576, 64, 8);
    expect_desc(caches.l1_data, 32768, 64, 8);
}

TEST_F(sysfs_tree, choice_follows_level_and_type_not_index)
{
    entry(0, 0, 3, "Unified", "16M", 64, 16);
    entry(0, 1, 2, "Unified", "2M", 128, 16);
    entry(0, 2, 1, "Instruction", "64K", 64, 4);
    entry(0, 3, 1, "Data", "48K", 64, 12);
    cache_pair caches;
    ASSERT_TRUE(read(0, &caches));
    expect_desc(caches.l2, 2097152, 128, 16);
    expect_desc(caches.l1_data, 49152, 64, 12);
}

TEST_F(sysfs_tree, split_level_2_takes_the_data_cache)
{
    entry(0, 0, 1, "Data", "16K", 32, 4);
    entry(0, 1, 2, "Instruction", "1M", 64, 4);
    entry(0, 2, 2, "Data", "256K", 64, 8);
    cache_pair caches;
    ASSERT_TRUE(read(0, &caches));
    expect_desc(caches.l2, 262144, 64, 8);
}

TEST_F(sysfs_tree, each_processor_reads_its_own_directory)
{
    entry(0, 2, 2, "Unified", "1024K", 64, 8);
    entry(1, 2, 2, "Unified", "2048K", 64, 16);
    cache_pair caches;
    ASSERT_TRUE(read(1, &caches));
    expect_desc(caches.l2, 2097152, 64, 16);
    ASSERT_TRUE(read(0, &caches));
    expect_desc(caches.l2, 1048576, 64, 8);
}

TEST_F(sysfs_tree, missing_directory_is_no_answer)
{
    entry(0, 2, 2, "Unified", "1024K", 64, 8);
    cache_pair caches;
    caches.l2.size = 99;
    EXPECT_FALSE(read(1, &caches));
    EXPECT_EQ(caches.l2.size, 0u);
    EXPECT_EQ(caches.l1_data.size, 0u);
}

TEST_F(sysfs_tree, directory_without_level_2_is_no_answer)
{
    entry(0, 0, 1, "Data", "32K", 64, 8);
    entry(0, 1, 1, "Instruction", "32K", 64, 8);
    entry(0, 3, 3, "Unified", "8M", 64, 16);
    cache_pair caches;
    EXPECT_FALSE(read(0, &caches));
    EXPECT_EQ(caches.l2.size, 0u);
    expect_desc(caches.l1_data, 32768, 64, 8);
}

TEST_F(sysfs_tree, unreadable_size_skips_the_entry)
{
    entry(0, 2, 2, "Unified", "lots", 64, 8);
    cache_pair caches;
    EXPECT_FALSE(read(0, &caches));
}

TEST_F(sysfs_tree, impossible_entries_are_passed_over)
{
    // The lowest believable index of each kind wins; an impossible one
    // before it does not stop the search.
    entry(0, 0, 1, "Data", "32K", 48, 8);          // line size not a power of two
    entry(0, 1, 1, "Data", "2M", 64, 8);           // no first-level cache is this large
    entry(0, 2, 1, "Data", "48K", 64, 12);
    entry(0, 3, 2, "Unified", "512M", 64, 16);     // an L3 misfiled as level 2
    entry(0, 4, 2, "Unified", "1024K", 64, 0);     // no ways
    entry(0, 5, 2, "Unified", "1024K", 1024, 8);   // line larger than 512
    entry(0, 6, 2, "Unified", "2M", 64, 16);
    cache_pair caches;
    ASSERT_TRUE(read(0, &caches));
    expect_desc(caches.l2, 2097152, 64, 16);
    expect_desc(caches.l1_data, 49152, 64, 12);
}

TEST_F(sysfs_tree, only_impossible_entries_is_no_answer)
{
    entry(0, 0, 1, "Data", "0K", 64, 8);
    entry(0, 2, 2, "Unified", "65540K", 64, 8);  // just above 64 MiB
    entry(0, 3, 2, "Unified", "1024K", 8, 8);    // line below 16
    cache_pair caches;
    EXPECT_FALSE(read(0, &caches));
    EXPECT_EQ(caches.l2.size, 0u);
    EXPECT_EQ(caches.l1_data.size, 0u);
}

TEST_F(sysfs_tree, sharing_comes_from_the_chosen_l2_entry)
{
    write(entry(0, 2, 2, "Unified", "4096K", 64, 0) / "shared_cpu_list", "0-7");  // impossible: passed over
    write(entry(0, 3, 2, "Unified", "2048K", 64, 16) / "shared_cpu_list", "4,0-1,3,2");
    cache_pair caches;
    ASSERT_TRUE(read(0, &caches));
    EXPECT_EQ(caches.l2.size, 2097152u);
    EXPECT_EQ(shared, "0-4");
}

TEST_F(sysfs_tree, missing_or_malformed_sharing_says_nothing)
{
    fs::path l2 = entry(0, 2, 2, "Unified", "1024K", 64, 8);
    cache_pair caches;
    ASSERT_TRUE(read(0, &caches));
    EXPECT_EQ(shared, "");
    write(l2 / "shared_cpu_list", "0-");
    ASSERT_TRUE(read(0, &caches));
    EXPECT_EQ(shared, "");
}

TEST(processor_list, kernel_texts_to_sets_and_back)
{
    std::vector<int> cpus;
    ASSERT_TRUE(parse_cpu_list("0-3,8,10-11", &cpus));
    EXPECT_EQ(cpus, (std::vector<int>{0, 1, 2, 3, 8, 10, 11}));
    EXPECT_EQ(format_cpu_list(cpus), "0-3,8,10-11");
    ASSERT_TRUE(parse_cpu_list("5", &cpus));
    EXPECT_EQ(format_cpu_list(cpus), "5");
    EXPECT_EQ(format_cpu_list({1, 0}), "0-1");  // two in a row are a range, as the kernel writes them
    EXPECT_EQ(format_cpu_list({4, 0, 4}), "0,4");
    EXPECT_EQ(format_cpu_list({}), "");
    for (const char *text : {"", "-1", "0-", "1-0", "a", "0,,1", "0,", "0 1", "2000000"})
        EXPECT_FALSE(parse_cpu_list(text, &cpus)) << '"' << text << '"';
}

TEST(cache_size_text, units_and_malformed_texts)
{
    EXPECT_EQ(parse_cache_size("1024K"), 1048576u);
    EXPECT_EQ(parse_cache_size("1024K\n"), 1048576u);
    EXPECT_EQ(parse_cache_size("2M"), 2097152u);
    EXPECT_EQ(parse_cache_size("48K"), 49152u);
    EXPECT_EQ(parse_cache_size("512"), 512u);
    EXPECT_EQ(parse_cache_size("1G"), 1073741824u);
    EXPECT_EQ(parse_cache_size(""), 0u);
    EXPECT_EQ(parse_cache_size("K"), 0u);
    EXPECT_EQ(parse_cache_size("-1K"), 0u);
    EXPECT_EQ(parse_cache_size("12Q"), 0u);
    EXPECT_EQ(parse_cache_size("32K64"), 0u);
    EXPECT_EQ(parse_cache_size("8192M"), 0u);  // 8 GiB does not fit the record
}

}  // namespace
