// Geometry you can trust: the plausibility rule, the injectable C library
// answer, and the public calls over a fixture processor tree, recorded
// CPUID dumps and made-up sysconf values, source falling through to source.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "cacheinfo_sources.h"
#include "dxtsysinfo_ext.h"
#include "recorded_cpuid.h"

namespace {

namespace fs = std::filesystem;

// This machine's C library answers; anything else reads 0, as glibc gives
// for a value it does not know.
const std::map<int, long> this_machines_sysconf = {
    {_SC_LEVEL1_DCACHE_SIZE, 49152}, {_SC_LEVEL1_DCACHE_LINESIZE, 64}, {_SC_LEVEL1_DCACHE_ASSOC, 12},
    {_SC_LEVEL2_CACHE_SIZE, 1048576}, {_SC_LEVEL2_CACHE_LINESIZE, 64}, {_SC_LEVEL2_CACHE_ASSOC, 8},
};
std::map<int, long> sysconf_values;

long recorded_sysconf(int name)
{
    auto found = sysconf_values.find(name);
    return found == sysconf_values.end() ? 0 : found->second;
}

// Processors whose CPUID can be asked; any other cannot be run on.
std::map<int, cpuid_dump> dumps;
int cpuid_reads;

bool recorded_cpuid(int cpu, cpuid_dump *dump)
{
    cpuid_reads++;
    auto found = dumps.find(cpu);
    if (found == dumps.end())
        return false;
    *dump = found->second;
    return true;
}

TEST(plausibility, bounds_of_a_believable_cache)
{
    EXPECT_TRUE(cache_plausible(CACHE_L2, {0, 64u << 20, 64, 16}));
    EXPECT_FALSE(cache_plausible(CACHE_L2, {0, (64u << 20) + 4096, 64, 16}));
    EXPECT_FALSE(cache_plausible(CACHE_L2, {0, 532676608, 64, 16}));  // this machine's L3
    EXPECT_TRUE(cache_plausible(CACHE_L1_DATA, {0, 1u << 20, 64, 8}));
    EXPECT_FALSE(cache_plausible(CACHE_L1_DATA, {0, 2u << 20, 64, 8}));
    EXPECT_TRUE(cache_plausible(CACHE_L2, {0, 4096, 16, 256}));    // one line in every way
    EXPECT_FALSE(cache_plausible(CACHE_L2, {0, 4096, 16, 257}));   // more ways than lines
    EXPECT_TRUE(cache_plausible(CACHE_L2, {0, 1u << 20, 512, 8}));
    for (uint32_t line_size : {0u, 8u, 48u, 63u, 1024u})
        EXPECT_FALSE(cache_plausible(CACHE_L2, {0, 1u << 20, line_size, 8})) << line_size;
    EXPECT_FALSE(cache_plausible(CACHE_L2, {0, 0, 64, 8}));
    EXPECT_FALSE(cache_plausible(CACHE_L2, {0, 1u << 20, 64, 0}));
}

TEST(sysconf_source, this_machines_answer_is_taken)
{
    sysconf_values = this_machines_sysconf;
    cache_pair caches;
    ASSERT_TRUE(sysconf_caches(recorded_sysconf, &caches));
    EXPECT_EQ(caches.l2.source, uint32_t(CACHE_SOURCE_SYSCONF));
    EXPECT_EQ(caches.l2.size, 1048576u);
    EXPECT_EQ(caches.l2.ways, 8u);
    EXPECT_EQ(caches.l1_data.size, 49152u);
}

TEST(sysconf_source, impossible_values_are_dropped_one_level_at_a_time)
{
    struct bad_value {
        int name;
        long value;
        int level;  // of the cache the value belongs to
    };
    for (bad_value bad : {bad_value{_SC_LEVEL2_CACHE_SIZE, 532676608, 2},  // the L3
                          bad_value{_SC_LEVEL2_CACHE_ASSOC, 0, 2},         // glibc's "unknown"
                          bad_value{_SC_LEVEL2_CACHE_LINESIZE, -1, 2},
                          bad_value{_SC_LEVEL2_CACHE_LINESIZE, 96, 2},
                          bad_value{_SC_LEVEL1_DCACHE_SIZE, 2097152, 1},
                          bad_value{_SC_LEVEL1_DCACHE_ASSOC, 0, 1}}) {
        SCOPED_TRACE("sysconf(" + std::to_string(bad.name) + ") = " + std::to_string(bad.value));
        sysconf_values = this_machines_sysconf;
        sysconf_values[bad.name] = bad.value;
        cache_pair caches;
        EXPECT_EQ(sysconf_caches(recorded_sysconf, &caches), bad.level == 1);
        EXPECT_EQ(caches.l2.size != 0, bad.level == 1);
        EXPECT_EQ(caches.l1_data.size != 0, bad.level == 2);
    }
}

class geometry_chain : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "sysinfo_chain.XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
        dumps.clear();
        cpuid_reads = 0;
        sysconf_values = this_machines_sysconf;
        use_cache_sources({root.c_str(), recorded_cpuid, recorded_sysconf});
    }
    void TearDown() override
    {
        use_cache_sources(live_cache_sources());
        fs::remove_all(root);
    }

    // Processors 0 to count - 1, all online, without cache directories.
    void processors(int count)
    {
        for (int cpu = 0; cpu < count; cpu++)
            fs::create_directories(fs::path(root) / ("cpu" + std::to_string(cpu)));
        write(fs::path(root) / "online", count == 1 ? "0" : "0-" + std::to_string(count - 1));
    }

    fs::path entry(int cpu, int index, int level, const std::string &type, const std::string &size,
                   int line_size, int ways)
    {
        fs::path dir = fs::path(root) / ("cpu" + std::to_string(cpu)) / "cache" / ("index" + std::to_string(index));
        fs::create_directories(dir);
        write(dir / "level", std::to_string(level));
        write(dir / "type", type);
        write(dir / "size", size);
        write(dir / "coherency_line_size", std::to_string(line_size));
        write(dir / "ways_of_associativity", std::to_string(ways));
        return dir;
    }

    static void write(const fs::path &file, const std::string &text) { std::ofstream(file) << text << "\n"; }

    // Descriptor i of the processor's record: size, line size, ways.
    static std::vector<uint32_t> geometry(int cpu, int i)
    {
        uint32_t *record = nullptr;
        if (dxt_tlib_get_cpu_cacheinfo(cpu, &record) != 0)
            return {};
        const uint32_t *desc = record + CACHEINFO_FIRST_WORD + CACHEINFO_DESC_WORDS * i;
        return {desc[CACHEINFO_SIZE], desc[CACHEINFO_LINE], desc[CACHEINFO_WAYS]};
    }

    static std::vector<std::string> sources_of(int cpu)
    {
        std::vector<std::string> texts;
        for (int i = 0; i < CACHEINFO_DESCRIPTORS; i++)
            texts.push_back(dxt_tlib_get_cache_source(cpu, i));
        return texts;
    }

    std::string root;
};

using shape = std::vector<uint32_t>;  // size, line size, ways
using texts = std::vector<std::string>;

TEST_F(geometry_chain, kernel_directory_answers_alone)
{
    processors(2);
    for (int cpu : {0, 1}) {
        entry(cpu, 0, 1, "Data", "32K", 64, 8);
        write(entry(cpu, 2, 2, "Unified", "2048K", 64, 16) / "shared_cpu_list", "0-1");
    }
    for (int cpu : {0, 1}) {
        EXPECT_EQ(geometry(cpu, 4), (shape{2097152, 64, 16}));
        EXPECT_EQ(geometry(cpu, 2), (shape{1048576, 64, 8}));
        EXPECT_EQ(geometry(cpu, 0), (shape{32768, 64, 8}));
        EXPECT_EQ(sources_of(cpu), (texts{"sysfs", "none", "sysconf", "none", "sysfs"}));
        EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(cpu), "0-1");
    }
    EXPECT_EQ(cpuid_reads, 0);
}

TEST_F(geometry_chain, impossible_kernel_l2_falls_through_to_cpuid)
{
    processors(2);
    for (int cpu : {0, 1}) {
        entry(cpu, 0, 1, "Data", "32K", 64, 8);
        write(entry(cpu, 3, 2, "Unified", "512M", 64, 16) / "shared_cpu_list", "0-7");
        dumps[cpu] = recorded::zen2(uint32_t(cpu));
    }
    EXPECT_EQ(geometry(0, 4), (shape{524288, 64, 8}));
    EXPECT_EQ(sources_of(0), (texts{"sysfs", "none", "sysconf", "none", "CPUID leaf 0x8000001D"}));
    // The rejected entry's list is not believed either: CPUID groups the two
    // threads by APIC id.
    EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(0), "0-1");
    EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(1), "0-1");
}

TEST_F(geometry_chain, this_machine_without_kernel_directory)
{
    processors(2);
    dumps[0] = dumps[1] = recorded::this_machine();
    sysconf_values[_SC_LEVEL2_CACHE_SIZE] = 532676608;  // the C library misreports its L3 as the L2
    for (int cpu : {0, 1}) {
        EXPECT_EQ(geometry(cpu, 4), (shape{1048576, 64, 8}));
        EXPECT_EQ(geometry(cpu, 2), (shape{0, 0, 0}));
        EXPECT_EQ(geometry(cpu, 0), (shape{49152, 64, 12}));
        EXPECT_EQ(sources_of(cpu),
                  (texts{"CPUID leaf 0x80000005", "none", "none", "none", "CPUID leaf 0x80000006"}));
        EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(cpu), "unknown");
    }
}

TEST_F(geometry_chain, impossible_everywhere_leaves_the_program_its_defaults)
{
    processors(1);
    entry(0, 2, 2, "Unified", "0K", 64, 8);
    sysconf_values[_SC_LEVEL2_CACHE_LINESIZE] = 48;
    EXPECT_EQ(geometry(0, 4), (shape{0, 0, 0}));
    EXPECT_EQ(geometry(0, 2), (shape{0, 0, 0}));
    EXPECT_EQ(sources_of(0), (texts{"sysconf", "none", "none", "none", "none"}));
    EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(0), "unknown");
    EXPECT_EQ(cpuid_reads, 1);
}

TEST_F(geometry_chain, no_source_at_all_is_a_failure_of_the_library)
{
    processors(1);
    sysconf_values.clear();
    uint32_t *record = nullptr;
    EXPECT_EQ(dxt_tlib_get_cpu_cacheinfo(0, &record), -1);
    EXPECT_EQ(record, nullptr);
    EXPECT_NE(std::string(dxt_tlib_get_init_errmsg()).find("no source of cache information"), std::string::npos);
    EXPECT_EQ(sources_of(0), (texts{"none", "none", "none", "none", "none"}));
    EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(0), "unknown");
}

TEST_F(geometry_chain, kernel_without_sharing_list_asks_cpuid)
{
    // Linux numbering of a Skylake with two cores: threads 0 and 2 share
    // core 0 (APIC ids 0 and 1).
    processors(4);
    const uint32_t apic_of[] = {0, 2, 1, 3};
    for (int cpu = 0; cpu < 4; cpu++) {
        entry(cpu, 0, 1, "Data", "32K", 64, 8);
        entry(cpu, 2, 2, "Unified", "256K", 64, 4);
        dumps[cpu] = recorded::skylake(apic_of[cpu]);
    }
    EXPECT_EQ(sources_of(1)[4], "sysfs");
    EXPECT_EQ(cpuid_reads, 0);
    EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(1), "1,3");
    EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(2), "0,2");
    EXPECT_EQ(cpuid_reads, 4);  // each processor once
}

TEST_F(geometry_chain, cpuid_sharing_needs_every_online_processor)
{
    processors(3);
    dumps[0] = recorded::zen2(0);
    dumps[1] = recorded::zen2(1);
    EXPECT_EQ(sources_of(0)[4], "CPUID leaf 0x8000001D");
    EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(0), "unknown");  // processor 2 might share it

    dumps[2] = recorded::zen2(2);
    use_cache_sources({root.c_str(), recorded_cpuid, recorded_sysconf});
    EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(0), "0-1");
    EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(2), "2");
}

TEST_F(geometry_chain, processor_or_descriptor_that_does_not_exist)
{
    processors(1);
    entry(0, 2, 2, "Unified", "1024K", 64, 8);
    EXPECT_STREQ(dxt_tlib_get_cache_source(1, 4), "none");
    EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(1), "unknown");
    EXPECT_STREQ(dxt_tlib_get_cache_source(0, -1), "none");
    EXPECT_STREQ(dxt_tlib_get_cache_source(0, CACHEINFO_DESCRIPTORS), "none");
    EXPECT_STREQ(dxt_tlib_get_cache_source(0, 4), "sysfs");
    EXPECT_STREQ(dxt_tlib_cache_source_text(99), "none");
}

}  // namespace
