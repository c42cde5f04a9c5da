// The block march tests: the 30N march with line-length striding over
// 32-byte blocks, the 30N march with variable data over 64-byte blocks, and
// the processor-to-cache interconnect test with switching patterns. Each
// marches over the first half of a cache-sized buffer of its own.
#ifndef TARNEL_MARCH_GENMARCH_H
#define TARNEL_MARCH_GENMARCH_H

#include <cstdint>

// Marker-terminated base value tables.
enum : uint32_t {
    PATT_END = 0xABC,
};
extern const uint32_t gen_cache_patt[];
extern const uint32_t cache_patt[];

int cache_march_stress3(void *buffer, uint32_t cache_size, uint32_t iterations);
int cache_march_stress4(void *buffer, uint32_t cache_size);
int cache_interconnect_stress(void *buffer, uint32_t cache_size, uint32_t iterations);

#endif
