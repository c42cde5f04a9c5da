/* The information library's calls beyond the cache record and the vendor:
 * where each value of a processor's cache record came from, which
 * processors share its second-level cache, and which physical part each
 * processor is. C linkage, usable from C and C++; every text
 * returned stays valid to the end of the process.
 */
#ifndef TARNEL_DXTSYSINFO_EXT_H
#define TARNEL_DXTSYSINFO_EXT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Word 0 of every descriptor of the cache record: where the descriptor came
 * from. An empty descriptor (size 0) has CACHE_SOURCE_NONE. */
enum dxt_cache_source {
    CACHE_SOURCE_NONE = 0,
    CACHE_SOURCE_SYSFS = 1,            /* the kernel's cache directory of the processor */
    CACHE_SOURCE_CPUID_4 = 2,          /* CPUID leaf 4 (Intel) on the processor */
    CACHE_SOURCE_SYSCONF = 3,          /* the C library, machine-wide */
    CACHE_SOURCE_CPUID_8000001D = 4,   /* CPUID leaf 0x8000001D (AMD topology extensions) */
    CACHE_SOURCE_CPUID_80000005 = 5,   /* CPUID leaf 0x80000005 (older AMD, first level) */
    CACHE_SOURCE_CPUID_80000006 = 6,   /* CPUID leaf 0x80000006 (older AMD, second level) */
};

/* Descriptor `index` of a cache record: its words are the source (below),
 * the size, the line size and the ways. */
const uint32_t *dxt_tlib_cache_descriptor(const uint32_t *record, int index);

/* The source of descriptor `descriptor` (0 to 4) of the processor's cache
 * record as a short text: "sysfs", "CPUID leaf 4", "CPUID leaf 0x8000001D",
 * "CPUID leaf 0x80000005", "CPUID leaf 0x80000006", "sysconf", or "none"
 * (an empty descriptor, a descriptor number out of range, or a processor
 * without a record). Builds the record if it was not asked for yet. */
const char *dxt_tlib_get_cache_source(int cpu_id, int descriptor);

/* The text of a source code of word 0; "none" for an unknown code. */
const char *dxt_tlib_cache_source_text(uint32_t source);

/* The processors that share this processor's second-level cache, itself
 * included, as a processor list in the kernel's form ("0-1", "0,4", "2"
 * for a cache of its own); "unknown" when neither the kernel's cache
 * directory (shared_cpu_list) nor CPUID (sharing count of leaf 4 or
 * 0x8000001D grouped by APIC id) can say. The sharing is that of the cache
 * in descriptor 4: a processor whose descriptor 4 is empty gives
 * "unknown". */
const char *dxt_tlib_get_l2_shared_cpus(int cpu_id);

/* Reads a recorded machine instead of this one, as lscpu --sysroot does:
 * <dir>/sys/devices/system/cpu and <dir>/proc/cpuinfo (and, where present,
 * <dir>/proc/sys/kernel/osrelease), with CPUID and sysconf switched off.
 * Forgets every record built so far; call it before any is handed out. */
void dxt_tlib_use_sysroot(const char *dir);
/* The recorded machine's directory, or "" for this machine. */
const char *dxt_tlib_sysroot(void);

/* Which physical part a processor is, for pulling or returning it. Numbers
 * are -1 and texts "" where the machine does not say. */
struct dxt_processor_identity {
    int package;               /* topology/physical_package_id */
    int die;                   /* topology/die_id */
    int core;                  /* topology/core_id */
    const char *smt_siblings;  /* topology/thread_siblings_list, itself included */
    const char *model;         /* /proc/cpuinfo "model name" */
    int family, model_number, stepping;
    int64_t microcode;         /* /proc/cpuinfo "microcode" */
    int ppin_known;            /* topology/ppin: readable by root only */
    uint64_t ppin;
};
/* 0, or -1 for a processor the machine does not list. */
int dxt_tlib_get_processor_identity(int cpu_id, struct dxt_processor_identity *identity);

struct dxt_machine_identity {
    const char *kernel;  /* the kernel release, "" when not known */
    int virtualised;     /* 1: the CPUID hypervisor bit (recorded: the cpuinfo flag); 0: not; -1: not known */
};
void dxt_tlib_get_machine_identity(struct dxt_machine_identity *machine);

#ifdef __cplusplus
}
#endif

#endif
