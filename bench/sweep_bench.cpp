// Speed of the localisation sweep's kernels against hand-unrolled 64-bit
// write-then-verify loops over the same buffer (the L2's size): one with a
// fixed pattern (for the moving inversions and the walking kernel), one with
// the random words' values, one with them set by set. Every row counts its
// bytes as such a loop would move them (a store and a load of every word per
// pass over the buffer), so a kernel's bytes per second over its
// reference's is its ratio; the kernels should keep 0.9 or more.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>

#include "localise.h"

namespace {

constexpr loc::l2_shape shape{1u << 20, 64, 8};
uint64_t *buffer()
{
    static void *block = aligned_alloc(shape.size / shape.ways, shape.size);
    return static_cast<uint64_t *>(block);
}

void reference_write_verify(benchmark::State &state)
{
    uint64_t *w = buffer();
    size_t n = shape.size / sizeof(uint64_t);
    uint64_t bad = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < n; i += 4) {
            static_cast<volatile uint64_t *>(w)[i] = 0x5555555555555555ULL;
            static_cast<volatile uint64_t *>(w)[i + 1] = 0x5555555555555555ULL;
            static_cast<volatile uint64_t *>(w)[i + 2] = 0x5555555555555555ULL;
            static_cast<volatile uint64_t *>(w)[i + 3] = 0x5555555555555555ULL;
        }
        for (size_t i = 0; i < n; i += 4) {
            bad |= static_cast<volatile uint64_t *>(w)[i] ^ 0x5555555555555555ULL;
            bad |= static_cast<volatile uint64_t *>(w)[i + 1] ^ 0x5555555555555555ULL;
            bad |= static_cast<volatile uint64_t *>(w)[i + 2] ^ 0x5555555555555555ULL;
            bad |= static_cast<volatile uint64_t *>(w)[i + 3] ^ 0x5555555555555555ULL;
        }
    }
    benchmark::DoNotOptimize(bad);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 * shape.size);
}

// The same, storing and verifying the random words' values, in the
// buffer's order and then set by set as the set-targeted kernel goes: the
// same accesses as those two kernels, for their ratios.
template <bool by_set>
void reference_drawn(benchmark::State &state)
{
    uint64_t *w = buffer();
    const size_t n = shape.size / sizeof(uint64_t), line = shape.line / sizeof(uint64_t), way = n / shape.ways;
    const uint64_t key = 0x0123456789ABCDEFULL;
    uint64_t bad = 0;
    auto pass = [&](size_t first, size_t last) {
        for (size_t i = first; i < last; i += 4) {
            static_cast<volatile uint64_t *>(w)[i] = loc::drawn_word(key, i);
            static_cast<volatile uint64_t *>(w)[i + 1] = loc::drawn_word(key, i + 1);
            static_cast<volatile uint64_t *>(w)[i + 2] = loc::drawn_word(key, i + 2);
            static_cast<volatile uint64_t *>(w)[i + 3] = loc::drawn_word(key, i + 3);
        }
    };
    auto verify = [&](size_t first, size_t last) {
        for (size_t i = first; i < last; i += 4) {
            bad |= static_cast<volatile uint64_t *>(w)[i] ^ loc::drawn_word(key, i);
            bad |= static_cast<volatile uint64_t *>(w)[i + 1] ^ loc::drawn_word(key, i + 1);
            bad |= static_cast<volatile uint64_t *>(w)[i + 2] ^ loc::drawn_word(key, i + 2);
            bad |= static_cast<volatile uint64_t *>(w)[i + 3] ^ loc::drawn_word(key, i + 3);
        }
    };
    for (auto _ : state) {
        if (!by_set) {
            pass(0, n);
            verify(0, n);
            continue;
        }
        for (size_t set = 0; set < way / line; set++) {
            for (size_t k = 0; k < shape.ways; k++)
                pass(k * way + set * line, k * way + (set + 1) * line);
            for (size_t k = 0; k < shape.ways; k++)
                verify(k * way + set * line, k * way + (set + 1) * line);
        }
    }
    benchmark::DoNotOptimize(bad);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 * shape.size);
}

// Passes of write-then-verify a kernel makes over the buffer.
double passes_of(int kernel)
{
    switch (kernel) {
    case loc::moving_inversions:
        return 3;  // a write, two verify-and-writes, a verify
    case loc::walking_bits:
        return 128;  // each lane at one, then at zero
    default:
        return 1;
    }
}

void kernel(benchmark::State &state)
{
    int k = static_cast<int>(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(loc::run_kernel(k, buffer(), shape, 42).misses);
    state.SetLabel(loc::kernel_name(k));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * passes_of(k) * 2 * shape.size));
}

}  // namespace

BENCHMARK(reference_write_verify);
BENCHMARK(reference_drawn<false>)->Name("reference_random_words");
BENCHMARK(reference_drawn<true>)->Name("reference_set_order");
BENCHMARK(kernel)->DenseRange(0, loc::kernel_count - 1);
BENCHMARK_MAIN();
