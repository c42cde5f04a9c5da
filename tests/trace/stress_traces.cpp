// Access traces of the stress tests: each case runs one subtest or kernel
// once on a tiny buffer and lists, from the test's description, every load
// and store it must make, in order and at its width.
#include <malloc.h>

#include <cstdint>
#include <cstdlib>

#include "fakes.h"
#include "stress/l2cache.h"
#include "trace_case.h"

namespace {

const char *at(const void *base, uintptr_t offset) { return static_cast<const char *>(base) + offset; }
void *block(int n) { return fake::memalign_results().at(static_cast<size_t>(n)).address; }

// A ping-pong walk's elements over `passes` passes: ascending from 0 on
// even passes, descending from `last` on odd ones, `visits` each.
template <typename Visit>
void walk(uint32_t last, uint32_t visits, uint32_t passes, Visit visit)
{
    for (uint32_t pass = 0; pass < passes; pass++)
        for (uint32_t i = 0; i < visits; i++)
            visit(pass % 2 == 0 ? i : last - i);
}

// Write/read/verify: 8 words a region, stores then loads alternating
// between the regions word by word.
void stress_wrrdvr()
{
    trace_begin();
    cache_wrrdvr_stress(nullptr, 32, 1, 1);
    trace_end();
    watch_allocations();
    const void *b = block(0);
    for (uint32_t i = 0; i < 8; i++) {
        expect_store(at(b, 4 * i), 4);
        expect_store(at(b, 32 + 4 * i), 4);
    }
    for (uint32_t i = 0; i < 8; i++) {
        expect_load(at(b, 4 * i), 4);
        expect_load(at(b, 32 + 4 * i), 4);
    }
}

// Basic types, two passes over 8 words and 4 double words.
void stress_basic_dtype()
{
    pagesize = 4096;
    trace_begin();
    basic_dtype_l2cachehit_stress(nullptr, 32, 2);
    trace_end();
    watch_allocations();
    const void *b = block(0);
    for (int phase = 0; phase < 2; phase++)
        walk(7, 7, 2, [b](uint32_t i) { expect_store(at(b, 4 * i), 4); });
    walk(3, 3, 2, [b](uint32_t i) { expect_store(at(b, 8 * i), 8); });
    walk(3, 3, 2, [b](uint32_t i) {
        expect_store(at(b, 8 * i), 8);
        expect_load(at(b, 8 * i), 8);
    });
}

// Line stride over 16 words with 4-word lines: words 0, 4, 8, 12.
void stress_wrrdwr()
{
    pagesize = 4096;
    trace_begin();
    l2cachehit_wrrdwr(nullptr, 64, 4, 2);
    trace_end();
    watch_allocations();
    const void *b = block(0);
    for (uint32_t i = 0; i < 16; i++)
        expect_store(at(b, 4 * i), 4);
    for (int pass = 0; pass < 2; pass++)
        for (uint32_t i = 0; i < 16; i += 4)
            expect_load(at(b, 4 * i), 4);
    for (int pass = 0; pass < 2; pass++)
        for (uint32_t i = 0; i < 16; i += 4)
            expect_store(at(b, 4 * i), 4);
}

// Packed records: three 11-byte slots, two passes of each walk.
void stress_derived()
{
    pagesize = 4096;
    trace_begin();
    derived_dtype_test(nullptr, 35, 2);
    trace_end();
    watch_allocations();
    const void *b = block(0);
    auto store_fields = [b](uint32_t k) {
        expect_store(at(b, 11 * k), 1);
        expect_store(at(b, 11 * k + 1), 2);
        expect_store(at(b, 11 * k + 3), 4);
        expect_store(at(b, 11 * k + 7), 4);
    };
    walk(2, 3, 2, store_fields);
    walk(2, 3, 2, [b, store_fields](uint32_t k) {
        store_fields(k);
        expect_load(at(b, 11 * k), 1);
        expect_load(at(b, 11 * k + 1), 2);
        expect_load(at(b, 11 * k + 3), 4);
        expect_load(at(b, 11 * k + 7), 4);
    });
}

// Column reads: stride 24 gives 2 blocks, a 24-byte step and 6 columns.
void stress_readmiss()
{
    void *b = memalign(64, 64);
    trace_begin();
    cache_readmiss(b, 64, 24, 1);
    trace_end();
    watch(b, 64);
    for (uint32_t j = 0; j < 6; j++)
        for (uint32_t k = 0; k < 2; k++)
            expect_load(at(b, 4 * j + 24 * k), 4);
    expect_store(b, 4);
    free(b);
}

// The miss test over two 64-byte buffers with 16-byte lines and two ways:
// the six column kernels, then the set kernel in its four modes.
void stress_miss()
{
    pagesize = 4096;
    trace_begin();
    cache_miss_stress(nullptr, 32, 16, 2, 1);
    trace_end();
    watch_allocations();
    const void *ints = block(0);
    const void *fps = block(1);
    auto words = [ints](auto element) {
        for (uint32_t j = 0; j < 4; j++)
            for (uint32_t k = 0; k < 4; k++)
                element(at(ints, 4 * j + 16 * k));
    };
    auto doubles = [fps](auto element) {
        for (uint32_t j = 0; j < 2; j++)
            for (uint32_t k = 0; k < 4; k++)
                element(at(fps, 8 * j + 16 * k));
    };
    words([](const char *w) { expect_store(w, 4); });
    doubles([](const char *d) { expect_store(d, 8); });
    words([](const char *w) { expect_load(w, 4); });
    expect_store(ints, 4);
    words([](const char *w) {
        expect_load(w, 4);
        expect_store(w, 4);
    });
    words([](const char *w) {
        expect_store(w, 4);
        expect_load(w, 4);
    });
    expect_store(ints, 4);
    doubles([](const char *d) {
        expect_store(d, 8);
        expect_load(d, 8);
    });
    expect_store(fps, 8);
    // Two sets 16 bytes apart, the second way 32 bytes after the first.
    auto sets = [ints](auto action) {
        for (uint32_t s = 0; s < 2; s++)
            for (uint32_t w = 0; w < 2; w++)
                action(at(ints, 16 * s + 32 * w));
    };
    sets([](const char *w) { expect_store(w, 4); });
    sets([](const char *w) { expect_load(w, 4); });
    sets([](const char *w) {
        expect_store(w, 4);
        expect_load(w, 4);
    });
    sets([](const char *w) {
        expect_load(w, 4);
        expect_store(w, 4);
    });
}

// Random offsets in a 16-word buffer, two passes of each phase's list.
void stress_rand_off()
{
    void *b = memalign(64, 64);
    fake::script_lrand48({0x8001, 12, 3, 5, 3, 0x40, 8, 7, 9, 4, 11});
    trace_begin();
    cache_rand_off_stress(b, 64, 2);
    trace_end();
    watch(b, 64);
    for (int pass = 0; pass < 2; pass++)
        for (uint32_t w : {3, 5, 3})
            expect_store(at(b, 4 * w), 4);
    for (int pass = 0; pass < 2; pass++)
        for (uint32_t w : {7, 9}) {
            expect_store(at(b, 4 * w), 4);
            expect_load(at(b, 4 * w), 4);
        }
    for (int pass = 0; pass < 2; pass++)
        expect_load(at(b, 4 * 11), 4);
    free(b);
}

// The six march elements, each over every word in `order`.
template <typename Order>
void march_elements(Order order)
{
    for (int element = 0; element < 6; element++)
        order([element](const char *w) {
            if (element % 2 == 0)
                expect_store(w, 4);
            else
                expect_load(w, 4);
        });
}

// Row striding: 64 bytes of 16-byte lines, a word position of all four
// rows before the next position.
void stress_march_rows()
{
    pagesize = 4096;
    fake::script_lrand48({2});
    trace_begin();
    cache_march_stress1(nullptr, 32, 16, 1);
    trace_end();
    watch_allocations();
    const void *b = block(0);
    march_elements([b](auto access) {
        for (uint32_t column = 0; column < 4; column++)
            for (uint32_t row = 0; row < 4; row++)
                access(at(b, 16 * row + 4 * column));
    });
}

void stress_march_columns()
{
    pagesize = 4096;
    fake::script_lrand48({3});
    trace_begin();
    cache_march_stress2(nullptr, 32, 1);
    trace_end();
    watch_allocations();
    const void *b = block(0);
    march_elements([b](auto access) {
        for (uint32_t i = 0; i < 8; i++)
            access(at(b, 4 * i));
    });
}

// Random swap over two 64-byte buffers: one 32-byte block in each half-
// cache region, eight swap steps per pass, twelve passes.
void stress_crand()
{
    const uint32_t stride = 0x01234567;
    std::vector<long> draws = {0x1111};
    for (int pass = 1; pass <= 11; pass++)
        draws.push_back(stride);
    draws.push_back(0x2222);
    draws.push_back(stride);
    fake::script_lrand48(draws);
    trace_begin();
    crand(nullptr, 64);
    trace_end();
    watch_allocations();
    const void *c1 = block(0);
    const void *c2 = block(1);
    const uint32_t swap_stride = (stride << 16) | stride;
    for (int pass = 0; pass < 12; pass++) {
        for (const void *chunk : {c1, c2})
            for (uint32_t w = 0; w < 4; w++)
                expect_store(at(chunk, 4 * w), 4);
        uint32_t accumulator = 0;
        for (uint32_t step = 0; step < 8; step++, accumulator += swap_stride) {
            uint32_t i = (accumulator & 63) >> 3;
            expect_load(at(c1, 4 * i), 4);
            expect_store(at(c2, 4 * i), 4);
            expect_load(at(c2, 4 * i), 4);
            expect_store(at(c1, 4 * i), 4);
        }
        expect_load(at(c1, 12), 4);
        for (uint32_t w = 0; w < 4; w++)
            expect_store(at(c2, 4 * w), 4);
        expect_load(at(c2, 12), 4);
        for (uint32_t w = 0; w < 4; w++)
            expect_store(at(c1, 4 * w), 4);
    }
}

trace_case wrrdvr_case("stress_wrrdvr", stress_wrrdvr);
trace_case basic_case("stress_basic_dtype", stress_basic_dtype);
trace_case wrrdwr_case("stress_wrrdwr", stress_wrrdwr);
trace_case derived_case("stress_derived", stress_derived);
trace_case readmiss_case("stress_readmiss", stress_readmiss);
trace_case miss_case("stress_miss", stress_miss);
trace_case rand_off_case("stress_rand_off", stress_rand_off);
trace_case rows_case("stress_march_rows", stress_march_rows);
trace_case columns_case("stress_march_columns", stress_march_columns);
trace_case crand_case("stress_crand", stress_crand);

}  // namespace
