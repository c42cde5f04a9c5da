// The CPUID decoders on register values recorded from real processors.
#include <gtest/gtest.h>

#include <array>

#include "cacheinfo_sources.h"
#include "recorded_cpuid.h"

namespace {

using fields = std::array<uint32_t, 4>;  // source, size, line size, ways

fields of(const cache_desc &desc)
{
    return {desc.source, desc.size, desc.line_size, desc.ways};
}

TEST(cpuid_decode, each_vendor_reads_its_own_leaves)
{
    const struct {
        const char *name;
        cpuid_dump dump;
        fields l2, l1_data;
        uint32_t sharing, apic_id;
    } rows[] = {
        {"Skylake: leaf 4", recorded::skylake(6), {CACHE_SOURCE_CPUID_4, 256 << 10, 64, 4},
         {CACHE_SOURCE_CPUID_4, 32 << 10, 64, 8}, 2, 6},
        {"Zen 2: leaf 0x8000001D", recorded::zen2(5), {CACHE_SOURCE_CPUID_8000001D, 512 << 10, 64, 8},
         {CACHE_SOURCE_CPUID_8000001D, 32 << 10, 64, 8}, 2, 5},
        {"this machine: leaves 0x80000005/6", recorded::this_machine(),
         {CACHE_SOURCE_CPUID_80000006, 1 << 20, 64, 8}, {CACHE_SOURCE_CPUID_80000005, 48 << 10, 64, 12}, 0, 0xe3},
    };
    for (const auto &row : rows) {
        cpuid_answer answer;
        decode_cpuid_dump(row.dump, &answer);
        EXPECT_EQ(of(answer.caches.l2), row.l2) << row.name;
        EXPECT_EQ(of(answer.caches.l1_data), row.l1_data) << row.name;
        EXPECT_EQ(answer.l2_sharing, row.sharing) << row.name;
        EXPECT_TRUE(answer.apic_known) << row.name;
        EXPECT_EQ(answer.apic_id, row.apic_id) << row.name;
    }
    // Skylake's L1 instruction cache has the data cache's geometry.
    cache_desc desc = {};
    EXPECT_FALSE(decode_deterministic_cache(recorded::skylake(0).leaf_4[1], CACHE_L1_DATA, 0, &desc));
}

TEST(cpuid_decode, amd_leaf_80000006_associativity_codes)
{
    // 512 KB of 64-byte lines: the fully associative code 15 gives one way
    // per line (8192); 0 (disabled) and the reserved 3, 5, 7, 9 give none.
    const uint32_t ways_of_code[16] = {0, 1, 2, 0, 4, 0, 8, 0, 16, 0, 32, 48, 64, 96, 128, 8192};
    for (uint32_t code = 0; code < 16; code++) {
        uint32_t ways = ways_of_code[code];
        cache_desc l2 = {};
        EXPECT_EQ(decode_amd_l2({0, 0, (512u << 16) | (code << 12) | 64u, 0}, &l2), ways != 0) << "code " << code;
        fields expected = {CACHE_SOURCE_CPUID_80000006, 512 << 10, 64, ways};
        EXPECT_EQ(of(l2), ways == 0 ? fields{} : expected) << "code " << code;
    }
}

TEST(cpuid_decode, vendor_of_leaf_0)
{
    // The text runs EBX, EDX, ECX.
    EXPECT_EQ(vendor_of_leaf0(recorded::skylake(0).leaf_0), 2);
    EXPECT_EQ(vendor_of_leaf0(recorded::zen2(0).leaf_0), 4);
    EXPECT_EQ(vendor_of_leaf0({0x10, 0x6f677948, 0x656e6975, 0x6e65476e}), 0);  // "HygonGenuine"
    EXPECT_EQ(vendor_of_leaf0({0, 0, 0, 0}), 0);
}

}  // namespace
