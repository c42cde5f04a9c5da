// The CPU-cache interconnect test: simultaneous-switching patterns driven
// between the processor and its cache. Every pass writes a 128-bit-line
// pattern over the blocks of the half-cache region and reads them back, then
// does the same with a 256-bit-line pattern. It makes traffic and never
// compares what it reads.
#include <cstdint>
#include <cstring>

#include "harness/testinfo.h"
#include "march/genmarch.h"
#include "stress/l2cache.h"
#include "util/l2_util.h"

namespace {

const char tag[] = "selvotest";

enum : uint32_t {
    BLOCK = PATTERN_WORDS * 4,  // 64 bytes: one pattern block
    PASSES_PER_ITERATION = 16,
};
enum : int32_t {
    BUS_WIDTH = 16,  // the data path the patterns switch, in bits
    NARROW_LINE = 128,
    WIDE_LINE = 256,
};

inline uint32_t *block_at(uintptr_t p) { return reinterpret_cast<uint32_t *>(p); }

// A store sweep, then a load sweep, over p = first, first + 64, ... while
// p < last: the last block of the region is never touched. Returns the last
// value loaded, for the caller's sink.
uint32_t switch_blocks(uintptr_t first, uintptr_t last, const uint32_t *block)
{
    // Held in a local whose address never escapes: a volatile store to test
    // memory cannot change it, so its words stay in registers instead of
    // being reloaded before every store.
    uint32_t pattern[PATTERN_WORDS];
    std::memcpy(pattern, block, sizeof pattern);
    for (uintptr_t p = first; p < last; p += BLOCK)
        st_pattern(pattern, block_at(p), PATTERN_WORDS);
    uint32_t read = 0;
    for (uintptr_t p = first; p < last; p += BLOCK)
        read = ld_pattern(block_at(p), PATTERN_WORDS);
    return read;
}

}  // namespace

int cache_interconnect_stress(void *, uint32_t cache_size, uint32_t iterations)
{
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_INTERCONNECT_START);
    l2_buffer buffer;
    if (!march_buffer(buffer, cache_size, tag))
        return L2_NO_MEMORY;

    // Unsigned addresses: with a region of 64 bytes or less `last` falls
    // below `first` and no block is touched, though every pass still draws
    // both patterns.
    uintptr_t first = reinterpret_cast<uintptr_t>(buffer.get());
    uintptr_t last = first + march_region_bytes(cache_size) - BLOCK;
    uint32_t pattern[PATTERN_WORDS];
    // The loads only make traffic: their values end here, once per pass.
    [[maybe_unused]] volatile uint32_t sink;
    uint32_t passes = iterations * PASSES_PER_ITERATION;
    for (uint32_t pass = 0; pass < passes; pass++) {
        getSSOPattern(pattern, PATTERN_WORDS, BUS_WIDTH, NARROW_LINE);
        if (first < last)
            sink = switch_blocks(first, last, pattern);
        getSSOPattern(pattern, PATTERN_WORDS, BUS_WIDTH, WIDE_LINE);
        if (first < last)
            sink = switch_blocks(first, last, pattern);
    }

    // The end message comes after the buffer is gone.
    buffer.release();
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_INTERCONNECT_END);
    return L2_PASSED;
}
