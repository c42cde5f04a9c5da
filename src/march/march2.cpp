// The 30N march with variable data: eighteen elements of whole 64-byte block
// reads and writes over the half-cache region, for every layout (mode) of
// the pattern block and every base value: fifty marches a call. The stride
// stays one block; what varies from march to march is the data. It makes
// traffic and never compares what it reads.

#include <cstdint>
#include <cstring>

#include "harness/testinfo.h"
#include "march/genmarch.h"
#include "stress/l2cache.h"
#include "util/l2_util.h"

const uint32_t cache_patt[] = {0xFFFFFFFF, 0x00000000, 0x55555555, 0xDDDDDDDD, 0xF0F0F0F0, PATT_END};

namespace {

const char tag[] = "morvantest";

enum : uint32_t {
    BLOCK = PATTERN_WORDS * 4,  // 64 bytes: one pattern block
    PROBE_WORD = 3,             // element 16 loads word 3 (byte 12) alone
};
enum : int32_t {
    FIRST_MODE = 1,  // the layouts of update_pattern, 1 to 10
    LAST_MODE = 10,
};

inline uint32_t *block_at(uintptr_t p) { return reinterpret_cast<uint32_t *>(p); }

// The element shapes. Ascending runs p = first, first + 64, ... while
// p < last; descending p = last, last - 64, ... while p > first: the last
// block is only visited descending, the first only ascending. A read is a
// whole-block ld_pattern, a write a whole-block st_pattern of x (then y);
// reads return the last value loaded, for the caller's sink.
inline void up_write(uintptr_t first, uintptr_t last, const uint32_t *x)
{
    for (uintptr_t p = first; p < last; p += BLOCK)
        st_pattern(x, block_at(p), PATTERN_WORDS);
}

inline uint32_t up_read(uintptr_t first, uintptr_t last)
{
    uint32_t read = 0;
    for (uintptr_t p = first; p < last; p += BLOCK)
        read = ld_pattern(block_at(p), PATTERN_WORDS);
    return read;
}

inline uint32_t up_read_write(uintptr_t first, uintptr_t last, const uint32_t *x)
{
    uint32_t read = 0;
    for (uintptr_t p = first; p < last; p += BLOCK) {
        read = ld_pattern(block_at(p), PATTERN_WORDS);
        st_pattern(x, block_at(p), PATTERN_WORDS);
    }
    return read;
}

inline uint32_t up_read_write2(uintptr_t first, uintptr_t last, const uint32_t *x, const uint32_t *y)
{
    uint32_t read = 0;
    for (uintptr_t p = first; p < last; p += BLOCK) {
        read = ld_pattern(block_at(p), PATTERN_WORDS);
        st_pattern(x, block_at(p), PATTERN_WORDS);
        st_pattern(y, block_at(p), PATTERN_WORDS);
    }
    return read;
}

inline uint32_t down_read(uintptr_t first, uintptr_t last)
{
    uint32_t read = 0;
    for (uintptr_t p = last; p > first; p -= BLOCK)
        read = ld_pattern(block_at(p), PATTERN_WORDS);
    return read;
}

inline uint32_t down_read_write(uintptr_t first, uintptr_t last, const uint32_t *x)
{
    uint32_t read = 0;
    for (uintptr_t p = last; p > first; p -= BLOCK) {
        read = ld_pattern(block_at(p), PATTERN_WORDS);
        st_pattern(x, block_at(p), PATTERN_WORDS);
    }
    return read;
}

inline uint32_t down_read_write2(uintptr_t first, uintptr_t last, const uint32_t *x, const uint32_t *y)
{
    uint32_t read = 0;
    for (uintptr_t p = last; p > first; p -= BLOCK) {
        read = ld_pattern(block_at(p), PATTERN_WORDS);
        st_pattern(x, block_at(p), PATTERN_WORDS);
        st_pattern(y, block_at(p), PATTERN_WORDS);
    }
    return read;
}

inline uint32_t down_probe(uintptr_t first, uintptr_t last)
{
    uint32_t read = 0;
    for (uintptr_t p = last; p > first; p -= BLOCK)
        read = l2_ld32(block_at(p) + PROBE_WORD);
    return read;
}

// One march with the pattern block P and its complement Q over the blocks from
// `first` to `last` (the highest block address); returns the last value
// read.
uint32_t march_blocks(uintptr_t first, uintptr_t last, const uint32_t *p_block, const uint32_t *q_block)
{
    // The blocks' words are held in locals whose address never escapes: a
    // volatile store to test memory cannot change them, so they stay in
    // registers instead of being reloaded before every store.
    uint32_t pattern[PATTERN_WORDS];
    uint32_t inverse[PATTERN_WORDS];
    std::memcpy(pattern, p_block, sizeof pattern);
    std::memcpy(inverse, q_block, sizeof inverse);
    uint32_t read;
    up_write(first, last, pattern);                          // 1  up: write P
    read = up_read_write(first, last, inverse);              // 2  up: read, write Q
    read = down_read(first, last);                           // 3  down: read
    read = up_read_write(first, last, pattern);              // 4  up: read, write P
    read = down_read(first, last);                           // 5  down: read
    read = down_read_write(first, last, inverse);            // 6  down: read, write Q
    read = up_read(first, last);                             // 7  up: read
    read = down_read_write(first, last, pattern);            // 8  down: read, write P
    read = up_read(first, last);                             // 9  up: read
    read = up_read_write2(first, last, pattern, inverse);    // 10 up: read, write P, write Q
    read = down_read(first, last);                           // 11 down: read
    read = down_read_write2(first, last, inverse, pattern);  // 12 down: read, write Q, write P
    read = up_read(first, last);                             // 13 up: read
    up_write(first, last, inverse);                          // 14 up: write Q
    read = up_read_write2(first, last, pattern, inverse);    // 15 up: read, write P, write Q
    read = down_probe(first, last);                          // 16 down: load word 3
    read = down_read_write2(first, last, pattern, inverse);  // 17 down: read, write P, write Q
    read = up_read(first, last);                             // 18 up: read
    return read;
}

}  // namespace

int cache_march_stress4(void *, uint32_t cache_size)
{
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_MARCH_VAR_START);
    l2_buffer buffer;
    if (!march_buffer(buffer, cache_size, tag))
        return L2_NO_MEMORY;

    // Unsigned addresses: with a region of 64 bytes or less `last` falls
    // below `first` and no march runs, though every pattern is still built.
    uintptr_t first = reinterpret_cast<uintptr_t>(buffer.get());
    uintptr_t last = first + march_region_bytes(cache_size) - BLOCK;
    uint32_t pattern[PATTERN_WORDS];  // P
    uint32_t inverse[PATTERN_WORDS];  // Q, the complement of P
    // The loads only make traffic: their values end here, once per march.
    [[maybe_unused]] volatile uint32_t sink;
    for (int32_t mode = FIRST_MODE; mode <= LAST_MODE; mode++)
        for (const uint32_t *v = cache_patt; *v != PATT_END; v++) {
            update_pattern(*v, pattern, PATTERN_WORDS, mode);
            compl_pattern(inverse, pattern, PATTERN_WORDS);
            if (first < last)
                sink = march_blocks(first, last, pattern, inverse);
        }

    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_MARCH_VAR_END);
    return L2_PASSED;
}
