#include <unistd.h>

#include <cstdint>

#include "driver/tarnel.h"
#include "harness/testinfo.h"
#include "march/genmarch.h"
#include "platform.h"
#include "stress/l2cache.h"
#include "util/l2_util.h"

uint32_t pagesize;

namespace {

const char tag[] = "l2cache";

struct l2_geometry {
    uint32_t cache_size;
    uint32_t line_size;
    uint32_t ways;
};

const uint32_t *descriptor(const uint32_t *record, int index)
{
    return record + CACHEINFO_FIRST_WORD + CACHEINFO_DESC_WORDS * index;
}

// The second-level cache of this processor: descriptor 4, else descriptor 2,
// else the defaults (announced with message 41). All three values come from
// one source.
l2_geometry choose_geometry(int cpu)
{
    uint32_t *record = nullptr;
    int retval = dxt_tlib_get_cpu_cacheinfo(cpu, &record);
    if (retval == 0) {
        const uint32_t *desc = descriptor(record, 4);
        if (desc[CACHEINFO_SIZE] == 0)
            desc = descriptor(record, 2);
        if (desc[CACHEINFO_SIZE] != 0)
            return {desc[CACHEINFO_SIZE], desc[CACHEINFO_LINE], desc[CACHEINFO_WAYS]};
    }
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_GEOMETRY_DEFAULTS, "dxt_tlib_get_cpu_cacheinfo()", cpu, retval,
                retval == -1 ? dxt_tlib_get_init_errmsg() : "");
    return {L2_DEFAULT_CACHE_SIZE, L2_DEFAULT_LINE_SIZE, L2_DEFAULT_WAYS};
}

// The last subtest: its buffer belongs to the sequence.
int run_random_offset(uint32_t cache_size, uint32_t passes)
{
    l2_buffer buffer;
    if (!buffer.allocate(pagesize, cache_size))
        return L2_NO_MEMORY;
    buffer.lock(tag, "cache_miss mlock failed!!\n", "cache_miss munlock failed!!\n");
    return cache_rand_off_stress(buffer.get(), cache_size, passes);
}

int run_subtests(const l2_geometry &g, uint32_t passes)
{
    int status = L2_PASSED;
    if ((test_mask & TEST_WRRDVR) && (status = cache_wrrdvr_stress(nullptr, g.cache_size, g.ways, passes)) != 0)
        return status;
    if ((test_mask & TEST_CACHE_HIT) &&
        (status = cache_hit_stress(nullptr, g.cache_size, g.line_size, passes)) != 0)
        return status;
    if ((test_mask & TEST_CACHE_MISS) &&
        (status = cache_miss_stress(nullptr, g.cache_size, g.line_size, g.ways, passes)) != 0)
        return status;
    if ((test_mask & TEST_RANDOM_SWAP) && (status = crand(nullptr, g.cache_size)) != 0)
        return status;
    if ((test_mask & TEST_INTERCONNECT) &&
        (status = cache_interconnect_stress(nullptr, g.cache_size, passes)) != 0)
        return status;
    if (test_mask & TEST_MARCHES) {
        if ((status = cache_march_stress4(nullptr, g.cache_size)) != 0)
            return status;
        if ((status = cache_march_stress3(nullptr, g.cache_size, passes)) != 0)
            return status;
        if ((status = cache_march_stress1(nullptr, g.cache_size, g.line_size, passes)) != 0)
            return status;
        if ((status = cache_march_stress2(nullptr, g.cache_size, passes)) != 0)
            return status;
    }
    if (test_mask & TEST_RANDOM_OFFSET)
        status = run_random_offset(g.cache_size, passes);
    return status;
}

}  // namespace

void *l2cache_stress(void *cpu_arg)
{
    int cpu = static_cast<int>(reinterpret_cast<intptr_t>(cpu_arg));
    pagesize = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));

    l2_geometry geometry = choose_geometry(cpu);
    // The kernels divide by the line size and the sets kernel by the ways:
    // a descriptor that leaves either at 0 gets the defaults for them.
    if (geometry.line_size == 0)
        geometry.line_size = L2_DEFAULT_LINE_SIZE;
    if (geometry.ways == 0)
        geometry.ways = L2_DEFAULT_WAYS;
    uint32_t passes = static_cast<uint32_t>(iterations);

    int vendor = dxt_tlib_get_x86_vendor(cpu);
    if (vendor != VENDOR_INTEL && vendor != VENDOR_AMD)
        dxt_message(DXT_FATAL, LVL_FATAL, nullptr, MSG_UNKNOWN_VENDOR);

    lock2cpu(cpu);
    dxt_message(DXT_RETURN, LVL_DEBUG, tag, MSG_FREE_TEXT,
                "Cache Access stress for cache_size %x line_size %x num_loops %d\n", geometry.cache_size,
                geometry.line_size, iterations);

    int status = run_subtests(geometry, passes);
    thr_exit(reinterpret_cast<void *>(static_cast<intptr_t>(status)));
    return nullptr;
}

// DEVSTUB: placeholders until the subtests land; every one is replaced.
int cache_wrrdvr_stress(void *, uint32_t, uint32_t, uint32_t) { return 0; }
int cache_hit_stress(void *, uint32_t, uint32_t, uint32_t) { return 0; }
int cache_miss_stress(void *, uint32_t, uint32_t, uint32_t, uint32_t) { return 0; }
int cache_rand_off_stress(void *, uint32_t, uint32_t) { return 0; }
int cache_march_stress1(void *, uint32_t, uint32_t, uint32_t) { return 0; }
int cache_march_stress2(void *, uint32_t, uint32_t) { return 0; }
