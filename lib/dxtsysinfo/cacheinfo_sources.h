// The sources of cache geometry behind dxt_tlib_get_cpu_cacheinfo, one
// function per source, each usable on its own so that tests can replay a
// recorded sysfs tree or recorded CPUID registers:
//   sysfs_caches    the kernel's cache directory of one processor
//   cpuid_caches    CPUID executed on that processor (Intel leaf 4; AMD leaf
//                   0x8000001D, else 0x80000005/0x80000006)
//   sysconf_caches  the C library's machine-wide answer
// and the pure decoders that turn CPUID register values into a descriptor.
//
// The record handed to the program (32-bit words):
//   word 0        the processor id
//   word 1        the number of descriptors (CACHEINFO_DESCRIPTORS)
//   descriptor i  at word 2 + 4 i: source, size in bytes, line size, ways
// The source word says where a descriptor came from (cache_source below;
// 0 with an empty descriptor). The descriptors:
//   0  first-level data cache: this processor's own (sysfs or CPUID), else
//      the C library's
//   1  empty
//   2  second-level cache as the C library reports it (sysconf); the same
//      for every processor, filled whenever the C library knows it
//   3  empty
//   4  this processor's own second-level cache, read from sysfs or, where
//      the kernel has no cache directory, from CPUID on the processor
// The per-CPU sequence prefers descriptor 4 and so gets the processor's own
// cache, falling back to the machine-wide descriptor 2. Each record is built
// the first time it is asked for and kept to the end of the process.
// dxt_tlib_get_cpu_cacheinfo returns 0 with a record, 1 for a processor the
// kernel does not list, and -1 when no source says anything at all.
#ifndef TARNEL_DXTSYSINFO_CACHEINFO_SOURCES_H
#define TARNEL_DXTSYSINFO_CACHEINFO_SOURCES_H

#include <cstdint>

#include "harness/testinfo.h"

enum cache_source : uint32_t {
    SOURCE_NONE = 0,
    SOURCE_SYSFS = 1,
    SOURCE_CPUID = 2,
    SOURCE_SYSCONF = 3,
};

// Laid out like a descriptor of the record.
struct cache_desc {
    uint32_t source;
    uint32_t size;  // bytes; 0 = nothing known
    uint32_t line_size;
    uint32_t ways;
};

// What one source knows about one processor.
struct cache_pair {
    cache_desc l1_data;
    cache_desc l2;
};

struct cpuid_regs {
    uint32_t eax;
    uint32_t ebx;
    uint32_t ecx;
    uint32_t edx;
};

enum cache_kind {
    CACHE_L1_DATA,
    CACHE_L2,
};

// The kernel's directory of processors.
#define SYSFS_CPU_ROOT "/sys/devices/system/cpu"

// Reads <cpu_root>/cpu<cpu>/cache/index*/ and picks the entries by level
// and type (never by index number): level 1 Data (or Unified) for the L1,
// level 2 Unified or Data for the L2. True when it found the L2; false when
// the directory is missing or lists no second-level cache.
bool sysfs_caches(const char *cpu_root, int cpu, cache_pair *caches);

// A sysfs size text ("1024K", "2M", "512"): bytes, or 0 when malformed.
uint32_t parse_cache_size(const char *text);

// Pins the calling thread to the processor, runs CPUID there and restores
// the thread's processor mask. True when it found the L2.
bool cpuid_caches(int cpu, cache_pair *caches);

// sysconf(_SC_LEVEL2_CACHE_*, _SC_LEVEL1_DCACHE_*). True when it knows the
// L2 size.
bool sysconf_caches(cache_pair *caches);

// One subleaf of the deterministic cache leaves (Intel leaf 4, AMD
// 0x8000001D): true when it describes a cache of the given kind.
bool decode_deterministic_cache(const cpuid_regs &regs, cache_kind kind, cache_desc *desc);
// The subleaves of one such leaf in order, up to the first of type 0: the
// first that describes a cache of that kind.
bool find_deterministic_cache(const cpuid_regs *subleaves, int count, cache_kind kind,
                              cache_desc *desc);
// AMD leaf 0x80000006 (L2 in ECX) and 0x80000005 (L1 data in ECX); false for
// an absent cache or a reserved associativity code. A fully associative
// cache reports as many ways as it has lines.
bool decode_amd_l2(const cpuid_regs &leaf_80000006, cache_desc *desc);
bool decode_amd_l1_data(const cpuid_regs &leaf_80000005, cache_desc *desc);
// The associativity code of leaf 0x80000006: ways, or 0 when reserved or
// disabled; the fully associative code gives size / line_size.
uint32_t amd_l2_ways(uint32_t code, uint32_t size, uint32_t line_size);

// Vendor code (VENDOR_INTEL, VENDOR_AMD, else 0) of CPUID leaf 0's registers
// (the text is EBX, EDX, ECX).
int vendor_of_leaf0(const cpuid_regs &leaf0);

// The record of one processor from what its own sources (sysfs or CPUID)
// and the C library said: 0, or -1 with the reason for
// dxt_tlib_get_init_errmsg when no source said anything at all.
constexpr int RECORD_WORDS = CACHEINFO_FIRST_WORD + CACHEINFO_DESC_WORDS * CACHEINFO_DESCRIPTORS;
int fill_record(int cpu, const cache_pair &own, const cache_pair &libc, uint32_t *words);

// CPUID on whatever processor the calling thread runs on.
cpuid_regs run_cpuid(uint32_t leaf, uint32_t subleaf);

#endif
