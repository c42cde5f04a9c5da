// The random swap test: table-driven fills of two cache-sized buffers, a
// random walk that swaps words between them, and block sweeps from one into
// the other. It only makes traffic; its status says whether it got memory.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "harness/testinfo.h"
#include "march/genmarch.h"
#include "stress/l2cache.h"
#include "util/l2_util.h"

namespace {

enum : uint32_t {
    PATT_RANDOM = 0xABD,        // a fresh random pattern for this pass
    SWAP_ATTEMPTS = 16,         // memalign tries for each buffer
    RANDOM_WORD_MODULUS = 0xFFFFFFFF,
    BLOCK_WORDS = 8,            // a 32-byte block
    BLOCK_TOUCHED_WORDS = 4,    // the fills and sweeps touch words 0 to 3
};

const char tag[] = "morvantest";

// Stores the pattern into words 0 to 3 of every block.
void fill_blocks(uint32_t *chunk, uint32_t blocks, uint32_t pattern)
{
    for (uint32_t k = 0; k < blocks; k++) {
        uint32_t *block = chunk + k * BLOCK_WORDS;
#pragma GCC unroll 4
        for (uint32_t w = 0; w < BLOCK_TOUCHED_WORDS; w++)
            l2_st32(block + w, pattern);
    }
}

// Block by block: word 3 of the source block is read, then words 0 to 3 of
// the destination block are written.
void sweep_blocks(const uint32_t *source, uint32_t *destination, uint32_t blocks, uint32_t pattern)
{
    for (uint32_t k = 0; k < blocks; k++) {
        (void)l2_ld32(source + k * BLOCK_WORDS + 3);
        uint32_t *block = destination + k * BLOCK_WORDS;
#pragma GCC unroll 4
        for (uint32_t w = 0; w < BLOCK_TOUCHED_WORDS; w++)
            l2_st32(block + w, pattern);
    }
}

// The swap walk: a word index that advances by a random stride, masked to
// the cache size and scaled so that it stays inside the half-cache region.
void swap_walk(uint32_t *chunk1, uint32_t *chunk2, uint32_t cache_size, uint32_t pattern,
               uint32_t swap_stride)
{
    uint32_t swap_steps = cache_size / 8;
    uint32_t index_mask = cache_size - 1;
    uint32_t accumulator = 0;
#pragma GCC unroll 8
    for (uint32_t step = 0; step < swap_steps; step++) {
        uint32_t i = (accumulator & index_mask) >> 3;
        (void)l2_ld32(chunk1 + i);
        l2_st32(chunk2 + i, pattern);
        (void)l2_ld32(chunk2 + i);
        l2_st32(chunk1 + i, pattern);
        accumulator += swap_stride;
    }
}

}  // namespace

const uint32_t gen_ram_patt[] = {
    PATT_RANDOM, 0xFFFFFFFF, 0xAAAAAAAA, 0xFEFEFEFE, 0xFDFDFDFD, 0xFBFBFBFB, 0xF7F7F7F7,
    0x33333333,  0x7F7F7F7F, 0x50607080, 0x00000000, PATT_RANDOM, PATT_END,
};

int crand(void *, uint32_t cache_size)
{
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_SWAP_START);
    long page = sysconf(_SC_PAGESIZE);
    if (page == -1) {
        dxt_message(DXT_FATAL, LVL_FATAL, nullptr, MSG_SYSCALL_FAILED, "sysconf", strerror(errno));
        return L2_NO_MEMORY;
    }

    // Both are tried, whether or not the first was obtained.
    l2_buffer chunk1;
    l2_buffer chunk2;
    bool got1 = chunk1.allocate(static_cast<size_t>(page), cache_size, SWAP_ATTEMPTS);
    bool got2 = chunk2.allocate(static_cast<size_t>(page), cache_size, SWAP_ATTEMPTS);
    if (!got1 || !got2) {
        dxt_message(DXT_RETURN, LVL_STEP_ERROR, nullptr, MSG_NO_MEMORY);
        return L2_NO_MEMORY;
    }
    chunk1.lock(tag, "random loop chunk1 mlock failed!!\n", "random loop chunk1 munlock failed!!\n");
    chunk2.lock(tag, "random loop chunk2 mlock failed!!\n", "random loop chunk2 munlock failed!!\n");

    auto *words1 = static_cast<uint32_t *>(chunk1.get());
    auto *words2 = static_cast<uint32_t *>(chunk2.get());
    // Only the blocks wholly inside the half-cache region are filled and swept.
    uint32_t region_words = cache_size / 8;
    uint32_t blocks = region_words / BLOCK_WORDS;
    for (const uint32_t *entry = gen_ram_patt; *entry != PATT_END; entry++) {
        uint32_t pattern = *entry == PATT_RANDOM ? l2_getrandom(RANDOM_WORD_MODULUS) : *entry;
        fill_blocks(words1, blocks, pattern);
        fill_blocks(words2, blocks, pattern);
        uint32_t swap_stride = l2_getrandom(RANDOM_WORD_MODULUS);
        swap_walk(words1, words2, cache_size, pattern, swap_stride);
        sweep_blocks(words1, words2, blocks, pattern);
        sweep_blocks(words2, words1, blocks, pattern);
    }

    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_SWAP_END);
    // Both unlocked, chunk1 first, before either is freed.
    chunk1.unlock();
    chunk2.unlock();
    chunk1.release();
    chunk2.release();
    return L2_PASSED;
}
