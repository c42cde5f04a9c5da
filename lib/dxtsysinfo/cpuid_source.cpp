// CPUID as a source of cache geometry and of cache sharing: read on the
// processor it describes, decoded from plain register values.
#include <cpuid.h>
#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <cstring>

#include "cacheinfo_sources.h"

namespace {

// Type codes of the deterministic cache leaves, EAX[4:0].
constexpr uint32_t CPUID_TYPE_NULL = 0;
constexpr uint32_t CPUID_TYPE_DATA = 1;
constexpr uint32_t CPUID_TYPE_UNIFIED = 3;
constexpr uint32_t AMD_FULLY_ASSOCIATIVE = 0xFFFFFFFF;
constexpr uint32_t AMD_L1_FULLY_ASSOCIATIVE = 0xFF;
// Leaf 0x80000001 ECX bit 22: AMD topology extensions (leaves 0x8000001D
// and 0x8000001E).
constexpr uint32_t AMD_TOPOLOGY_EXTENSIONS = 1u << 22;
// Moves the calling thread onto the processor; old receives the mask to
// restore. The kernel migrates the thread before the call returns, and
// sched_getcpu confirms it: CPUID describes the processor that executes it.
bool pin_to_processor(int cpu, cpu_mask *old)
{
    if (!read_cpu_mask(false, old))
        return false;
    int error = bind_thread(cpu);
    if (error == 0 && sched_getcpu() == cpu)
        return true;
    if (error == 0)
        restore_thread_mask(*old);
    free_cpu_mask(old);
    return false;
}

void restore_processor_mask(cpu_mask *old)
{
    restore_thread_mask(*old);
    free_cpu_mask(old);
}

// The subleaves of a deterministic cache leaf up to the first of type 0.
void read_subleaves(uint32_t leaf, cpuid_regs *subleaves)
{
    for (int i = 0; i < MAX_CACHE_SUBLEAVES; i++) {
        subleaves[i] = run_cpuid(leaf, uint32_t(i));
        if ((subleaves[i].eax & 0x1F) == CPUID_TYPE_NULL)
            return;
    }
}

// The leaves of the dump, on the processor the thread runs on. A leaf
// above the maximum is not executed: Intel answers it with the highest
// basic leaf's data.
void read_dump_here(cpuid_dump *dump)
{
    *dump = {};
    dump->leaf_0 = run_cpuid(0, 0);
    uint32_t max = dump->leaf_0.eax;
    if (max >= 1)
        dump->leaf_1 = run_cpuid(1, 0);
    if (max >= 4)
        read_subleaves(4, dump->leaf_4);
    if (max >= 0xB)
        dump->leaf_b = run_cpuid(0xB, 0);
    dump->leaf_80000000 = run_cpuid(0x80000000, 0);
    uint32_t extended_max = dump->leaf_80000000.eax;
    if (extended_max >= 0x80000001)
        dump->leaf_80000001 = run_cpuid(0x80000001, 0);
    if (extended_max >= 0x80000005)
        dump->leaf_80000005 = run_cpuid(0x80000005, 0);
    if (extended_max >= 0x80000006)
        dump->leaf_80000006 = run_cpuid(0x80000006, 0);
    if (extended_max >= 0x8000001D)
        read_subleaves(0x8000001D, dump->leaf_8000001d);
    if (extended_max >= 0x8000001E)
        dump->leaf_8000001e = run_cpuid(0x8000001E, 0);
}

// A cache of one deterministic leaf, when that leaf describes a plausible
// one; sharing receives its sharing count.
bool deterministic_cache(const cpuid_regs *subleaves, uint32_t source, cache_kind kind, cache_desc *desc,
                         uint32_t *sharing)
{
    cache_desc found = {};
    int at = find_deterministic_cache(subleaves, MAX_CACHE_SUBLEAVES, kind, source, &found);
    if (at < 0 || !cache_plausible(kind, found))
        return false;
    *desc = found;
    *sharing = deterministic_sharing(subleaves[at]);
    return true;
}

bool has_leaf(const cpuid_dump &dump, uint32_t leaf)
{
    uint32_t max = leaf >= 0x80000000 ? dump.leaf_80000000.eax : dump.leaf_0.eax;
    return max >= leaf;
}

// Intel leaf 4; AMD leaf 0x8000001D, else the older leaf of the level.
cache_desc cpuid_cache(const cpuid_dump &dump, cache_kind kind, uint32_t *sharing)
{
    int vendor = vendor_of_leaf0(dump.leaf_0);
    cache_desc desc = {};
    if (vendor == VENDOR_INTEL && has_leaf(dump, 4) &&
        deterministic_cache(dump.leaf_4, CACHE_SOURCE_CPUID_4, kind, &desc, sharing))
        return desc;
    if (vendor != VENDOR_AMD)
        return {};
    // Leaf 0x8000001D reads all zeros on parts without topology extensions.
    if (has_leaf(dump, 0x8000001D) &&
        deterministic_cache(dump.leaf_8000001d, CACHE_SOURCE_CPUID_8000001D, kind, &desc, sharing))
        return desc;
    if (kind == CACHE_L2 && has_leaf(dump, 0x80000006) && decode_amd_l2(dump.leaf_80000006, &desc) &&
        cache_plausible(kind, desc))
        return desc;
    if (kind == CACHE_L1_DATA && has_leaf(dump, 0x80000005) && decode_amd_l1_data(dump.leaf_80000005, &desc) &&
        cache_plausible(kind, desc))
        return desc;
    return {};
}

bool apic_id_of(const cpuid_dump &dump, uint32_t *apic_id)
{
    // Leaf 0xB lists no levels (EBX[15:0] = 0) where it is not implemented.
    if (has_leaf(dump, 0xB) && (dump.leaf_b.ebx & 0xFFFF) != 0) {
        *apic_id = dump.leaf_b.edx;
        return true;
    }
    if (vendor_of_leaf0(dump.leaf_0) == VENDOR_AMD && has_leaf(dump, 0x8000001E) &&
        (dump.leaf_80000001.ecx & AMD_TOPOLOGY_EXTENSIONS) != 0) {
        *apic_id = dump.leaf_8000001e.eax;
        return true;
    }
    if (has_leaf(dump, 1)) {
        *apic_id = dump.leaf_1.ebx >> 24;
        return true;
    }
    return false;
}

}  // namespace

bool read_cpuid_dump(int cpu, cpuid_dump *dump)
{
    cpu_mask old;
    if (!pin_to_processor(cpu, &old))
        return false;
    read_dump_here(dump);
    restore_processor_mask(&old);
    return true;
}

void decode_cpuid_dump(const cpuid_dump &dump, cpuid_answer *answer)
{
    *answer = {};
    uint32_t l1_sharing = 0;
    answer->caches.l1_data = cpuid_cache(dump, CACHE_L1_DATA, &l1_sharing);
    answer->caches.l2 = cpuid_cache(dump, CACHE_L2, &answer->l2_sharing);
    answer->apic_known = apic_id_of(dump, &answer->apic_id);
}

std::vector<int> processors_sharing(uint32_t apic_id, uint32_t sharing, const std::vector<processor_apic> &all)
{
    // Sharers occupy an aligned block of APIC ids whose size is the sharing
    // count rounded up to a power of two.
    int shift = 0;
    while (shift < 31 && (1u << shift) < sharing)
        shift++;
    std::vector<int> cpus;
    for (const processor_apic &other : all)
        if (other.apic_id >> shift == apic_id >> shift)
            cpus.push_back(other.cpu);
    return cpus;
}

bool decode_deterministic_cache(const cpuid_regs &regs, cache_kind kind, uint32_t source, cache_desc *desc)
{
    uint32_t type = regs.eax & 0x1F;
    uint32_t level = (regs.eax >> 5) & 0x7;
    uint32_t wanted_level = kind == CACHE_L2 ? 2 : 1;
    if (level != wanted_level || (type != CPUID_TYPE_DATA && type != CPUID_TYPE_UNIFIED))
        return false;
    uint64_t line_size = (regs.ebx & 0xFFF) + 1;
    uint64_t partitions = ((regs.ebx >> 12) & 0x3FF) + 1;
    uint64_t ways = ((regs.ebx >> 22) & 0x3FF) + 1;
    uint64_t sets = uint64_t(regs.ecx) + 1;
    uint64_t size = ways * partitions * line_size * sets;
    if (size > UINT32_MAX)
        return false;
    *desc = {source, uint32_t(size), uint32_t(line_size), uint32_t(ways)};
    return true;
}

int find_deterministic_cache(const cpuid_regs *subleaves, int count, cache_kind kind, uint32_t source,
                             cache_desc *desc)
{
    for (int i = 0; i < count; i++) {
        if ((subleaves[i].eax & 0x1F) == CPUID_TYPE_NULL)
            return -1;
        if (decode_deterministic_cache(subleaves[i], kind, source, desc))
            return i;
    }
    return -1;
}

uint32_t deterministic_sharing(const cpuid_regs &regs)
{
    return ((regs.eax >> 14) & 0xFFF) + 1;
}

uint32_t amd_l2_ways(uint32_t code, uint32_t size, uint32_t line_size)
{
    // ECX[15:12] of leaf 0x80000006. 0 is a disabled cache; 3, 5, 7 and 9
    // are reserved (newer parts use 9 for "see leaf 0x8000001D").
    static constexpr uint32_t ways_of_code[16] = {
        0, 1, 2, 0, 4, 0, 8, 0, 16, 0, 32, 48, 64, 96, 128, AMD_FULLY_ASSOCIATIVE,
    };
    uint32_t ways = ways_of_code[code & 0xF];
    if (ways != AMD_FULLY_ASSOCIATIVE)
        return ways;
    return line_size == 0 ? 0 : size / line_size;
}

bool decode_amd_l2(const cpuid_regs &leaf_80000006, cache_desc *desc)
{
    uint32_t size = (leaf_80000006.ecx >> 16) * 1024;
    uint32_t code = (leaf_80000006.ecx >> 12) & 0xF;
    uint32_t line_size = leaf_80000006.ecx & 0xFF;
    uint32_t ways = amd_l2_ways(code, size, line_size);
    if (size == 0 || ways == 0)
        return false;
    *desc = {CACHE_SOURCE_CPUID_80000006, size, line_size, ways};
    return true;
}

bool decode_amd_l1_data(const cpuid_regs &leaf_80000005, cache_desc *desc)
{
    uint32_t size = (leaf_80000005.ecx >> 24) * 1024;
    uint32_t ways = (leaf_80000005.ecx >> 16) & 0xFF;
    uint32_t line_size = leaf_80000005.ecx & 0xFF;
    if (ways == AMD_L1_FULLY_ASSOCIATIVE)
        ways = line_size == 0 ? 0 : size / line_size;
    if (size == 0 || ways == 0)
        return false;
    *desc = {CACHE_SOURCE_CPUID_80000005, size, line_size, ways};
    return true;
}

int vendor_of_leaf0(const cpuid_regs &leaf0)
{
    char vendor[13];
    memcpy(vendor, &leaf0.ebx, 4);
    memcpy(vendor + 4, &leaf0.edx, 4);
    memcpy(vendor + 8, &leaf0.ecx, 4);
    vendor[12] = '\0';
    if (strcmp(vendor, "GenuineIntel") == 0)
        return VENDOR_INTEL;
    if (strcmp(vendor, "AuthenticAMD") == 0)
        return VENDOR_AMD;
    return 0;
}

cpuid_regs run_cpuid(uint32_t leaf, uint32_t subleaf)
{
    cpuid_regs regs;
    __cpuid_count(leaf, subleaf, regs.eax, regs.ebx, regs.ecx, regs.edx);
    return regs;
}
