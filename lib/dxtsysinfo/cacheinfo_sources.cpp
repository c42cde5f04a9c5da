// The kernel's and the C library's answers on cache geometry, the
// plausibility rule, and processor lists.
#include "cacheinfo_sources.h"

#include "textfile.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>


namespace {

// A decimal number file: its value, or 0 when missing or malformed.
uint32_t read_number(const std::string &path)
{
    std::string text = read_first_line(path);
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos)
        return 0;
    unsigned long long value = strtoull(text.c_str(), nullptr, 10);
    return value > UINT32_MAX ? 0 : uint32_t(value);
}

// "index<digits>": the number, else false.
bool index_number(const char *name, int *index)
{
    if (strncmp(name, "index", 5) != 0 || name[5] == '\0' || strlen(name) > 9)
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
    return {CACHE_SOURCE_SYSFS, parse_cache_size(read_first_line(entry + "size").c_str()),
            read_number(entry + "coherency_line_size"), read_number(entry + "ways_of_associativity")};
}

// The processors sharing the entry's cache, in canonical form; "" when the
// kernel says nothing. Some older kernels write a shared_cpu_list that
// disagrees with shared_cpu_map (a Bulldozer module lists "0" but maps 0x3);
// the map is then right, as topology libraries also take it.
std::string read_shared_list(const std::string &entry)
{
    std::vector<int> listed, mapped;
    bool list_read = parse_cpu_list(read_first_line(entry + "shared_cpu_list"), &listed);
    if (parse_cpu_map(read_first_line(entry + "shared_cpu_map"), &mapped))
        return format_cpu_list(mapped);
    return list_read ? format_cpu_list(listed) : "";
}

bool is_power_of_two(uint32_t value)
{
    return value != 0 && (value & (value - 1)) == 0;
}

cache_desc from_sysconf(sysconf_reader read, cache_kind kind, int size_name, int line_name, int ways_name)
{
    long size = read(size_name);
    long line_size = read(line_name);
    long ways = read(ways_name);
    if (size <= 0 || size > long(UINT32_MAX) || line_size <= 0 || line_size > long(UINT32_MAX) || ways <= 0 ||
        ways > long(UINT32_MAX))
        return {};
    cache_desc desc = {CACHE_SOURCE_SYSCONF, uint32_t(size), uint32_t(line_size), uint32_t(ways)};
    return cache_plausible(kind, desc) ? desc : cache_desc{};
}

}  // namespace

bool cache_plausible(cache_kind kind, const cache_desc &desc)
{
    uint32_t max_size = kind == CACHE_L2 ? MAX_L2_SIZE : MAX_L1_DATA_SIZE;
    if (desc.size == 0 || desc.size > max_size)
        return false;
    if (!is_power_of_two(desc.line_size) || desc.line_size < MIN_LINE_SIZE || desc.line_size > MAX_LINE_SIZE)
        return false;
    // Both factors are bounded above, so the product fits in 64 bits.
    return desc.ways != 0 && uint64_t(desc.ways) * desc.line_size <= desc.size;
}

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

bool online_processors(const char *cpu_root, std::vector<int> *cpus)
{
    return read_cpu_list(std::string(cpu_root) + "/online", cpus);
}

bool sysfs_caches(const char *cpu_root, int cpu, sysfs_answer *answer)
{
    *answer = {};
    std::string dir = std::string(cpu_root) + "/cpu" + std::to_string(cpu) + "/cache";
    DIR *listing = opendir(dir.c_str());
    if (listing == nullptr)
        return false;
    // Directory order is arbitrary: among believable entries of one kind,
    // the lowest index wins, so the choice does not depend on it.
    int l1_index = -1;
    int l2_index = -1;
    std::string l2_entry;
    while (const dirent *item = readdir(listing)) {
        int index = 0;
        if (!index_number(item->d_name, &index))
            continue;
        std::string entry = dir + "/" + item->d_name + "/";
        uint32_t level = read_number(entry + "level");
        if (!is_data_or_unified(read_first_line(entry + "type")) || (level != 1 && level != 2))
            continue;
        cache_kind kind = level == 2 ? CACHE_L2 : CACHE_L1_DATA;
        int &chosen = kind == CACHE_L2 ? l2_index : l1_index;
        if (chosen >= 0 && index > chosen)
            continue;
        cache_desc found = read_sysfs_entry(entry);
        if (!cache_plausible(kind, found))
            continue;
        (kind == CACHE_L2 ? answer->caches.l2 : answer->caches.l1_data) = found;
        chosen = index;
        if (kind == CACHE_L2)
            l2_entry = entry;
    }
    closedir(listing);
    if (l2_index < 0)
        return false;
    answer->l2_shared = read_shared_list(l2_entry);
    return true;
}

bool sysconf_caches(sysconf_reader read, cache_pair *caches)
{
    caches->l1_data = from_sysconf(read, CACHE_L1_DATA, _SC_LEVEL1_DCACHE_SIZE, _SC_LEVEL1_DCACHE_LINESIZE,
                                   _SC_LEVEL1_DCACHE_ASSOC);
    caches->l2 = from_sysconf(read, CACHE_L2, _SC_LEVEL2_CACHE_SIZE, _SC_LEVEL2_CACHE_LINESIZE,
                              _SC_LEVEL2_CACHE_ASSOC);
    return caches->l2.size != 0;
}

static cache_desc first_known(const cache_desc &first, const cache_desc &second)
{
    if (first.size != 0)
        return first;
    return second;
}

cache_pair own_caches(const sysfs_answer &sysfs, const cpuid_answer &cpuid)
{
    return {first_known(sysfs.caches.l1_data, cpuid.caches.l1_data), first_known(sysfs.caches.l2, cpuid.caches.l2)};
}
