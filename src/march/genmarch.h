// The block march tests: the 30N march with line-length striding over
// 32-byte blocks, the 30N march with variable data over 64-byte blocks, and
// the processor-to-cache interconnect test with switching patterns. Each
// marches over the first half of a cache-sized buffer of its own.
#ifndef TARNEL_MARCH_GENMARCH_H
#define TARNEL_MARCH_GENMARCH_H

#include <unistd.h>

#include <cstdint>

#include "harness/testinfo.h"
#include "util/l2_util.h"

// Marker-terminated base value tables.
enum : uint32_t {
    PATT_END = 0xABC,
};
extern const uint32_t gen_cache_patt[];
extern const uint32_t cache_patt[];

// What the block marches share: the region they touch is the first
// 4 x (cache_size / 8) bytes of a cache-sized buffer (half the cache,
// rounded down to whole words), the buffer takes up to sixteen memalign
// attempts, and the lock texts are the same (each test has its own tag).
enum : uint32_t {
    MARCH_ALLOC_ATTEMPTS = 16,
};
inline uint32_t march_region_bytes(uint32_t cache_size) { return 4 * (cache_size / 8); }
inline constexpr char MARCH_MLOCK_FAILED[] = "cache_miss mlock failed!!\n";
inline constexpr char MARCH_MUNLOCK_FAILED[] = "cache_miss munlock failed!!\n";

// A march test's buffer: cache_size bytes at the page size, up to sixteen
// attempts, then locked when it can be. False, after message 4002, when
// every attempt failed.
inline bool march_buffer(l2_buffer &buffer, uint32_t cache_size, const char *tag)
{
    if (!buffer.allocate(static_cast<size_t>(sysconf(_SC_PAGESIZE)), cache_size, MARCH_ALLOC_ATTEMPTS)) {
        dxt_message(DXT_RETURN, LVL_STEP_ERROR, nullptr, MSG_NO_MEMORY);
        return false;
    }
    buffer.lock(tag, MARCH_MLOCK_FAILED, MARCH_MUNLOCK_FAILED);
    return true;
}

int cache_march_stress3(void *buffer, uint32_t cache_size, uint32_t iterations);
int cache_march_stress4(void *buffer, uint32_t cache_size);
int cache_interconnect_stress(void *buffer, uint32_t cache_size, uint32_t iterations);

#endif
