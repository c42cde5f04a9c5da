// The sources of cache geometry behind dxt_tlib_get_cpu_cacheinfo, one
// function per source, each usable on its own so that tests can replay a
// recorded sysfs tree, recorded CPUID registers or made-up sysconf answers:
//   sysfs_caches    the kernel's cache directory of one processor
//   read_cpuid_dump CPUID executed on that processor, decoded by
//                   decode_cpuid_dump (Intel leaf 4; AMD leaf 0x8000001D,
//                   else 0x80000005/0x80000006)
//   sysconf_caches  the C library's machine-wide answer
// the pure decoders that turn CPUID register values into a descriptor, the
// plausibility rule every source passes its values through, and the
// processor lists that say which processors share a second-level cache.
//
// The record handed to the program (32-bit words):
//   word 0        the processor id
//   word 1        the number of descriptors (CACHEINFO_DESCRIPTORS)
//   descriptor i  at word 2 + 4 i: source, size in bytes, line size, ways
// The source word says where a descriptor came from (dxt_cache_source in
// dxtsysinfo_ext.h; CACHE_SOURCE_NONE with an empty descriptor). The
// descriptors:
//   0  first-level data cache: the first plausible one of sysfs, CPUID on
//      the processor, the C library
//   1  empty
//   2  second-level cache as the C library reports it (sysconf); the same
//      for every processor, filled whenever the C library's value is
//      plausible
//   3  empty
//   4  this processor's own second-level cache: the first plausible one of
//      sysfs and CPUID on the processor
// The per-CPU sequence prefers descriptor 4 and so gets the processor's own
// cache, falling back to the machine-wide descriptor 2, then to its
// defaults: sysfs, CPUID, sysconf, nothing. Each record is built the first
// time it is asked for and kept to the end of the process.
// dxt_tlib_get_cpu_cacheinfo returns 0 with a record, 1 for a processor the
// kernel does not list, and -1 when no source says anything at all.
#ifndef TARNEL_DXTSYSINFO_CACHEINFO_SOURCES_H
#define TARNEL_DXTSYSINFO_CACHEINFO_SOURCES_H

#include <cstdint>
#include <string>
#include <vector>

#include "dxtsysinfo_ext.h"
#include "cpuset.h"
#include "testinfo.h"

// Laid out like a descriptor of the record.
struct cache_desc {
    uint32_t source;  // dxt_cache_source
    uint32_t size;    // bytes; 0 = nothing known
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

// Bounds of a believable cache. No x86 processor has a first-level data
// cache above 1 MiB (today's reach 64 KiB) nor a second-level cache per
// core cluster above 64 MiB; anything larger is a third-level cache or a
// misreport (this machine's C library gives 508 MiB for its L3).
constexpr uint32_t MAX_L1_DATA_SIZE = 1u << 20;
constexpr uint32_t MAX_L2_SIZE = 64u << 20;
constexpr uint32_t MIN_LINE_SIZE = 16;
constexpr uint32_t MAX_LINE_SIZE = 512;

// True when the descriptor can describe a real cache of that kind: a size
// from 1 byte to the kind's bound, a line size that is a power of two from
// 16 to 512, at least one way, and room for one line in every way. Every
// source passes its values through this; a value that fails it is dropped
// and the next source is asked.
bool cache_plausible(cache_kind kind, const cache_desc &desc);

// What the kernel's cache directory of one processor says.
struct sysfs_answer {
    cache_pair caches;      // plausible values only
    std::string l2_shared;  // shared_cpu_list of the chosen L2 entry, in
                            // canonical form; "" when missing or malformed
};

// Reads <cpu_root>/cpu<cpu>/cache/index*/ and picks the entries by level
// and type (never by index number): level 1 Data (or Unified) for the L1,
// level 2 Unified or Data for the L2; among plausible entries of one kind
// the lowest index. True when it found a plausible L2; false when the
// directory is missing or lists no believable second-level cache.
bool sysfs_caches(const char *cpu_root, int cpu, sysfs_answer *answer);

// A sysfs size text ("1024K", "2M", "512"): bytes, or 0 when malformed.
uint32_t parse_cache_size(const char *text);

// The processors the kernel lists in <cpu_root>/online; false when it
// cannot be read.
bool online_processors(const char *cpu_root, std::vector<int> *cpus);

// No processor lists more caches than this; it bounds a leaf that never
// reports its end.
constexpr int MAX_CACHE_SUBLEAVES = 16;

// The CPUID leaves the library reads on one processor, as the processor
// gave them; a leaf above the processor's maximum is left all zero, and a
// cache leaf's subleaves end with the first of type 0. Tests fill it with
// recorded registers.
struct cpuid_dump {
    cpuid_regs leaf_0;
    cpuid_regs leaf_1;
    cpuid_regs leaf_4[MAX_CACHE_SUBLEAVES];
    cpuid_regs leaf_b;  // subleaf 0
    cpuid_regs leaf_80000000;
    cpuid_regs leaf_80000001;
    cpuid_regs leaf_80000005;
    cpuid_regs leaf_80000006;
    cpuid_regs leaf_8000001d[MAX_CACHE_SUBLEAVES];
    cpuid_regs leaf_8000001e;
};

// What CPUID on one processor says.
struct cpuid_answer {
    cache_pair caches;    // plausible values only, each with its leaf as source
    uint32_t l2_sharing;  // most logical processors that share that L2
                          // (EAX[25:14] + 1 of its subleaf); 0 = not said
    bool apic_known;
    uint32_t apic_id;
};

// Pins the calling thread to the processor, reads the dump there and
// restores the thread's processor mask. False when the thread cannot run
// on that processor.
bool read_cpuid_dump(int cpu, cpuid_dump *dump);

// Decodes a dump: Intel leaf 4; AMD leaf 0x8000001D, else 0x80000005 (L1)
// and 0x80000006 (L2); each level from the first leaf whose value is
// plausible. The APIC id is the x2APIC id of leaf 0xB where that leaf lists
// levels, else AMD's extended id of leaf 0x8000001E where the processor has
// topology extensions, else the 8-bit id of leaf 1.
void decode_cpuid_dump(const cpuid_dump &dump, cpuid_answer *answer);

// The processor ids, in ascending order, of the processors in `all` whose
// APIC ids fall in the block of the given APIC id's shared cache: the
// sharing count rounded up to a power of two gives the number of low APIC
// id bits that tell the sharers apart.
struct processor_apic {
    int cpu;
    uint32_t apic_id;
};
std::vector<int> processors_sharing(uint32_t apic_id, uint32_t sharing, const std::vector<processor_apic> &all);

// sysconf or a stand-in with its signature.
using sysconf_reader = long (*)(int name);

// (_SC_LEVEL2_CACHE_*, _SC_LEVEL1_DCACHE_*) through the reader. True when it
// gives a plausible L2.
bool sysconf_caches(sysconf_reader read, cache_pair *caches);

// One subleaf of the deterministic cache leaves (Intel leaf 4, AMD
// 0x8000001D): true when it describes a cache of the given kind; the
// descriptor gets the given source.
bool decode_deterministic_cache(const cpuid_regs &regs, cache_kind kind, uint32_t source, cache_desc *desc);
// The subleaves of one such leaf in order, up to the first of type 0: the
// index of the first that describes a cache of that kind, or -1.
int find_deterministic_cache(const cpuid_regs *subleaves, int count, cache_kind kind, uint32_t source,
                             cache_desc *desc);
// EAX[25:14] + 1 of a deterministic cache subleaf: the most logical
// processors that share the cache.
uint32_t deterministic_sharing(const cpuid_regs &regs);
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

// The processor's own caches, each from the first source that gave one:
// sysfs, then CPUID.
cache_pair own_caches(const sysfs_answer &sysfs, const cpuid_answer &cpuid);

// The record of one processor from what its own sources (sysfs or CPUID)
// and the C library said: 0, or -1 with the reason for
// dxt_tlib_get_init_errmsg when no source said anything at all.
constexpr int RECORD_WORDS = CACHEINFO_FIRST_WORD + CACHEINFO_DESC_WORDS * CACHEINFO_DESCRIPTORS;
int fill_record(int cpu, const cache_pair &own, const cache_pair &libc, uint32_t *words);

// Where the library's public calls get their answers. Tests replace the
// live sources with a fixture tree, recorded dumps and a made-up sysconf.
struct cache_sources {
    const char *cpu_root;                       // the kernel's processor directory
    bool (*read_cpuid)(int cpu, cpuid_dump *);  // CPUID on a processor
    sysconf_reader read_sysconf;
};
cache_sources live_cache_sources();
// Reads nothing: the sources a recorded machine switches off.
bool no_cpuid(int cpu, cpuid_dump *dump);
long no_sysconf(int name);
// Takes these sources from now on and forgets every record built so far.
// For tests only: no record handed out before may still be in use.
void use_cache_sources(const cache_sources &sources);

// CPUID on whatever processor the calling thread runs on.
cpuid_regs run_cpuid(uint32_t leaf, uint32_t subleaf);

#endif
