// The per-CPU test sequence and the access-pattern stress tests: cache
// geometry defaults, subtest statuses, the run-wide page size, and every
// subtest and kernel of the write/read/verify, hit, miss, random offset,
// row/column march and random swap tests.
#ifndef TARNEL_STRESS_L2CACHE_H
#define TARNEL_STRESS_L2CACHE_H

#include <atomic>
#include <cstdint>

#include "harness/testinfo.h"

// Descriptor `index` of a cache-information record.
inline const uint32_t *cache_descriptor(const uint32_t *record, int index)
{
    return record + CACHEINFO_FIRST_WORD + CACHEINFO_DESC_WORDS * index;
}

// Subtest statuses.
enum l2_status {
    L2_PASSED = 0,
    L2_NO_MEMORY = 12,        // the system's out-of-memory error number
    L2_MISCOMPARE = -1,
    L2_WRRDVR_MISCOMPARE = 1, // the write/read/verify test's miscompare
};

// The system page size: the alignment of every test buffer. Every worker
// writes it at its start, all with the same value; atomic so that those
// concurrent writes are well defined.
extern std::atomic<uint32_t> pagesize;

// The start routine of a worker thread: the argument is the processor id
// (by value). Ends the thread with the status of the first failing subtest,
// or 0.
void *l2cache_stress(void *cpu);

// Write/read/verify: 0, or 1 after a miscompare (message 6000 ends the run).
int cache_wrrdvr_stress(void *buffer, uint32_t cache_size, uint32_t ways, uint32_t iterations);

// Cache hit stress and its kernels.
struct __attribute__((packed)) derived_rec {
    int8_t c;
    int16_t s;
    int32_t i1;
    int32_t i2;
};
static_assert(sizeof(derived_rec) == 11, "the packed record is 11 bytes");

int cache_hit_stress(void *buffer, uint32_t cache_size, uint32_t line_size, uint32_t iterations);
int basic_dtype_l2cachehit_stress(void *buffer, uint32_t cache_size, uint32_t iterations);
int l2cachehit_wrrdwr(void *buffer, uint32_t cache_size, uint32_t line_size, uint32_t iterations);
int derived_dtype_test(void *buffer, uint32_t cache_size, uint32_t iterations);
int derived_dtype_write(void *area, uint32_t cache_size, uint32_t iterations, const derived_rec *tmpl);
int derived_dtype_write_read_verify(void *area, uint32_t cache_size, uint32_t iterations,
                                    const derived_rec *tmpl);
int cache_readmiss(void *buffer, uint32_t size, uint32_t stride, uint32_t iterations);

// Cache miss stress and its column and set kernels.
int cache_miss_stress(void *buffer, uint32_t cache_size, uint32_t line_size, uint32_t ways,
                      uint32_t iterations);
int cache_writemiss(void *buffer, uint32_t size, uint32_t stride, uint32_t iterations, uint32_t pattern);
int cache_writemissfp(void *buffer, uint32_t size, uint32_t stride, uint32_t iterations, double value);
int cache_readmiss_write(void *buffer, uint32_t size, uint32_t stride, uint32_t iterations,
                         uint32_t pattern);
int cache_writemiss_read(void *buffer, uint32_t size, uint32_t stride, uint32_t iterations,
                         uint32_t pattern);
int cache_writemissfp_read(void *buffer, uint32_t size, uint32_t stride, uint32_t iterations,
                           double value);
int cache_sets_trash(void *buffer, uint32_t size, uint32_t stride, uint32_t ways, uint32_t iterations,
                     uint32_t pattern, int mode);

// Random offsets in the caller's cache-sized buffer.
int cache_rand_off_stress(void *buffer, uint32_t cache_size, uint32_t iterations);
int rand_off_wr_loop(void *buffer, uint32_t words, uint32_t iterations, uint32_t pattern);
int rand_off_wrrdvrfy_loop(void *buffer, uint32_t words, uint32_t iterations, uint32_t pattern);
int rand_off_rd_loop(void *buffer, uint32_t words, uint32_t iterations);

// Six-element marches: row striding over twice the cache, column striding
// over one cache size.
int cache_march_stress1(void *buffer, uint32_t cache_size, uint32_t line_size, uint32_t iterations);
int cache_march_stress2(void *buffer, uint32_t cache_size, uint32_t iterations);

// Random swap between two cache-sized buffers.
extern const uint32_t gen_ram_patt[];
int crand(void *buffer, uint32_t cache_size);

#endif
