// The sources of cache geometry and the machine's hardware reports on trees
// laid out by the test, with CPUID registers recorded from real processors
// and made-up sysconf answers. (Recorded machines that sysfs alone describes
// are replayed through --sysroot: machines/.)
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "cacheinfo_sources.h"
#include "dxtsysinfo_ext.h"
#include "hardware_reports.h"
#include "recorded_cpuid.h"
#include "table.h"

namespace {

namespace fs = std::filesystem;

// Made-up sysconf answers (this machine's, set up by the fixture): a name
// not set reads 0, as glibc gives for a value it does not know.
std::map<int, long> sysconf_values;
std::map<int, cpuid_dump> dumps;  // processors whose CPUID can be asked

long recorded_sysconf(int name)
{
    auto found = sysconf_values.find(name);
    return found == sysconf_values.end() ? 0 : found->second;
}

bool recorded_cpuid(int cpu, cpuid_dump *dump)
{
    auto found = dumps.find(cpu);
    if (found != dumps.end())
        *dump = found->second;
    return found != dumps.end();
}

const uint32_t *descriptor(int cpu, int index)
{
    static const uint32_t none[CACHEINFO_DESC_WORDS] = {};
    uint32_t *record = nullptr;
    if (dxt_tlib_get_cpu_cacheinfo(cpu, &record) != 0)
        return none;
    return record + CACHEINFO_FIRST_WORD + CACHEINFO_DESC_WORDS * index;
}

class fixture_tree : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "sysinfo.XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
        dumps.clear();
        sysconf_values = {{_SC_LEVEL1_DCACHE_SIZE, 49152},   {_SC_LEVEL1_DCACHE_LINESIZE, 64},
                          {_SC_LEVEL1_DCACHE_ASSOC, 12},     {_SC_LEVEL2_CACHE_SIZE, 1048576},
                          {_SC_LEVEL2_CACHE_LINESIZE, 64},   {_SC_LEVEL2_CACHE_ASSOC, 8}};
        use_cache_sources({root.c_str(), recorded_cpuid, recorded_sysconf});
    }
    void TearDown() override
    {
        use_cache_sources(live_cache_sources());
        fs::remove_all(root);
    }

    fs::path write(const fs::path &file, const std::string &text)
    {
        fs::create_directories((root / file).parent_path());
        std::ofstream(root / file) << text << "\n";  // the kernel ends its lines
        return file.parent_path();
    }
    // One cache entry as the kernel writes it; its directory.
    fs::path entry(int cpu, int index, int level, const char *type, const char *size, int line_size, int ways)
    {
        fs::path dir = "cpu" + std::to_string(cpu) + "/cache/index" + std::to_string(index);
        write(dir / "level", std::to_string(level));
        write(dir / "type", type);
        write(dir / "size", size);
        write(dir / "coherency_line_size", std::to_string(line_size));
        return write(dir / "ways_of_associativity", std::to_string(ways));
    }

    std::string root;
};

TEST_F(fixture_tree, sysfs_picks_entries_by_level_and_type_not_index)
{
    // Processor 0 has a split L2 behind its L3 and L1 instruction cache,
    // processor 1 a unified one in the usual order.
    entry(0, 0, 3, "Unified", "16M", 64, 16);
    entry(0, 1, 2, "Instruction", "1M", 64, 4);
    entry(0, 2, 1, "Instruction", "64K", 64, 4);
    entry(0, 3, 2, "Data", "2M", 128, 16);
    entry(0, 4, 1, "Data", "48K", 64, 12);
    entry(1, 0, 1, "Data", "32K", 64, 8);
    entry(1, 1, 1, "Instruction", "32K", 64, 8);
    entry(1, 2, 2, "Unified", "1024K", 64, 8);
    const struct {
        int cpu;
        std::array<uint32_t, 4> l2, l1_data;  // source, size, line size, ways
    } rows[] = {{0, {CACHE_SOURCE_SYSFS, 2 << 20, 128, 16}, {CACHE_SOURCE_SYSFS, 48 << 10, 64, 12}},
                {1, {CACHE_SOURCE_SYSFS, 1 << 20, 64, 8}, {CACHE_SOURCE_SYSFS, 32 << 10, 64, 8}}};
    for (const auto &row : rows) {
        sysfs_answer answer;
        ASSERT_TRUE(sysfs_caches(root.c_str(), row.cpu, &answer)) << "processor " << row.cpu;
        const cache_desc &l2 = answer.caches.l2, &l1 = answer.caches.l1_data;
        EXPECT_EQ((std::array{l2.source, l2.size, l2.line_size, l2.ways}), row.l2) << "processor " << row.cpu;
        EXPECT_EQ((std::array{l1.source, l1.size, l1.line_size, l1.ways}), row.l1_data) << "processor " << row.cpu;
    }
    // The whole record of processor 1, word for word: its id, the number of
    // descriptors, then each descriptor's source, size, line and ways (L1
    // data, unused, the C library's L2, unused, the library's own L2).
    uint32_t *record = nullptr;
    ASSERT_EQ(dxt_tlib_get_cpu_cacheinfo(1, &record), 0);
    std::vector<uint32_t> want = {1, 5,  CACHE_SOURCE_SYSFS, 32 << 10, 64, 8, 0, 0, 0, 0,
                                  CACHE_SOURCE_SYSCONF, 1 << 20, 64, 8,     0, 0, 0, 0,
                                  CACHE_SOURCE_SYSFS,   1 << 20, 64, 8};
    EXPECT_EQ(std::vector<uint32_t>(record, record + RECORD_WORDS), want);
}

// The reviewed table fall_through.txt.
TEST_F(fixture_tree, implausible_values_fall_through_to_the_next_source)
{
    const auto rows = table_rows(TARNEL_TEST_DATA "/fall_through.txt", 7);
    EXPECT_EQ(rows.size(), 13u);
    for (const auto &row : rows) {
        fs::remove_all(fs::path(root) / "cpu0");
        fs::create_directories(fs::path(root) / "cpu0");
        std::istringstream sysfs(row[1]);
        std::string size;
        int line_size = 0, ways = 0;
        if (sysfs >> size >> line_size >> ways)
            entry(0, 2, 2, "Unified", size.c_str(), line_size, ways);
        dumps.clear();
        if (!row[2].empty())
            dumps[0] = recorded_dump(row[2]);
        sysconf_values[_SC_LEVEL2_CACHE_SIZE] = std::stol(row[3]);
        use_cache_sources({root.c_str(), recorded_cpuid, recorded_sysconf});  // forgets the records
        EXPECT_EQ(dxt_tlib_get_cache_source(0, 4), row[4]) << row[0];
        EXPECT_EQ(descriptor(0, 4)[CACHEINFO_SIZE], std::stoul(row[5])) << row[0];
        EXPECT_EQ(dxt_tlib_get_cache_source(0, 2), row[6]) << row[0];
    }
}

TEST_F(fixture_tree, l2_sharers_from_the_kernel_list_else_cpuid)
{
    // A two-core Skylake numbered as Linux does: processors 0 and 2 share
    // core 0 (APIC ids 0 and 1). Only processor 0's entry lists its sharers.
    write("online", "0-3");
    const uint32_t apic_of[] = {0, 2, 1, 3};
    for (int cpu = 0; cpu < 4; cpu++) {
        entry(cpu, 0, 1, "Data", "32K", 64, 8);
        fs::path l2 = entry(cpu, 2, 2, "Unified", "256K", 64, 4);
        if (cpu == 0)
            write(l2 / "shared_cpu_list", "0-1,3,2");
        dumps[cpu] = recorded_dump("skylake", apic_of[cpu]);
    }
    EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(0), "0-3");
    EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(1), "1,3");
    EXPECT_STREQ(dxt_tlib_get_l2_shared_cpus(2), "0,2");
}

// The machine's reports, each kind apart and by processor: /proc/interrupts
// columns follow its header (processors may be missing), the EDAC counts
// sum over the memory controllers, the throttle counts are per processor.
TEST_F(fixture_tree, hardware_reports_by_processor_and_kind)
{
    ras::snapshot none = ras::read_snapshot(root, "");
    EXPECT_TRUE(none.processors.empty());
    EXPECT_NE(none.interrupts_why, "");
    EXPECT_EQ(none.edac_corrected, -1);

    const std::string edac = "sys/devices/system/edac/mc/";
    write(edac + "mc0/ce_count", "3");
    write(edac + "mc0/ce_noinfo_count", "1");
    write(edac + "mc0/ue_count", "0");
    write(edac + "mc1/ce_count", "10");
    write(edac + "mcx/ce_count", "100");  // not a memory controller
    write("sys/devices/system/cpu/cpu2/thermal_throttle/core_throttle_count", "4");
    write("proc/interrupts", "            CPU0       CPU2\n"
                             " MCE:          2          5   Machine check exceptions\n"
                             " MCP:        312        312   Machine check polls\n"
                             " THR:          0          7   Threshold APIC interrupts\n"
                             " TRM:          1          0   Thermal event interrupts");
    ras::snapshot s = ras::read_snapshot(root, "");
    EXPECT_EQ(s.interrupts_why, "");
    EXPECT_EQ((std::array{s.edac_corrected, s.edac_uncorrected}), (std::array<int64_t, 2>{14, 0}));
    ASSERT_EQ(s.processors.size(), 2u);
    const ras::processor_counts &a = s.processors[0], &b = s.processors[1];
    EXPECT_EQ((std::array{a.cpu, b.cpu}), (std::array{0, 2}));
    EXPECT_EQ((std::array{a.mce, a.thr, a.dfr, a.trm, a.core_throttle}), (std::array<int64_t, 5>{2, 0, -1, 1, -1}));
    EXPECT_EQ((std::array{b.mce, b.thr, b.dfr, b.trm, b.core_throttle}), (std::array<int64_t, 5>{5, 7, -1, 0, 4}));
}

// The reviewed table machine_checks.txt.
TEST(machine_checks, corrected_and_l2_from_status_and_unit)
{
    const auto rows = table_rows(TARNEL_TEST_DATA "/machine_checks.txt", 6);
    EXPECT_EQ(rows.size(), 9u);
    for (const auto &r : rows) {
        auto status = static_cast<int64_t>(std::stoull(r[0], nullptr, 16));
        ras::machine_check m = ras::classify(1, 3, 2, status, r[1] == "amd", r[2], r[3], r[3]);
        EXPECT_EQ(std::string(m.corrected ? "corrected " : "uncorrected ") + (m.l2_cache ? "L2" : "other"),
                  r[4] + " " + r[5])
            << r[0];
        EXPECT_EQ(m.text, r[2].empty() ? r[3] : r[2] + "; " + r[3]);
    }
}

// "CPUID leaf 4 262144 64 4": where it came from, size, line size, ways.
std::string text_of(const cache_desc &d)
{
    return std::string(dxt_tlib_cache_source_text(d.source)) + " " + std::to_string(d.size) + " " +
           std::to_string(d.line_size) + " " + std::to_string(d.ways);
}

// The reviewed table cpuid/decoded.txt.
TEST(cpuid_decode, each_vendor_reads_its_own_leaves)
{
    for (const auto &r : table_rows(TARNEL_TEST_DATA "/cpuid/decoded.txt", 6)) {
        cpuid_answer answer;
        decode_cpuid_dump(recorded_dump(r[0], r[1] == "-" ? -1 : std::stoi(r[1])), &answer);
        EXPECT_EQ((std::vector<std::string>{text_of(answer.caches.l2), text_of(answer.caches.l1_data),
                                            std::to_string(answer.l2_sharing),
                                            answer.apic_known ? std::to_string(answer.apic_id) : "none"}),
                  std::vector<std::string>(r.begin() + 2, r.end()))
            << r[0] << " " << r[1];
    }
    // Skylake's L1 instruction cache has the data cache's geometry.
    cache_desc desc = {};
    EXPECT_FALSE(decode_deterministic_cache(recorded_dump("skylake", 0).leaf_4[1], CACHE_L1_DATA, 0, &desc));
}

}  // namespace
