// The CPUID decoders on register values recorded from real processors.
#include <gtest/gtest.h>

#include <cstring>

#include "cacheinfo_sources.h"
#include "harness/testinfo.h"
#include "recorded_cpuid.h"

namespace {

void expect_desc(const cache_desc &desc, uint32_t source, uint32_t size, uint32_t line_size, uint32_t ways)
{
    EXPECT_EQ(desc.source, source);
    EXPECT_EQ(desc.size, size);
    EXPECT_EQ(desc.line_size, line_size);
    EXPECT_EQ(desc.ways, ways);
}

using recorded::skylake_leaf4;
using recorded::zen2_leaf_8000001d;

TEST(deterministic_leaf, intel_leaf_4)
{
    cache_desc l2 = {};
    cache_desc l1 = {};
    ASSERT_EQ(find_deterministic_cache(skylake_leaf4, 5, CACHE_L2, CACHE_SOURCE_CPUID_4, &l2), 2);
    expect_desc(l2, CACHE_SOURCE_CPUID_4, 256 * 1024, 64, 4);  // 4 ways x 1 partition x 64 bytes x 1024 sets
    ASSERT_EQ(find_deterministic_cache(skylake_leaf4, 5, CACHE_L1_DATA, CACHE_SOURCE_CPUID_4, &l1), 0);
    expect_desc(l1, CACHE_SOURCE_CPUID_4, 32 * 1024, 64, 8);
}

TEST(deterministic_leaf, intel_server_l2)
{
    // Skylake-SP: 1 MiB, 16 ways.
    cache_desc l2 = {};
    ASSERT_TRUE(decode_deterministic_cache({0x7c004143, 0x03c0003f, 0x000003ff, 0}, CACHE_L2, CACHE_SOURCE_CPUID_4, &l2));
    expect_desc(l2, CACHE_SOURCE_CPUID_4, 1024 * 1024, 64, 16);
}

TEST(deterministic_leaf, amd_leaf_8000001d)
{
    cache_desc l2 = {};
    cache_desc l1 = {};
    ASSERT_EQ(find_deterministic_cache(zen2_leaf_8000001d, 5, CACHE_L2, CACHE_SOURCE_CPUID_8000001D, &l2), 2);
    expect_desc(l2, CACHE_SOURCE_CPUID_8000001D, 512 * 1024, 64, 8);
    ASSERT_EQ(find_deterministic_cache(zen2_leaf_8000001d, 5, CACHE_L1_DATA, CACHE_SOURCE_CPUID_8000001D, &l1), 0);
    expect_desc(l1, CACHE_SOURCE_CPUID_8000001D, 32 * 1024, 64, 8);
}

TEST(deterministic_leaf, partitions_count_in_the_size)
{
    // 8 ways, 2 partitions, 64-byte lines, 512 sets.
    cache_desc l2 = {};
    uint32_t ebx = (7u << 22) | (1u << 12) | 63u;
    ASSERT_TRUE(decode_deterministic_cache({0x00000143, ebx, 511, 0}, CACHE_L2, CACHE_SOURCE_CPUID_4, &l2));
    expect_desc(l2, CACHE_SOURCE_CPUID_4, 8 * 2 * 64 * 512, 64, 8);
}

TEST(deterministic_leaf, instruction_cache_and_other_levels_do_not_answer)
{
    cache_desc desc = {};
    EXPECT_FALSE(decode_deterministic_cache(skylake_leaf4[1], CACHE_L1_DATA, CACHE_SOURCE_CPUID_4, &desc));  // L1 instruction
    EXPECT_FALSE(decode_deterministic_cache(skylake_leaf4[3], CACHE_L2, CACHE_SOURCE_CPUID_4, &desc));       // L3
    EXPECT_FALSE(decode_deterministic_cache(skylake_leaf4[0], CACHE_L2, CACHE_SOURCE_CPUID_4, &desc));       // L1 data
    EXPECT_EQ(desc.size, 0u);
}

TEST(deterministic_leaf, walk_ends_at_the_first_empty_subleaf)
{
    // A part that lists nothing (this machine's hypervisor) and a list that
    // ends before its L2.
    const cpuid_regs none[] = {{0, 0, 0, 0}};
    const cpuid_regs cut[] = {skylake_leaf4[0], {0, 0, 0, 0}, skylake_leaf4[2]};
    cache_desc desc = {};
    EXPECT_EQ(find_deterministic_cache(none, 1, CACHE_L2, CACHE_SOURCE_CPUID_4, &desc), -1);
    EXPECT_EQ(find_deterministic_cache(cut, 3, CACHE_L2, CACHE_SOURCE_CPUID_4, &desc), -1);
    EXPECT_EQ(desc.size, 0u);
}

TEST(amd_legacy_leaves, this_machines_leaf_80000006)
{
    // AMD EPYC guest: 1024 KB, code 6, 64-byte lines.
    cache_desc l2 = {};
    ASSERT_TRUE(decode_amd_l2({0x40802040, 0x60804040, 0x04006140, 0x0fe09140}, &l2));
    expect_desc(l2, CACHE_SOURCE_CPUID_80000006, 1024 * 1024, 64, 8);
}

TEST(amd_legacy_leaves, this_machines_leaf_80000005)
{
    // 48 KB, 12 ways, 1 line per tag, 64-byte lines.
    cache_desc l1 = {};
    ASSERT_TRUE(decode_amd_l1_data({0xff60ff40, 0xff60ff40, 0x300c0140, 0x20080140}, &l1));
    expect_desc(l1, CACHE_SOURCE_CPUID_80000005, 48 * 1024, 64, 12);
}

TEST(amd_legacy_leaves, fully_associative_l1_has_one_way_per_line)
{
    cache_desc l1 = {};
    ASSERT_TRUE(decode_amd_l1_data({0, 0, 0x20ff0140, 0}, &l1));
    expect_desc(l1, CACHE_SOURCE_CPUID_80000005, 32 * 1024, 64, 512);
}

TEST(amd_legacy_leaves, absent_l2_does_not_answer)
{
    cache_desc l2 = {};
    EXPECT_FALSE(decode_amd_l2({0, 0, 0x00000000, 0}, &l2));
    EXPECT_FALSE(decode_amd_l2({0, 0, 0x02000040, 0}, &l2));  // 512 KB, code 0: disabled
    EXPECT_EQ(l2.size, 0u);
}

struct assoc_case {
    uint32_t code;
    uint32_t ways;  // 0: the descriptor is not filled
};

class amd_associativity : public ::testing::TestWithParam<assoc_case> {};

TEST_P(amd_associativity, code_decodes_through_the_table)
{
    // 512 KB with 64-byte lines: 8192 lines.
    assoc_case c = GetParam();
    cpuid_regs leaf = {0, 0, (512u << 16) | (c.code << 12) | 64u, 0};
    cache_desc l2 = {};
    EXPECT_EQ(amd_l2_ways(c.code, 512 * 1024, 64), c.ways);
    if (c.ways == 0) {
        EXPECT_FALSE(decode_amd_l2(leaf, &l2));
        EXPECT_EQ(l2.size, 0u);
    } else {
        ASSERT_TRUE(decode_amd_l2(leaf, &l2));
        expect_desc(l2, CACHE_SOURCE_CPUID_80000006, 512 * 1024, 64, c.ways);
    }
}

INSTANTIATE_TEST_SUITE_P(codes, amd_associativity,
                         ::testing::Values(assoc_case{0x0, 0}, assoc_case{0x1, 1}, assoc_case{0x2, 2},
                                           assoc_case{0x3, 0}, assoc_case{0x4, 4}, assoc_case{0x5, 0},
                                           assoc_case{0x6, 8}, assoc_case{0x7, 0}, assoc_case{0x8, 16},
                                           assoc_case{0x9, 0}, assoc_case{0xA, 32}, assoc_case{0xB, 48},
                                           assoc_case{0xC, 64}, assoc_case{0xD, 96}, assoc_case{0xE, 128},
                                           assoc_case{0xF, 8192}));

cpuid_regs leaf0_of(const char *vendor)
{
    cpuid_regs regs = {0xd, 0, 0, 0};
    memcpy(&regs.ebx, vendor, 4);
    memcpy(&regs.edx, vendor + 4, 4);
    memcpy(&regs.ecx, vendor + 8, 4);
    return regs;
}

TEST(vendor, leaf_0_text_maps_to_the_codes)
{
    // Registers as recorded: the text runs EBX, EDX, ECX.
    EXPECT_EQ(vendor_of_leaf0({0x16, 0x756e6547, 0x6c65746e, 0x49656e69}), VENDOR_INTEL);
    EXPECT_EQ(vendor_of_leaf0({0x0d, 0x68747541, 0x444d4163, 0x69746e65}), VENDOR_AMD);
    EXPECT_EQ(vendor_of_leaf0(leaf0_of("GenuineIntel")), 2);
    EXPECT_EQ(vendor_of_leaf0(leaf0_of("AuthenticAMD")), 4);
    EXPECT_EQ(vendor_of_leaf0(leaf0_of("HygonGenuine")), 0);
    EXPECT_EQ(vendor_of_leaf0(leaf0_of("CentaurHauls")), 0);
    EXPECT_EQ(vendor_of_leaf0(leaf0_of("AuthenticAMd")), 0);
    EXPECT_EQ(vendor_of_leaf0({0, 0, 0, 0}), 0);
}

}  // namespace
