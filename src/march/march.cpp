// The 30N march with line-length striding: eighteen elements over 32-byte
// blocks of the half-cache region, one march per base value, the whole set
// `iterations` times. It makes traffic and never compares what it reads.

#include <cstdint>

#include "harness/testinfo.h"
#include "march/genmarch.h"
#include "stress/l2cache.h"
#include "util/l2_util.h"

const uint32_t gen_cache_patt[] = {0xFFFFFFFF, 0xAAAAAAAA, 0x3C3C3C3C, 0xF0F0F0F0, 0xA5A5A5A5, 0x00000000, PATT_END};

namespace {

const char tag[] = "morvantest";

enum : uint32_t {
    LINE_BLOCK = 32,  // the stride from block to block, whatever the line size
    READ_WORD = 3,    // a read loads word 3 (byte 12) of its block
};

inline uint32_t *block_at(uintptr_t p) { return reinterpret_cast<uint32_t *>(p); }

// A write stores v into words 0 to 3 of the block, in that order; bytes 16
// to 31 are never touched.
inline void write_line(uintptr_t p, uint32_t v)
{
    uint32_t *block = block_at(p);
    l2_st32(block + 0, v);
    l2_st32(block + 1, v);
    l2_st32(block + 2, v);
    l2_st32(block + 3, v);
}

inline uint32_t read_line(uintptr_t p) { return l2_ld32(block_at(p) + READ_WORD); }

// The element shapes. Ascending runs p = first, first + 32, ... while
// p < last; descending p = last, last - 32, ... while p > first: the last
// block is only visited descending, the first only ascending. Reads return
// the last value loaded, for the caller's sink.
inline void up_write(uintptr_t first, uintptr_t last, uint32_t v)
{
    for (uintptr_t p = first; p < last; p += LINE_BLOCK)
        write_line(p, v);
}

inline uint32_t up_read(uintptr_t first, uintptr_t last)
{
    uint32_t read = 0;
    for (uintptr_t p = first; p < last; p += LINE_BLOCK)
        read = read_line(p);
    return read;
}

inline uint32_t up_read_write(uintptr_t first, uintptr_t last, uint32_t v)
{
    uint32_t read = 0;
    for (uintptr_t p = first; p < last; p += LINE_BLOCK) {
        read = read_line(p);
        write_line(p, v);
    }
    return read;
}

inline uint32_t down_read(uintptr_t first, uintptr_t last)
{
    uint32_t read = 0;
    for (uintptr_t p = last; p > first; p -= LINE_BLOCK)
        read = read_line(p);
    return read;
}

inline uint32_t down_read_write(uintptr_t first, uintptr_t last, uint32_t v)
{
    uint32_t read = 0;
    for (uintptr_t p = last; p > first; p -= LINE_BLOCK) {
        read = read_line(p);
        write_line(p, v);
    }
    return read;
}

// One march of base value v over the blocks from `first` to `last` (the
// highest block address); returns the last value read.
uint32_t march_lines(uintptr_t first, uintptr_t last, uint32_t v)
{
    uint32_t read;
    up_write(first, last, v);               // 1
    read = up_read_write(first, last, v);   // 2
    read = down_read(first, last);          // 3
    read = up_read_write(first, last, v);   // 4
    read = down_read(first, last);          // 5
    read = down_read_write(first, last, v); // 6
    read = up_read(first, last);            // 7
    read = down_read_write(first, last, v); // 8
    read = up_read(first, last);            // 9
    read = up_read_write(first, last, v);   // 10
    read = down_read(first, last);          // 11
    read = down_read_write(first, last, v); // 12
    read = up_read(first, last);            // 13
    up_write(first, last, v);               // 14
    read = up_read_write(first, last, v);   // 15
    read = down_read(first, last);          // 16
    read = down_read_write(first, last, v); // 17
    read = up_read(first, last);            // 18
    return read;
}

}  // namespace

int cache_march_stress3(void *, uint32_t cache_size, uint32_t iterations)
{
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_MARCH_LINE_START);
    l2_buffer buffer;
    if (!march_buffer(buffer, cache_size, tag))
        return L2_NO_MEMORY;

    // Unsigned addresses: with a region of 32 bytes or less `last` falls
    // below `first` and no march runs.
    uintptr_t first = reinterpret_cast<uintptr_t>(buffer.get());
    uintptr_t last = first + march_region_bytes(cache_size) - LINE_BLOCK;
    // The loads only make traffic: their values end here, once per march.
    [[maybe_unused]] volatile uint32_t sink;
    for (uint32_t pass = 0; pass < iterations; pass++)
        for (const uint32_t *v = gen_cache_patt; *v != PATT_END; v++)
            if (first < last)
                sink = march_lines(first, last, *v);

    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_MARCH_LINE_END);
    return L2_PASSED;
}
