// The information library: one cache-information record per processor,
// built the first time it is asked for and kept for the rest of the
// process, and the processor's vendor. The record's layout and which source
// fills which descriptor are described in cacheinfo_sources.h.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "cacheinfo_sources.h"
#include "harness/testinfo.h"

namespace {

constexpr int L1_DATA_DESCRIPTOR = 0;
constexpr int LIBC_L2_DESCRIPTOR = 2;
constexpr int OWN_L2_DESCRIPTOR = 4;

// Returned for a processor that does not exist.
constexpr int NO_SUCH_PROCESSOR = 1;

struct cpu_record {
    int result;
    uint32_t words[RECORD_WORDS];
};

std::mutex records_lock;
std::atomic<const char *> init_errmsg{""};

// Never freed: a worker may still be reading its record while another
// thread ends the process.
std::map<int, cpu_record *> &records()
{
    static auto *by_processor = new std::map<int, cpu_record *>;
    return *by_processor;
}

bool processor_exists(int cpu)
{
    if (cpu < 0)
        return false;
    struct stat status;
    std::string dir = SYSFS_CPU_ROOT "/cpu" + std::to_string(cpu);
    if (stat(dir.c_str(), &status) == 0)
        return S_ISDIR(status.st_mode);
    if (stat(SYSFS_CPU_ROOT, &status) == 0)
        return false;  // the kernel lists its processors, and not this one
    return cpu < sysconf(_SC_NPROCESSORS_CONF);
}

// The processor's own caches: sysfs, else CPUID on the processor.
bool processor_caches(int cpu, cache_pair *caches)
{
    if (sysfs_caches(SYSFS_CPU_ROOT, cpu, caches))
        return true;
    if (cpuid_caches(cpu, caches))
        return true;
    return false;
}

void put_descriptor(uint32_t *words, int index, const cache_desc &desc)
{
    uint32_t *at = words + CACHEINFO_FIRST_WORD + CACHEINFO_DESC_WORDS * index;
    at[0] = desc.source;
    at[CACHEINFO_SIZE] = desc.size;
    at[CACHEINFO_LINE] = desc.line_size;
    at[CACHEINFO_WAYS] = desc.ways;
}

}  // namespace

int fill_record(int cpu, const cache_pair &own, const cache_pair &libc, uint32_t *words)
{
    for (int i = 0; i < RECORD_WORDS; i++)
        words[i] = 0;
    words[0] = uint32_t(cpu);
    words[1] = CACHEINFO_DESCRIPTORS;
    put_descriptor(words, L1_DATA_DESCRIPTOR, own.l1_data.size != 0 ? own.l1_data : libc.l1_data);
    put_descriptor(words, LIBC_L2_DESCRIPTOR, libc.l2);
    put_descriptor(words, OWN_L2_DESCRIPTOR, own.l2);
    if (own.l1_data.size == 0 && own.l2.size == 0 && libc.l1_data.size == 0 && libc.l2.size == 0) {
        init_errmsg = "no source of cache information answers: no sysfs cache directory, "
                      "no CPUID cache leaf, and sysconf reports no cache";
        return -1;
    }
    return 0;
}

int dxt_tlib_get_cpu_cacheinfo(int cpu_id, uint32_t **record)
{
    if (record == nullptr || !processor_exists(cpu_id))
        return NO_SUCH_PROCESSOR;
    std::lock_guard<std::mutex> hold(records_lock);
    cpu_record *&entry = records()[cpu_id];
    if (entry == nullptr) {
        cache_pair own = {};
        cache_pair libc = {};
        processor_caches(cpu_id, &own);
        sysconf_caches(&libc);
        entry = new cpu_record;
        entry->result = fill_record(cpu_id, own, libc, entry->words);
    }
    if (entry->result == 0)
        *record = entry->words;
    return entry->result;
}

// The vendor is the machine's: leaf 0 reads the same on every processor.
int dxt_tlib_get_x86_vendor(int cpu_id)
{
    if (!processor_exists(cpu_id))
        return 0;
    return vendor_of_leaf0(run_cpuid(0, 0));
}

const char *dxt_tlib_get_init_errmsg(void)
{
    return init_errmsg;
}
