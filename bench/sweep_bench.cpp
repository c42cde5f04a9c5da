// Speed of the localisation sweep's kernels against hand-unrolled 64-bit
// write-then-verify loops making the same accesses over the same buffer
// (the L2's size), each kernel's row its `ratio`; the kernels should keep
// 0.9 or more.
#include <benchmark/benchmark.h>

#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "localise.h"

namespace {

constexpr loc::l2_shape shape{1u << 20, 64, 8};
uint64_t *buffer()
{
    static void *block = aligned_alloc(shape.size / shape.ways, shape.size);
    return static_cast<uint64_t *>(block);
}

// One pass of a hand-unrolled write-then-verify loop over [first, last) of
// the buffer, storing and verifying value_of(i); what it read wrong.
template <typename F>
uint64_t unrolled_pass(uint64_t *w, size_t first, size_t last, F value_of)
{
    uint64_t bad = 0;
    for (size_t i = first; i < last; i += 4) {
        static_cast<volatile uint64_t *>(w)[i] = value_of(i);
        static_cast<volatile uint64_t *>(w)[i + 1] = value_of(i + 1);
        static_cast<volatile uint64_t *>(w)[i + 2] = value_of(i + 2);
        static_cast<volatile uint64_t *>(w)[i + 3] = value_of(i + 3);
    }
    for (size_t i = first; i < last; i += 4) {
        bad |= static_cast<volatile uint64_t *>(w)[i] ^ value_of(i);
        bad |= static_cast<volatile uint64_t *>(w)[i + 1] ^ value_of(i + 1);
        bad |= static_cast<volatile uint64_t *>(w)[i + 2] ^ value_of(i + 2);
        bad |= static_cast<volatile uint64_t *>(w)[i + 3] ^ value_of(i + 3);
    }
    return bad;
}

// The reference of a kernel: the same accesses, hand-unrolled, once over
// the buffer (a fixed pattern for the moving inversions and the walking
// kernel, per pass they make; the random words' values, in the buffer's
// order or set by set as the set-targeted kernel goes).
uint64_t reference(int kernel)
{
    uint64_t *w = buffer();
    const size_t n = shape.size / sizeof(uint64_t), line = shape.line / sizeof(uint64_t), way = n / shape.ways;
    const uint64_t key = 0x0123456789ABCDEFULL;
    auto fixed = [](size_t) { return uint64_t{0x5555555555555555ULL}; };
    auto drawn = [key](size_t i) { return loc::drawn_word(key, i); };
    uint64_t bad = 0;
    if (kernel == loc::random_words)
        return unrolled_pass(w, 0, n, drawn);
    if (kernel == loc::set_targeted) {
        for (size_t set = 0; set < way / line; set++)
            for (size_t k = 0; k < shape.ways; k++)
                bad |= unrolled_pass(w, k * way + set * line, k * way + (set + 1) * line, drawn);
        return bad;
    }
    for (int pass = 0; pass < (kernel == loc::walking_bits ? 128 : 3); pass++)
        bad |= unrolled_pass(w, 0, n, fixed);
    return bad;
}

double seconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec + now.tv_nsec * 1e-9;
}

// A kernel and its reference in turn, pair by pair, so that a change of
// the machine's speed meets both: `ratio` is the median of the reference's
// time over the kernel's (1: as fast as the hand-unrolled loop).
void kernel_against_reference(benchmark::State &state)
{
    int k = static_cast<int>(state.range(0));
    std::vector<double> ratios;
    uint64_t sink = 0;
    for (auto _ : state) {
        double t0 = seconds();
        sink |= reference(k);
        double t1 = seconds();
        sink |= static_cast<uint64_t>(loc::run_kernel(k, buffer(), shape, 42).misses);
        double t2 = seconds();
        ratios.push_back((t1 - t0) / (t2 - t1));
        state.SetIterationTime(t2 - t1);
    }
    benchmark::DoNotOptimize(sink);
    std::nth_element(ratios.begin(), ratios.begin() + ratios.size() / 2, ratios.end());
    state.counters["ratio"] = ratios[ratios.size() / 2];
    state.SetLabel(loc::kernel_name(k));
}

}  // namespace

BENCHMARK(kernel_against_reference)->DenseRange(0, loc::kernel_count - 1)->UseManualTime();
BENCHMARK_MAIN();
