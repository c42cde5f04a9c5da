#include <malloc.h>

#include <cstdlib>

#include "trace_case.h"
#include "util/l2_util.h"

namespace {

// The block primitives every march is made of: sixteen 32-bit stores, then
// sixteen 32-bit loads, lowest address first, none merged or dropped.
void block_store_load()
{
    uint32_t pattern[PATTERN_WORDS];
    for (uint32_t i = 0; i < PATTERN_WORDS; i++)
        pattern[i] = i * 0x01010101u;
    auto *block = static_cast<uint32_t *>(memalign(64, 64));
    trace_begin();
    st_pattern(pattern, block, PATTERN_WORDS);
    (void)ld_pattern(block, PATTERN_WORDS);
    trace_end();
    watch(block, 64);
    for (int i = 0; i < PATTERN_WORDS; i++)
        expect_store(block + i, 4);
    for (int i = 0; i < PATTERN_WORDS; i++)
        expect_load(block + i, 4);
    free(block);
}

trace_case registered("block_store_load", block_store_load);

}  // namespace
