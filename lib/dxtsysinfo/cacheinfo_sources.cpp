// The three sources of cache geometry and the CPUID decoders.
#include "cacheinfo_sources.h"

#include <cpuid.h>
#include <dirent.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "harness/testinfo.h"

namespace {

// Type codes of the deterministic cache leaves, EAX[4:0].
constexpr uint32_t CPUID_TYPE_NULL = 0;
constexpr uint32_t CPUID_TYPE_DATA = 1;
constexpr uint32_t CPUID_TYPE_UNIFIED = 3;
// No processor lists more caches than this; it bounds a leaf that never
// reports its end.
constexpr int MAX_SUBLEAVES = 16;
constexpr uint32_t AMD_FULLY_ASSOCIATIVE = 0xFFFFFFFF;
constexpr uint32_t AMD_L1_FULLY_ASSOCIATIVE = 0xFF;
// Processor ids beyond this are refused rather than sized into a mask.
constexpr int MAX_PROCESSOR_ID = 1 << 20;

// The first line of a small text file, without its line end; "" when it
// cannot be read.
std::string read_line(const std::string &path)
{
    char text[128];
    FILE *file = fopen(path.c_str(), "re");
    if (file == nullptr)
        return "";
    size_t length = fread(text, 1, sizeof text - 1, file);
    fclose(file);
    text[length] = '\0';
    text[strcspn(text, "\r\n")] = '\0';
    return text;
}

// A decimal number file: its value, or 0 when missing or malformed.
uint32_t read_number(const std::string &path)
{
    std::string text = read_line(path);
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return 0;
    unsigned long value = strtoul(text.c_str(), nullptr, 10);
    return value > UINT32_MAX ? 0 : uint32_t(value);
}

// "index<digits>": the number, else false.
bool index_number(const char *name, int *index)
{
    if (strncmp(name, "index", 5) != 0 || name[5] == '\0')
        return false;
    for (const char *c = name + 5; *c != '\0'; c++)
        if (*c < '0' || *c > '9')
            return false;
    *index = atoi(name + 5);
    return true;
}

bool is_data_or_unified(const std::string &type)
{
    return type == "Data" || type == "Unified";
}

cache_desc read_sysfs_entry(const std::string &entry)
{
    return {SOURCE_SYSFS, parse_cache_size(read_line(entry + "size").c_str()),
            read_number(entry + "coherency_line_size"), read_number(entry + "ways_of_associativity")};
}

// The calling thread's processor mask, sized for whatever the kernel uses.
struct processor_mask {
    cpu_set_t *set;
    size_t size;
};

bool get_thread_mask(processor_mask *mask)
{
    for (int processors = 1024; processors <= MAX_PROCESSOR_ID; processors *= 2) {
        cpu_set_t *set = CPU_ALLOC(processors);
        size_t size = CPU_ALLOC_SIZE(processors);
        int error = pthread_getaffinity_np(pthread_self(), size, set);
        if (error == 0) {
            *mask = {set, size};
            return true;
        }
        CPU_FREE(set);
        if (error != EINVAL)  // EINVAL: the kernel's mask is larger
            return false;
    }
    return false;
}

// Moves the calling thread onto the processor; old receives the mask to
// restore. The kernel migrates the thread before the call returns, and
// sched_getcpu confirms it: CPUID describes the processor that executes it.
bool pin_to_processor(int cpu, processor_mask *old)
{
    if (cpu < 0 || cpu >= MAX_PROCESSOR_ID || !get_thread_mask(old))
        return false;
    cpu_set_t *only = CPU_ALLOC(cpu + 1);
    size_t size = CPU_ALLOC_SIZE(cpu + 1);
    CPU_ZERO_S(size, only);
    CPU_SET_S(cpu, size, only);
    int error = pthread_setaffinity_np(pthread_self(), size, only);
    CPU_FREE(only);
    if (error == 0 && sched_getcpu() == cpu)
        return true;
    if (error == 0)
        pthread_setaffinity_np(pthread_self(), old->size, old->set);
    CPU_FREE(old->set);
    return false;
}

void restore_processor_mask(processor_mask *old)
{
    pthread_setaffinity_np(pthread_self(), old->size, old->set);
    CPU_FREE(old->set);
}

// Walks the subleaves of a deterministic cache leaf on this processor.
bool deterministic_caches(uint32_t leaf, cache_pair *caches)
{
    cpuid_regs subleaves[MAX_SUBLEAVES];
    int count = 0;
    while (count < MAX_SUBLEAVES) {
        subleaves[count] = run_cpuid(leaf, uint32_t(count));
        if ((subleaves[count].eax & 0x1F) == CPUID_TYPE_NULL)
            break;
        count++;
    }
    find_deterministic_cache(subleaves, count, CACHE_L1_DATA, &caches->l1_data);
    return find_deterministic_cache(subleaves, count, CACHE_L2, &caches->l2);
}

// CPUID's view of the processor the thread runs on.
bool cpuid_caches_here(cache_pair *caches)
{
    cpuid_regs leaf0 = run_cpuid(0, 0);
    int vendor = vendor_of_leaf0(leaf0);
    if (vendor == VENDOR_INTEL)
        return leaf0.eax >= 4 && deterministic_caches(4, caches);
    if (vendor != VENDOR_AMD)
        return false;
    uint32_t extended_max = run_cpuid(0x80000000, 0).eax;
    // Leaf 0x8000001D reads all zeros on parts without topology extensions.
    if (extended_max >= 0x8000001D && deterministic_caches(0x8000001D, caches))
        return true;
    if (extended_max < 0x80000006)
        return false;
    decode_amd_l1_data(run_cpuid(0x80000005, 0), &caches->l1_data);
    return decode_amd_l2(run_cpuid(0x80000006, 0), &caches->l2);
}

cache_desc from_sysconf(int size_name, int line_name, int ways_name)
{
    long size = sysconf(size_name);
    long line_size = sysconf(line_name);
    long ways = sysconf(ways_name);
    if (size <= 0 || size > long(UINT32_MAX))
        return {};
    return {SOURCE_SYSCONF, uint32_t(size), line_size > 0 ? uint32_t(line_size) : 0,
            ways > 0 ? uint32_t(ways) : 0};
}

}  // namespace

uint32_t parse_cache_size(const char *text)
{
    if (*text < '0' || *text > '9')
        return 0;
    char *end = nullptr;
    errno = 0;
    unsigned long long value = strtoull(text, &end, 10);
    if (errno != 0)
        return 0;
    unsigned long long unit = 1;
    switch (*end) {
    case 'K': case 'k': unit = 1ULL << 10; end++; break;
    case 'M': case 'm': unit = 1ULL << 20; end++; break;
    case 'G': case 'g': unit = 1ULL << 30; end++; break;
    default: break;
    }
    while (*end == '\n' || *end == ' ')
        end++;
    if (*end != '\0' || value > UINT32_MAX / unit)
        return 0;
    return uint32_t(value * unit);
}

bool sysfs_caches(const char *cpu_root, int cpu, cache_pair *caches)
{
    *caches = {};
    std::string dir = std::string(cpu_root) + "/cpu" + std::to_string(cpu) + "/cache";
    DIR *listing = opendir(dir.c_str());
    if (listing == nullptr)
        return false;
    // Directory order is arbitrary: among entries of one kind, the lowest
    // index wins, so the choice does not depend on it.
    int l1_index = -1;
    int l2_index = -1;
    while (const dirent *item = readdir(listing)) {
        int index = 0;
        if (!index_number(item->d_name, &index))
            continue;
        std::string entry = dir + "/" + item->d_name + "/";
        uint32_t level = read_number(entry + "level");
        std::string type = read_line(entry + "type");
        if (!is_data_or_unified(type) || (level != 1 && level != 2))
            continue;
        int &chosen = level == 2 ? l2_index : l1_index;
        cache_desc &desc = level == 2 ? caches->l2 : caches->l1_data;
        if (chosen >= 0 && index > chosen)
            continue;
        cache_desc found = read_sysfs_entry(entry);
        if (found.size == 0)
            continue;
        desc = found;
        chosen = index;
    }
    closedir(listing);
    return l2_index >= 0;
}

bool cpuid_caches(int cpu, cache_pair *caches)
{
    *caches = {};
    processor_mask old;
    if (!pin_to_processor(cpu, &old))
        return false;
    bool found = cpuid_caches_here(caches);
    restore_processor_mask(&old);
    return found;
}

bool sysconf_caches(cache_pair *caches)
{
    caches->l1_data = from_sysconf(_SC_LEVEL1_DCACHE_SIZE, _SC_LEVEL1_DCACHE_LINESIZE, _SC_LEVEL1_DCACHE_ASSOC);
    caches->l2 = from_sysconf(_SC_LEVEL2_CACHE_SIZE, _SC_LEVEL2_CACHE_LINESIZE, _SC_LEVEL2_CACHE_ASSOC);
    return caches->l2.size != 0;
}

bool decode_deterministic_cache(const cpuid_regs &regs, cache_kind kind, cache_desc *desc)
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
    *desc = {SOURCE_CPUID, uint32_t(size), uint32_t(line_size), uint32_t(ways)};
    return true;
}

bool find_deterministic_cache(const cpuid_regs *subleaves, int count, cache_kind kind, cache_desc *desc)
{
    for (int i = 0; i < count; i++) {
        if ((subleaves[i].eax & 0x1F) == CPUID_TYPE_NULL)
            return false;
        if (decode_deterministic_cache(subleaves[i], kind, desc))
            return true;
    }
    return false;
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
    *desc = {SOURCE_CPUID, size, line_size, ways};
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
    *desc = {SOURCE_CPUID, size, line_size, ways};
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
