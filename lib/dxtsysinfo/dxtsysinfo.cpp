// The information library: one cache-information record per processor,
// built the first time it is asked for and kept for the rest of the
// process, with where each of its values came from and which processors
// share its second-level cache; and the processor's vendor. The record's
// layout and which source fills which descriptor are described in
// cacheinfo_sources.h.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <mutex>
#include <string>

#include "cacheinfo_sources.h"
#include "cpuset.h"
#include "dxtsysinfo_ext.h"
#include "testinfo.h"

namespace {

constexpr int L1_DATA_DESCRIPTOR = 0;
constexpr int LIBC_L2_DESCRIPTOR = 2;
constexpr int OWN_L2_DESCRIPTOR = 4;

// Returned for a processor that does not exist.
constexpr int NO_SUCH_PROCESSOR = 1;

constexpr const char *UNKNOWN_SHARING = "unknown";

// Everything the library learned about one processor.
struct cpu_record {
    int result;
    // A block of its own, exactly the record's size: a word written past
    // its end is a heap overflow the address sanitizer reports, not a quiet
    // change to the answers kept beside it.
    std::unique_ptr<uint32_t[]> words{new uint32_t[RECORD_WORDS]};
    sysfs_answer sysfs;
    bool cpuid_read;  // CPUID was asked (whatever it answered)
    cpuid_answer cpuid;
    std::string l2_shared;  // "" until first asked; then never changed
};

std::mutex records_lock;
std::atomic<const char *> init_errmsg{""};

// Guarded by records_lock.
cache_sources &sources()
{
    static cache_sources current = live_cache_sources();
    return current;
}

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
    std::string root = sources().cpu_root;
    std::string dir = root + "/cpu" + std::to_string(cpu);
    if (stat(dir.c_str(), &status) == 0)
        return S_ISDIR(status.st_mode);
    // The kernel lists its processors, and not this one; a directory that
    // lists none is masked (a container), and the processors are those the
    // C library counts.
    std::vector<int> listed;
    if (online_processors(root.c_str(), &listed))
        return false;
    return cpu < sysconf(_SC_NPROCESSORS_CONF);
}

void read_cpuid(int cpu, cpu_record *entry)
{
    if (entry->cpuid_read)
        return;
    entry->cpuid_read = true;
    cpuid_dump dump;
    if (sources().read_cpuid(cpu, &dump))
        decode_cpuid_dump(dump, &entry->cpuid);
}

// The processor's record, built on first use. records_lock is held.
cpu_record *record_of(int cpu)
{
    cpu_record *&entry = records()[cpu];
    if (entry != nullptr)
        return entry;
    entry = new cpu_record{};
    sysfs_caches(sources().cpu_root, cpu, &entry->sysfs);
    // CPUID only for what the kernel does not say: pinning migrates the
    // calling thread.
    if (entry->sysfs.caches.l1_data.size == 0 || entry->sysfs.caches.l2.size == 0)
        read_cpuid(cpu, entry);
    cache_pair libc = {};
    sysconf_caches(sources().read_sysconf, &libc);
    entry->result = fill_record(cpu, own_caches(entry->sysfs, entry->cpuid), libc, entry->words.get());
    return entry;
}

const uint32_t *descriptor_of(const cpu_record *entry, int index)
{
    return dxt_tlib_cache_descriptor(entry->words.get(), index);
}

// The processors sharing the L2 by CPUID: every online processor's APIC id
// grouped by this processor's sharing count. All of them must answer:
// one that cannot be asked might be a sharer.
std::string cpuid_shared_l2(int cpu, cpu_record *entry)
{
    read_cpuid(cpu, entry);
    if (entry->cpuid.l2_sharing == 0 || !entry->cpuid.apic_known)
        return UNKNOWN_SHARING;
    // Without the kernel's list (a masked directory): the processors this
    // process may run on, each of which CPUID can be asked on.
    std::vector<int> online;
    cpu_mask allowed;
    if (!online_processors(sources().cpu_root, &online) && read_cpu_mask(true, &allowed)) {
        for (int id = 0; id < allowed.processors; id++)
            if (cpu_mask_has(allowed, id))
                online.push_back(id);
        free_cpu_mask(&allowed);
    }
    if (online.empty())
        return UNKNOWN_SHARING;
    std::vector<processor_apic> all;
    for (int other : online) {
        cpu_record *other_entry = record_of(other);
        read_cpuid(other, other_entry);
        if (!other_entry->cpuid.apic_known)
            return UNKNOWN_SHARING;
        all.push_back({other, other_entry->cpuid.apic_id});
    }
    std::vector<int> sharers = processors_sharing(entry->cpuid.apic_id, entry->cpuid.l2_sharing, all);
    if (sharers.empty())
        return UNKNOWN_SHARING;  // the processor is not online itself
    return format_cpu_list(sharers);
}

// The sharers of the L2 in descriptor 4: the kernel's list, else CPUID's.
std::string shared_l2(int cpu, cpu_record *entry)
{
    if (entry->result != 0 || descriptor_of(entry, OWN_L2_DESCRIPTOR)[CACHEINFO_SIZE] == 0)
        return UNKNOWN_SHARING;
    if (!entry->sysfs.l2_shared.empty())
        return entry->sysfs.l2_shared;
    return cpuid_shared_l2(cpu, entry);
}

void put_descriptor(uint32_t *words, int index, const cache_desc &desc)
{
    uint32_t *at = const_cast<uint32_t *>(dxt_tlib_cache_descriptor(words, index));
    at[0] = desc.size != 0 ? desc.source : uint32_t(CACHE_SOURCE_NONE);
    at[CACHEINFO_SIZE] = desc.size;
    at[CACHEINFO_LINE] = desc.line_size;
    at[CACHEINFO_WAYS] = desc.ways;
}

}  // namespace

cache_sources live_cache_sources()
{
    return {CPU_DIR, read_cpuid_dump, sysconf};
}

void use_cache_sources(const cache_sources &replacement)
{
    std::lock_guard<std::mutex> hold(records_lock);
    sources() = replacement;
    for (auto &[cpu, entry] : records())
        delete entry;
    records().clear();
}

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
    std::lock_guard<std::mutex> hold(records_lock);
    if (record == nullptr)
        return NO_SUCH_PROCESSOR;
    // A worker asks for a record read before the run, and the lookup
    // allocates nothing: under a memory limit the worker still gets it.
    auto known = records().find(cpu_id);
    try {
        if (known == records().end() && !processor_exists(cpu_id))
            return NO_SUCH_PROCESSOR;
        cpu_record *entry = known != records().end() ? known->second : record_of(cpu_id);
        if (entry->result == 0)
            *record = entry->words.get();
        return entry->result;
    } catch (const std::bad_alloc &) {
        init_errmsg = "out of memory while reading the cache description";
        return -1;
    }
}

// The vendor is the machine's: leaf 0 reads the same on every processor,
// so it comes from CPUID alone, whatever sysfs lists.
int dxt_tlib_get_x86_vendor(int cpu_id)
{
    return cpu_id < 0 ? 0 : vendor_of_leaf0(run_cpuid(0, 0));
}

const uint32_t *dxt_tlib_cache_descriptor(const uint32_t *record, int index)
{
    return record + CACHEINFO_FIRST_WORD + CACHEINFO_DESC_WORDS * index;
}

const char *dxt_tlib_get_init_errmsg(void)
{
    return init_errmsg;
}

const char *dxt_tlib_cache_source_text(uint32_t source)
{
    switch (source) {
    case CACHE_SOURCE_SYSFS: return "sysfs";
    case CACHE_SOURCE_CPUID_4: return "CPUID leaf 4";
    case CACHE_SOURCE_SYSCONF: return "sysconf";
    case CACHE_SOURCE_CPUID_8000001D: return "CPUID leaf 0x8000001D";
    case CACHE_SOURCE_CPUID_80000005: return "CPUID leaf 0x80000005";
    case CACHE_SOURCE_CPUID_80000006: return "CPUID leaf 0x80000006";
    default: return "none";
    }
}

const char *dxt_tlib_get_cache_source(int cpu_id, int descriptor)
{
    std::lock_guard<std::mutex> hold(records_lock);
    if (descriptor < 0 || descriptor >= CACHEINFO_DESCRIPTORS || !processor_exists(cpu_id))
        return "none";
    const cpu_record *entry = record_of(cpu_id);
    if (entry->result != 0)
        return "none";
    return dxt_tlib_cache_source_text(descriptor_of(entry, descriptor)[0]);
}

const char *dxt_tlib_get_l2_shared_cpus(int cpu_id)
{
    std::lock_guard<std::mutex> hold(records_lock);
    if (!processor_exists(cpu_id))
        return UNKNOWN_SHARING;
    cpu_record *entry = record_of(cpu_id);
    if (entry->l2_shared.empty())
        entry->l2_shared = shared_l2(cpu_id, entry);
    return entry->l2_shared.c_str();
}
