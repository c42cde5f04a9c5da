// What CPUID says about one processor, from recorded dumps: which leaf each
// level comes from, the fall-through past impossible values, the APIC id,
// and the grouping of processors that share an L2.
#include <gtest/gtest.h>

#include <vector>

#include "cacheinfo_sources.h"
#include "recorded_cpuid.h"

namespace {

void expect_desc(const cache_desc &desc, uint32_t source, uint32_t size, uint32_t line_size, uint32_t ways)
{
    EXPECT_EQ(desc.source, source);
    EXPECT_EQ(desc.size, size);
    EXPECT_EQ(desc.line_size, line_size);
    EXPECT_EQ(desc.ways, ways);
}

cpuid_answer decode(const cpuid_dump &dump)
{
    cpuid_answer answer;
    decode_cpuid_dump(dump, &answer);
    return answer;
}

TEST(cpuid_answer, this_machine_falls_back_to_the_older_amd_leaves)
{
    cpuid_answer answer = decode(recorded::this_machine());
    expect_desc(answer.caches.l2, CACHE_SOURCE_CPUID_80000006, 1024 * 1024, 64, 8);
    expect_desc(answer.caches.l1_data, CACHE_SOURCE_CPUID_80000005, 48 * 1024, 64, 12);
    EXPECT_EQ(answer.l2_sharing, 0u);  // the older leaves do not say
}

TEST(cpuid_answer, zen2_reads_leaf_8000001d_with_its_sharing)
{
    cpuid_answer answer = decode(recorded::zen2(5));
    expect_desc(answer.caches.l2, CACHE_SOURCE_CPUID_8000001D, 512 * 1024, 64, 8);
    expect_desc(answer.caches.l1_data, CACHE_SOURCE_CPUID_8000001D, 32 * 1024, 64, 8);
    EXPECT_EQ(answer.l2_sharing, 2u);
    ASSERT_TRUE(answer.apic_known);
    EXPECT_EQ(answer.apic_id, 5u);
}

TEST(cpuid_answer, skylake_reads_leaf_4_with_its_sharing)
{
    cpuid_answer answer = decode(recorded::skylake(6));
    expect_desc(answer.caches.l2, CACHE_SOURCE_CPUID_4, 256 * 1024, 64, 4);
    expect_desc(answer.caches.l1_data, CACHE_SOURCE_CPUID_4, 32 * 1024, 64, 8);
    EXPECT_EQ(answer.l2_sharing, 2u);
    EXPECT_EQ(answer.apic_id, 6u);
}

TEST(cpuid_answer, impossible_leaf_8000001d_falls_through_to_the_older_leaves)
{
    cpuid_dump dump = recorded::zen2(0);
    dump.leaf_8000001d[2].ebx = 0x01c0002f;  // L2 line size 48
    dump.leaf_8000001d[0].ecx = 0x0000ffff;  // L1 of 65536 sets: 32 MiB
    cpuid_answer answer = decode(dump);
    expect_desc(answer.caches.l2, CACHE_SOURCE_CPUID_80000006, 512 * 1024, 64, 8);
    expect_desc(answer.caches.l1_data, CACHE_SOURCE_CPUID_80000005, 32 * 1024, 64, 8);
    EXPECT_EQ(answer.l2_sharing, 0u);  // the sharing of a rejected cache is not kept
}

TEST(cpuid_answer, impossible_older_leaves_leave_the_levels_empty)
{
    cpuid_dump dump = recorded::this_machine();
    dump.leaf_80000006.ecx = 0x00006140;  // size 0
    dump.leaf_80000005.ecx = 0x300c0120;  // 48 KB, 12 ways, 32-byte lines: believable
    cpuid_answer answer = decode(dump);
    EXPECT_EQ(answer.caches.l2.size, 0u);
    EXPECT_EQ(answer.caches.l1_data.size, 48u * 1024);
    dump.leaf_80000005.ecx = 0x300c0103;  // 3-byte lines
    EXPECT_EQ(decode(dump).caches.l1_data.size, 0u);
}

TEST(cpuid_answer, impossible_intel_l2_has_no_other_leaf)
{
    cpuid_dump dump = recorded::skylake(0);
    dump.leaf_4[2].ecx = 0x0007ffff;  // 524288 sets of 4 ways of 64 bytes: 128 MiB
    cpuid_answer answer = decode(dump);
    EXPECT_EQ(answer.caches.l2.size, 0u);
    EXPECT_EQ(answer.caches.l1_data.size, 32u * 1024);
}

TEST(cpuid_answer, leaves_above_the_maximum_are_not_read)
{
    cpuid_dump dump = recorded::skylake(3);
    dump.leaf_0.eax = 2;
    dump.leaf_b.edx = 9;
    cpuid_answer answer = decode(dump);
    EXPECT_EQ(answer.caches.l2.size, 0u);
    EXPECT_EQ(answer.caches.l1_data.size, 0u);
    EXPECT_EQ(answer.apic_id, 3u);  // from leaf 1, not leaf 0xB
    dump = recorded::zen2(0);
    dump.leaf_80000000.eax = 0x80000006;
    EXPECT_EQ(decode(dump).caches.l2.source, CACHE_SOURCE_CPUID_80000006);
}

TEST(cpuid_answer, neither_vendor_describes_no_cache)
{
    cpuid_dump dump = recorded::zen2(0);
    dump.leaf_0.ebx = 0x6f677948;  // "HygonGenuine"
    dump.leaf_0.edx = 0x6e65476e;
    dump.leaf_0.ecx = 0x656e6975;
    cpuid_answer answer = decode(dump);
    EXPECT_EQ(answer.caches.l2.size, 0u);
    EXPECT_EQ(answer.caches.l1_data.size, 0u);
}

TEST(apic_id, leaf_b_then_8000001e_then_leaf_1)
{
    cpuid_dump dump = recorded::zen2(0x21);
    dump.leaf_b.edx = 0x121;  // an x2APIC id beyond 8 bits
    EXPECT_EQ(decode(dump).apic_id, 0x121u);
    dump.leaf_b = {0, 0, 0, 0};  // no levels listed
    dump.leaf_8000001e.eax = 0x122;
    EXPECT_EQ(decode(dump).apic_id, 0x122u);
    dump.leaf_80000001.ecx &= ~(1u << 22);  // no topology extensions
    EXPECT_EQ(decode(dump).apic_id, 0x21u);
    dump.leaf_0.eax = 0;
    EXPECT_FALSE(decode(dump).apic_known);
    // This machine: no levels in leaf 0xB, no topology-extensions bit.
    EXPECT_EQ(decode(recorded::this_machine()).apic_id, 0xe3u);
}

std::vector<int> sharing(int cpu, uint32_t count, const std::vector<processor_apic> &all)
{
    for (const processor_apic &p : all)
        if (p.cpu == cpu)
            return processors_sharing(p.apic_id, count, all);
    return {};
}

TEST(l2_sharing, smt_siblings_numbered_apart)
{
    // Four cores of two threads, numbered as Linux does: the second threads
    // after all the first ones.
    std::vector<processor_apic> all = {{0, 0}, {1, 2}, {2, 4}, {3, 6}, {4, 1}, {5, 3}, {6, 5}, {7, 7}};
    EXPECT_EQ(format_cpu_list(sharing(0, 2, all)), "0,4");
    EXPECT_EQ(format_cpu_list(sharing(7, 2, all)), "3,7");
    EXPECT_EQ(format_cpu_list(sharing(5, 1, all)), "5");  // a cache of its own
}

TEST(l2_sharing, cluster_of_small_cores)
{
    // A hybrid part: two large cores of two threads each, then four small
    // cores, one thread each, on even APIC ids sharing one L2 (the leaf's
    // sharing field reads 7 there: eight ids reserved).
    std::vector<processor_apic> all = {{0, 0x00}, {1, 0x01}, {2, 0x08}, {3, 0x09},
                                       {4, 0x40}, {5, 0x42}, {6, 0x44}, {7, 0x46}, {8, 0x48}};
    EXPECT_EQ(format_cpu_list(sharing(6, 8, all)), "4-7");
    EXPECT_EQ(format_cpu_list(sharing(8, 8, all)), "8");
    EXPECT_EQ(format_cpu_list(sharing(1, 2, all)), "0-1");
    EXPECT_EQ(format_cpu_list(sharing(2, 3, all)), "2-3");  // 3 rounds up to 4 ids
}

}  // namespace
