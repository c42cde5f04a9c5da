// Speed of tarneltest's subtests against the best loops this machine runs
// for the same access shapes.
//
// Every subtest runs at this machine's L2 geometry with one pass and reports
// the bytes its accesses move per second. Beside them, hand-unrolled
// volatile reference loops measure each access shape the subtests use
// (sequential 32-bit store, load and store-then-verify sweeps, line-stride
// column sweeps over twice the cache, 64-byte block stores and loads over
// the half-cache region, ...). A subtest's `ratio` counter is the time the
// reference loops take to move its traffic, shape by shape, over the time
// the subtest took: 1 is as fast as the machine does those shapes, and the
// allocation, locking and random draws a subtest makes around its loops
// count against it. References run first (registration order), so a
// filtered run that leaves out a subtest's references shows no ratio. Each
// row's traffic, shape by shape, also goes into the output's context, from
// which bench/report.py works the ratios out of the medians of interleaved
// repetitions (bench/report.sh regenerates docs/PERFORMANCE.md).
//
// Rows `passes:0` time a subtest with no pass (allocation, lock, draws,
// messages); the row after it shows `pass_ratio`, the ratio of the pass
// alone. Times are the benchmark thread's processor time.
//
// Run it unfiltered for figures to compare: the C library raises its mmap
// threshold after the write/read/verify test frees its large buffer, so the
// later subtests reuse memory already present, as they do in a run of the
// program; a filtered run that leaves that test out shows the others
// taking fresh pages (and page faults) on every call.
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "march/genmarch.h"
#include "stress/l2cache.h"
#include "util/l2_util.h"
#ifdef L2_FAULT_MODEL
#include "fault_model.h"
#endif

namespace {

// ---- Geometry -----------------------------------------------------------

struct geometry {
    uint32_t cache_size;
    uint32_t line_size;
    uint32_t ways;
};

enum : uint32_t {
    FALLBACK_CACHE_SIZE = 1u << 20,
    FALLBACK_LINE_SIZE = 64,
    FALLBACK_WAYS = 8,
    LARGEST_PLAUSIBLE_L2 = 64u << 20,
};

// This machine's L2 as the C library describes it, or 1 MiB / 64 / 8 when
// it gives nothing plausible.
geometry machine_geometry()
{
    long size = sysconf(_SC_LEVEL2_CACHE_SIZE);
    long line = sysconf(_SC_LEVEL2_CACHE_LINESIZE);
    long ways = sysconf(_SC_LEVEL2_CACHE_ASSOC);
    bool plausible = size > 0 && size <= long{LARGEST_PLAUSIBLE_L2} && line >= 16 && line <= 512 &&
                     (line & (line - 1)) == 0 && ways > 0 && size % line == 0;
    if (!plausible)
        return {FALLBACK_CACHE_SIZE, FALLBACK_LINE_SIZE, FALLBACK_WAYS};
    return {static_cast<uint32_t>(size), static_cast<uint32_t>(line), static_cast<uint32_t>(ways)};
}

geometry g;  // set once in main, before any benchmark is registered

// The three region sizes the subtests work on.
size_t whole() { return g.cache_size; }                       // one cache size
size_t twice() { return size_t{2} * g.cache_size; }           // twice the cache
size_t half() { return march_region_bytes(g.cache_size); }    // the half-cache region

// ---- Accesses of the reference loops ---------------------------------------
// The program's own access helpers: one volatile access each, exactly what
// the subtests make, so a ratio compares loops and not access kinds.

template <typename T>
inline T ld(const char *p)
{
    return l2_load<T>(p);
}

template <typename T>
inline void st(char *p, T v)
{
    l2_store<T>(p, v);
}

// op(base + k * pitch) for k = 0 .. count - 1, eight per loop turn.
template <typename Op>
inline void unrolled(char *base, size_t count, size_t pitch, Op op)
{
    size_t k = 0;
    for (; k + 8 <= count; k += 8) {
        char *p = base + k * pitch;
        op(p);
        op(p + pitch);
        op(p + 2 * pitch);
        op(p + 3 * pitch);
        op(p + 4 * pitch);
        op(p + 5 * pitch);
        op(p + 6 * pitch);
        op(p + 7 * pitch);
    }
    for (; k < count; k++)
        op(base + k * pitch);
}

// Column order over blocks of `stride` bytes: element j of every block
// before element j + 1 of any block.
template <typename Op>
inline void by_columns(char *base, size_t size, size_t stride, size_t width, Op op)
{
    size_t blocks = size / stride;
    for (size_t j = 0; j < stride / width; j++)
        unrolled(base + j * width, blocks, stride, op);
}

template <size_t... I>
inline void store_words(char *p, uint32_t v, std::index_sequence<I...>)
{
    (st<uint32_t>(p + 4 * I, v), ...);
}

template <size_t... I>
inline void load_words(const char *p, std::index_sequence<I...>)
{
    ((void)ld<uint32_t>(p + 4 * I), ...);
}

// ---- Reference loops ----------------------------------------------------
// Each takes its buffers (pre-faulted, page-aligned) and returns the bytes
// it moved; a verifying loop that sees a difference returns 0.

struct buffers {
    char *a;
    char *b;  // a second buffer of the same size (the swap walk, block copy)
    size_t size;
};

const uint32_t V = 0x5A5A5A5A;
std::vector<uint32_t> offset_list;  // 512 word offsets below cache_size / 4

double seq_store32(const buffers &m)
{
    unrolled(m.a, m.size / 4, 4, [](char *p) { st<uint32_t>(p, V); });
    return double(m.size / 4 * 4);
}

double seq_load32(const buffers &m)
{
    unrolled(m.a, m.size / 4, 4, [](char *p) { (void)ld<uint32_t>(p); });
    return double(m.size / 4 * 4);
}

double seq_verify32(const buffers &m)
{
    unrolled(m.a, m.size / 4, 4, [](char *p) { st<uint32_t>(p, V); });
    bool same = true;
    unrolled(m.a, m.size / 4, 4, [&same](char *p) { same &= ld<uint32_t>(p) == V; });
    return same ? double(m.size / 4 * 8) : 0;
}

double seq_store64(const buffers &m)
{
    unrolled(m.a, m.size / 8, 8, [](char *p) { st<double>(p, 0.75); });
    return double(m.size / 8 * 8);
}

double seq_store_check64(const buffers &m)
{
    bool same = true;
    unrolled(m.a, m.size / 8, 8, [&same](char *p) {
        st<double>(p, 1.5);
        same &= ld<double>(p) == 1.5;
    });
    return same ? double(m.size / 8 * 16) : 0;
}

// The packed record: fields of 1, 2, 4 and 4 bytes at 0, 1, 3, 7.
constexpr size_t RECORD = sizeof(derived_rec);

double record_store(const buffers &m)
{
    unrolled(m.a, m.size / RECORD, RECORD, [](char *p) {
        st<uint8_t>(p, 0);
        st<uint16_t>(p + 1, 0);
        st<uint32_t>(p + 3, 0);
        st<uint32_t>(p + 7, 0);
    });
    return double(m.size / RECORD * RECORD);
}

double record_store_check(const buffers &m)
{
    bool same = true;
    unrolled(m.a, m.size / RECORD, RECORD, [&same](char *p) {
        st<uint8_t>(p, 0);
        st<uint16_t>(p + 1, 0);
        st<uint32_t>(p + 3, 0);
        st<uint32_t>(p + 7, 0);
        same &= (ld<uint8_t>(p) | ld<uint16_t>(p + 1) | ld<uint32_t>(p + 3) | ld<uint32_t>(p + 7)) == 0;
    });
    return same ? double(m.size / RECORD * 2 * RECORD) : 0;
}

double column_bytes(size_t size, size_t stride, size_t width, int accesses)
{
    return double(size / stride * (stride / width) * width * accesses);
}

double column_load32_half_line(const buffers &m)
{
    size_t stride = g.line_size / 2;
    by_columns(m.a, m.size, stride, 4, [](char *p) { (void)ld<uint32_t>(p); });
    return column_bytes(m.size, stride, 4, 1);
}

double column_store32(const buffers &m)
{
    by_columns(m.a, m.size, g.line_size, 4, [](char *p) { st<uint32_t>(p, V); });
    return column_bytes(m.size, g.line_size, 4, 1);
}

double column_load32(const buffers &m)
{
    by_columns(m.a, m.size, g.line_size, 4, [](char *p) { (void)ld<uint32_t>(p); });
    return column_bytes(m.size, g.line_size, 4, 1);
}

double column_store64(const buffers &m)
{
    by_columns(m.a, m.size, g.line_size, 8, [](char *p) { st<double>(p, 0.75); });
    return column_bytes(m.size, g.line_size, 8, 1);
}

double column_load_store32(const buffers &m)
{
    by_columns(m.a, m.size, g.line_size, 4, [](char *p) { st<uint32_t>(p, ld<uint32_t>(p) * V); });
    return column_bytes(m.size, g.line_size, 4, 2);
}

double column_store_load32(const buffers &m)
{
    by_columns(m.a, m.size, g.line_size, 4, [](char *p) {
        st<uint32_t>(p, V);
        (void)ld<uint32_t>(p);
    });
    return column_bytes(m.size, g.line_size, 4, 2);
}

double column_store_load64(const buffers &m)
{
    by_columns(m.a, m.size, g.line_size, 8, [](char *p) {
        st<double>(p, 0.75);
        (void)ld<double>(p);
    });
    return column_bytes(m.size, g.line_size, 8, 2);
}

// The set-trashing walk: set by set, the word of each way in ascending
// order, the ways one way step apart so that they share a cache set.
template <typename Op>
inline void by_sets(char *base, size_t size, Op op)
{
    size_t sets = size / (size_t{g.ways} * g.line_size);
    size_t way_step = (size_t{g.line_size} * sets) & ~size_t{3};
    for (size_t set = 0; set < sets; set++)
        unrolled(base + set * (g.line_size & ~3u), g.ways, way_step, op);
}

double set_bytes(size_t size, int accesses)
{
    return double(size / (size_t{g.ways} * g.line_size) * g.ways * 4 * accesses);
}

double set_store32(const buffers &m)
{
    by_sets(m.a, m.size, [](char *p) { st<uint32_t>(p, V); });
    return set_bytes(m.size, 1);
}

double set_load32(const buffers &m)
{
    by_sets(m.a, m.size, [](char *p) { (void)ld<uint32_t>(p); });
    return set_bytes(m.size, 1);
}

double set_store_load32(const buffers &m)
{
    by_sets(m.a, m.size, [](char *p) {
        st<uint32_t>(p, V);
        (void)ld<uint32_t>(p);
    });
    return set_bytes(m.size, 2);
}

double set_load_store32(const buffers &m)
{
    by_sets(m.a, m.size, [](char *p) { st<uint32_t>(p, ld<uint32_t>(p) * V); });
    return set_bytes(m.size, 2);
}

// 64-byte blocks, sixteen 32-bit accesses each, lowest address first.
double block_store(const buffers &m)
{
    unrolled(m.a, m.size / 64, 64, [](char *p) { store_words(p, V, std::make_index_sequence<16>{}); });
    return double(m.size / 64 * 64);
}

double block_load(const buffers &m)
{
    unrolled(m.a, m.size / 64, 64, [](char *p) { load_words(p, std::make_index_sequence<16>{}); });
    return double(m.size / 64 * 64);
}

// 32-byte blocks touched in their first 16 bytes: stores of words 0 to 3,
// a load of word 3, and a load of word 3 of one buffer then stores of words
// 0 to 3 of the other.
double block32_store(const buffers &m)
{
    unrolled(m.a, m.size / 32, 32, [](char *p) { store_words(p, V, std::make_index_sequence<4>{}); });
    return double(m.size / 32 * 16);
}

double block32_load(const buffers &m)
{
    unrolled(m.a, m.size / 32, 32, [](char *p) { (void)ld<uint32_t>(p + 12); });
    return double(m.size / 32 * 4);
}

double block32_copy(const buffers &m)
{
    ptrdiff_t other = m.b - m.a;
    unrolled(m.a, m.size / 32, 32, [other](char *p) {
        (void)ld<uint32_t>(p + 12);
        store_words(p + other, V, std::make_index_sequence<4>{});
    });
    return double(m.size / 32 * 20);
}

// The random swap walk: a word index that advances by a fixed stride
// modulo the cache size, a load and a store in each of two buffers.
double swap_walk(const buffers &m)
{
    uint32_t steps = static_cast<uint32_t>(m.size / 8);
    uint32_t mask = static_cast<uint32_t>(m.size - 1);
    uint32_t accumulator = 0;
    const uint32_t stride = 0x2F4D2F4D;
    auto step = [&](uint32_t) {
        uint32_t i = (accumulator & mask) >> 3;
        (void)ld<uint32_t>(m.a + 4 * size_t{i});
        st<uint32_t>(m.b + 4 * size_t{i}, V);
        (void)ld<uint32_t>(m.b + 4 * size_t{i});
        st<uint32_t>(m.a + 4 * size_t{i}, V);
        accumulator += stride;
    };
    uint32_t k = 0;
    for (; k + 8 <= steps; k += 8) {
        step(0), step(1), step(2), step(3), step(4), step(5), step(6), step(7);
    }
    for (; k < steps; k++)
        step(k);
    return double(steps) * 16;
}

// A list of random word offsets walked in order: stores, store-and-check,
// loads.
template <typename Op>
inline void over_offsets(Op op)
{
    const uint32_t *o = offset_list.data();
    size_t n = offset_list.size();
    size_t e = 0;
    for (; e + 8 <= n; e += 8) {
        op(o[e]), op(o[e + 1]), op(o[e + 2]), op(o[e + 3]);
        op(o[e + 4]), op(o[e + 5]), op(o[e + 6]), op(o[e + 7]);
    }
    for (; e < n; e++)
        op(o[e]);
}

double offset_store(const buffers &m)
{
    over_offsets([&m](uint32_t w) { st<uint32_t>(m.a + 4 * size_t{w}, V); });
    return double(offset_list.size() * 4);
}

double offset_store_check(const buffers &m)
{
    bool same = true;
    over_offsets([&m, &same](uint32_t w) {
        st<uint32_t>(m.a + 4 * size_t{w}, V);
        same &= ld<uint32_t>(m.a + 4 * size_t{w}) == V;
    });
    return same ? double(offset_list.size() * 8) : 0;
}

double offset_load(const buffers &m)
{
    over_offsets([&m](uint32_t w) { (void)ld<uint32_t>(m.a + 4 * size_t{w}); });
    return double(offset_list.size() * 4);
}

// ---- Reference rates ----------------------------------------------------
// Keyed by shape and region size; the rates of the longest runs (Google
// Benchmark first calls a benchmark with few iterations to size it, then
// with about the same count in every repetition).

struct rate_record {
    int64_t iterations = 0;
    std::vector<double> rates;
};
std::map<std::string, rate_record> reference_rates;

std::string key(const std::string &shape, size_t region) { return shape + "/" + std::to_string(region); }

void record_rate(const std::string &k, int64_t iterations, double rate)
{
    rate_record &r = reference_rates[k];
    if (iterations > 2 * r.iterations)
        r.rates.clear();
    if (iterations > r.iterations)
        r.iterations = iterations;
    if (2 * iterations >= r.iterations)
        r.rates.push_back(rate);
}

// The median rate of a shape, or 0 when it has not run.
double reference_rate(const std::string &k)
{
    auto found = reference_rates.find(k);
    if (found == reference_rates.end() || found->second.rates.empty())
        return 0;
    std::vector<double> r = found->second.rates;
    std::sort(r.begin(), r.end());
    return r[r.size() / 2];
}

// The thread's own processor time, as Google Benchmark times by default:
// what other processes take from a shared machine does not count.
double cpu_seconds()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

char *page_aligned(size_t size)
{
    void *p = nullptr;
    if (posix_memalign(&p, 4096, size) != 0)
        return nullptr;
    std::memset(p, 0, size);  // fault every page in before timing
    return static_cast<char *>(p);
}

void run_reference(benchmark::State &state, const std::string &shape, size_t region,
                   double (*loop)(const buffers &))
{
    buffers m{page_aligned(region), page_aligned(region), region};
    if (m.a == nullptr || m.b == nullptr) {
        state.SkipWithError("no memory");
        return;
    }
    double bytes = 0;
    double start = cpu_seconds();
    for (auto _ : state)
        bytes = loop(m);
    double elapsed = cpu_seconds() - start;
    free(m.a);
    free(m.b);
    if (bytes == 0) {
        state.SkipWithError("the reference loop read back a different value");
        return;
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes * double(state.iterations())));
    record_rate(key(shape, region), state.iterations(), bytes * double(state.iterations()) / elapsed);
}

// ---- Subtests and their traffic -----------------------------------------
// The bytes a subtest's accesses move, by shape, as its description gives
// them: `passes` is the `iterations` argument.

struct component {
    std::string key;
    double bytes;
};
using traffic = std::vector<component>;

// Blocks visited by an ascending (or descending) march over the half-cache
// region: p = F, F + block, ... while p < F + region - block.
double march_blocks_visited(size_t block)
{
    size_t region = half();
    return region > block ? double((region - block + block - 1) / block) : 0;
}

// The kernels that only load store what they loaded last into the buffer's
// first element once, whatever the passes, so the loads cannot be dropped.
const double SINK32 = 4, SINK64 = 8;

traffic wrrdvr_traffic(uint32_t passes)
{
    double words = g.cache_size / 4;
    return {{key("seq_verify32", twice()), passes * words * 16}};
}

traffic hit_traffic(uint32_t passes)
{
    double words = g.cache_size / 4, dwords = g.cache_size / 8, slots = g.cache_size / sizeof(derived_rec);
    double strided = (g.cache_size / 4 + g.line_size - 1) / g.line_size;  // every line_size-th word
    double steps32 = words < 2 ? 0 : words - 1, steps64 = dwords < 2 ? 0 : dwords - 1;
    uint32_t stride = g.line_size / 2;
    double column_words = double(g.cache_size / stride) * (stride / 4);
    return {
        {key("seq_store32", whole()), passes * steps32 * 8 + words * 4 + passes * strided * 4},
        {key("seq_store64", whole()), passes * steps64 * 8},
        {key("seq_store_check64", whole()), passes * steps64 * 16},
        {key("seq_load32", whole()), passes * strided * 4},
        {key("record_store", whole()), passes * slots * sizeof(derived_rec)},
        {key("record_store_check", whole()), passes * slots * 2 * sizeof(derived_rec)},
        {key("column_load32_half_line", whole()), passes * column_words * 4 + SINK32},
    };
}

traffic miss_traffic(uint32_t passes)
{
    double words = double(twice() / g.line_size) * (g.line_size / 4) * 4 * passes;   // one 32-bit sweep
    double dwords = double(twice() / g.line_size) * (g.line_size / 8) * 8 * passes;  // one 64-bit sweep
    double set_words = 0;
    if (g.ways > 1)
        set_words = double(twice() / (size_t{g.ways} * g.line_size)) * g.ways * 4 * passes;
    return {
        {key("column_store32", twice()), words},
        {key("column_store64", twice()), dwords},
        {key("column_load32", twice()), words + SINK32},
        {key("column_load_store32", twice()), 2 * words},
        {key("column_store_load32", twice()), 2 * words + SINK32},
        {key("column_store_load64", twice()), 2 * dwords + SINK64},
        {key("set_store32", twice()), set_words},
        {key("set_load32", twice()), set_words},
        {key("set_store_load32", twice()), 2 * set_words},
        {key("set_load_store32", twice()), 2 * set_words},
    };
}

// Entries of a marker-terminated table of the program's: one pass each.
double table_entries(const uint32_t *table)
{
    double entries = 0;
    for (const uint32_t *entry = table; *entry != PATT_END; entry++)
        entries++;
    return entries;
}

traffic crand_traffic(uint32_t)
{
    double blocks = double(g.cache_size / 8 / 8);
    double steps = double(g.cache_size / 8);
    const double passes_made = table_entries(gen_ram_patt);
    return {
        {key("block32_store", half()), passes_made * 2 * blocks * 16},
        {key("swap_walk", whole()), passes_made * steps * 16},
        {key("block32_copy", half()), passes_made * 2 * blocks * 20},
    };
}

traffic interconnect_traffic(uint32_t passes)
{
    double sweep = 16.0 * passes * 2 * march_blocks_visited(64) * 64;
    return {{key("block_store", half()), sweep}, {key("block_load", half()), sweep}};
}

const double PATTERN_LAYOUTS = 10;  // update_pattern's modes 1 to 10

traffic march4_traffic(uint32_t)
{
    double v = march_blocks_visited(64);
    const double marches = PATTERN_LAYOUTS * table_entries(cache_patt);
    return {
        {key("block_store", half()), marches * 14 * v * 64},
        {key("block_load", half()), marches * (15 * v * 64 + v * 4)},
    };
}

traffic march3_traffic(uint32_t passes)
{
    double v = march_blocks_visited(32), marches = 6.0 * passes;
    return {
        {key("block32_store", half()), marches * 10 * v * 16},
        {key("block32_load", half()), marches * 16 * v * 4},
    };
}

traffic march1_traffic(uint32_t passes)
{
    double element = double(twice() / g.line_size) * (g.line_size / 4) * 4;
    return {
        {key("column_store32", twice()), 3.0 * passes * element},
        {key("column_load32", twice()), 3.0 * passes * element},
    };
}

traffic march2_traffic(uint32_t passes)
{
    double element = double(g.cache_size / 4) * 4;
    return {
        {key("seq_store32", whole()), 3.0 * passes * element},
        {key("seq_load32", whole()), 3.0 * passes * element},
    };
}

// The random offset test draws its three offset lists from the process-wide
// generator; seeding it before every call makes every call draw the same
// lists, whose lengths are worked out here by making the same draws.
const long OFFSET_SEED = 20240611;
uint32_t offset_entries[3];

void count_offset_entries()
{
    srand48(OFFSET_SEED);
    (void)lrand48();  // the first phase's pattern
    for (int phase = 0; phase < 3; phase++) {
        if (phase == 1)
            (void)lrand48();  // the second phase's pattern
        uint32_t size = ((static_cast<uint32_t>(lrand48()) & 0x7FF) + 3) & ~3u;
        offset_entries[phase] = size / 4;
        for (uint32_t e = 0; e < offset_entries[phase]; e++)
            (void)lrand48();
    }
}

traffic rand_off_traffic(uint32_t passes)
{
    return {
        {key("offset_store", whole()), 4.0 * passes * offset_entries[0]},
        {key("offset_store_check", whole()), 8.0 * passes * offset_entries[1]},
        {key("offset_load", whole()), 4.0 * passes * offset_entries[2]},
    };
}

char *rand_off_buffer;

// What the rows of one subtest measured, by pass count: processor seconds
// per call, and the seconds its reference loops take for the same traffic
// (negative when a reference did not run).
struct subtest_time {
    double seconds;
    double reference_seconds;
};
std::map<std::string, std::map<uint32_t, subtest_time>> subtest_times;

long minor_faults()
{
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_minflt;
}

// Counters of a subtest row: `ratio`, its reference time over its time;
// `pass_ratio`, the same for what the row adds over the subtest's row with
// the next lower pass count (for passes:1, the first pass without the
// allocation, locking and draws around it); `faults`, the page faults a
// call takes.
void run_subtest(benchmark::State &state, const std::string &name, const std::function<int(uint32_t)> &call,
                 const std::function<traffic(uint32_t)> &model, uint32_t passes, bool seeded)
{
    traffic t = model(passes);
    double bytes = 0;
    for (const component &c : t)
        bytes += c.bytes;
    long faults = minor_faults();
    double start = cpu_seconds();
    for (auto _ : state) {
        if (seeded)
            srand48(OFFSET_SEED);
        if (call(passes) != 0) {
            state.SkipWithError("the subtest failed");
            return;
        }
    }
    double per_call = (cpu_seconds() - start) / double(state.iterations());
    state.counters["faults"] = double(minor_faults() - faults) / double(state.iterations());
    if (bytes > 0)
        state.SetBytesProcessed(static_cast<int64_t>(bytes * double(state.iterations())));

    double reference_seconds = 0;
    for (const component &c : t) {
        if (c.bytes == 0)
            continue;
        double rate = reference_rate(c.key);
        if (rate == 0) {
            reference_seconds = -1;  // a reference that did not run: no ratio
            break;
        }
        reference_seconds += c.bytes / rate;
    }
    std::map<uint32_t, subtest_time> &rows = subtest_times[name];
    rows[passes] = {per_call, reference_seconds};
    if (reference_seconds <= 0 || passes == 0)
        return;
    state.counters["ratio"] = reference_seconds / per_call;
    auto self = rows.find(passes);
    if (self == rows.begin())
        return;
    const subtest_time &lower = std::prev(self)->second;
    if (lower.reference_seconds >= 0 && per_call > lower.seconds)
        state.counters["pass_ratio"] = (reference_seconds - lower.reference_seconds) / (per_call - lower.seconds);
}

// The traffic of a row, shape by shape, in the output's context
// ("traffic:<row>" = "<shape>/<region>=<bytes>;..."): bench/report.py works
// the ratios out from it and the rows' medians, which also holds when the
// repetitions are interleaved.
void describe_traffic(const std::string &row, const traffic &t)
{
    std::string text;
    for (const component &c : t) {
        if (c.bytes == 0)
            continue;
        char bytes[32];
        std::snprintf(bytes, sizeof bytes, "%.0f", c.bytes);
        text += (text.empty() ? "" : ";") + c.key + "=" + bytes;
    }
    benchmark::AddCustomContext("traffic:" + row, text);
}

void register_reference(const std::string &shape, size_t region, double (*loop)(const buffers &))
{
    benchmark::RegisterBenchmark(("ref/" + key(shape, region)).c_str(),
                                 [shape, region, loop](benchmark::State &s) { run_reference(s, shape, region, loop); })
        ->Unit(benchmark::kMicrosecond);
}

// Every subtest and kernel row, for the census.
struct row_def {
    std::string name;
    std::function<int(uint32_t)> call;
    std::function<traffic(uint32_t)> model;
    uint32_t passes;
    bool seeded;
};
std::vector<row_def> rows;

// Rows in ascending pass count, so that each can compare itself with the
// one before.
void register_subtest(const std::string &name, std::function<int(uint32_t)> call, traffic (*model)(uint32_t),
                      std::vector<uint32_t> passes, bool seeded = false)
{
    for (uint32_t p : passes) {
        std::string full = "subtest/" + name + (passes.size() > 1 ? "/passes:" + std::to_string(p) : "");
        describe_traffic(full, model(p));
        rows.push_back({full, call, model, p, seeded});
        benchmark::RegisterBenchmark(full.c_str(),
                                     [name, call, model, p, seeded](benchmark::State &s) {
                                         run_subtest(s, name, call, model, p, seeded);
                                     })
            ->Unit(benchmark::kMicrosecond);
    }
}

// The kernels of the cache miss test one by one, on a buffer of twice the
// cache that the row owns, so that the test's ratio can be read kernel by
// kernel.
char *miss_buffer;
const uint32_t MISS_PATTERN = 0x5A5A5A5A;
const double MISS_VALUE = 512.25;

double column_sweep_bytes(uint32_t width) { return double(twice() / g.line_size) * (g.line_size / width) * width; }

double set_sweep_bytes()
{
    return g.ways > 1 ? double(twice() / (size_t{g.ways} * g.line_size)) * g.ways * 4 : 0;
}

// A kernel row: its traffic per pass is `bytes` in the reference shape
// `shape` over twice the cache, plus `sink` once.
void register_kernel(const std::string &name, std::function<int(uint32_t)> call, const std::string &shape,
                     double bytes, double sink = 0)
{
    std::function<traffic(uint32_t)> model = [shape, bytes, sink](uint32_t n) {
        return traffic{{key(shape, twice()), n * bytes + sink}};
    };
    describe_traffic("kernel/" + name, model(1));
    rows.push_back({"kernel/" + name, call, model, 1, false});
    benchmark::RegisterBenchmark(("kernel/" + name).c_str(),
                                 [name, call, model](benchmark::State &s) {
                                     run_subtest(s, "kernel/" + name, call, model, 1, false);
                                 })
        ->Unit(benchmark::kMicrosecond);
}

void register_miss_kernels()
{
    uint32_t size = static_cast<uint32_t>(twice());
    uint32_t line = g.line_size;
    double words = column_sweep_bytes(4), dwords = column_sweep_bytes(8);
    register_kernel(
        "cache_writemiss",
        [size, line](uint32_t n) { return cache_writemiss(miss_buffer, size, line, n, MISS_PATTERN); },
        "column_store32", words);
    register_kernel(
        "cache_writemissfp",
        [size, line](uint32_t n) { return cache_writemissfp(miss_buffer, size, line, n, MISS_VALUE); },
        "column_store64", dwords);
    register_kernel(
        "cache_readmiss", [size, line](uint32_t n) { return cache_readmiss(miss_buffer, size, line, n); },
        "column_load32", words, SINK32);
    register_kernel(
        "cache_readmiss_write",
        [size, line](uint32_t n) { return cache_readmiss_write(miss_buffer, size, line, n, MISS_PATTERN); },
        "column_load_store32", 2 * words);
    register_kernel(
        "cache_writemiss_read",
        [size, line](uint32_t n) { return cache_writemiss_read(miss_buffer, size, line, n, MISS_PATTERN); },
        "column_store_load32", 2 * words, SINK32);
    register_kernel(
        "cache_writemissfp_read",
        [size, line](uint32_t n) { return cache_writemissfp_read(miss_buffer, size, line, n, MISS_VALUE); },
        "column_store_load64", 2 * dwords, SINK64);
    // The modes store, load, store then load, load then store.
    const char *shapes[] = {"set_store32", "set_load32", "set_store_load32", "set_load_store32"};
    for (int mode = 1; mode <= 4; mode++) {
        register_kernel(
            "cache_sets_trash/mode:" + std::to_string(mode),
            [size, line, mode](uint32_t n) {
                return cache_sets_trash(miss_buffer, size, line, g.ways, n, MISS_PATTERN, mode);
            },
            shapes[mode - 1], (mode <= 2 ? 1 : 2) * set_sweep_bytes());
    }
}

void register_all()
{
    register_reference("seq_store32", whole(), seq_store32);
    register_reference("seq_load32", whole(), seq_load32);
    register_reference("seq_verify32", twice(), seq_verify32);
    register_reference("seq_store64", whole(), seq_store64);
    register_reference("seq_store_check64", whole(), seq_store_check64);
    register_reference("record_store", whole(), record_store);
    register_reference("record_store_check", whole(), record_store_check);
    register_reference("column_load32_half_line", whole(), column_load32_half_line);
    register_reference("column_store32", twice(), column_store32);
    register_reference("column_load32", twice(), column_load32);
    register_reference("column_store64", twice(), column_store64);
    register_reference("column_load_store32", twice(), column_load_store32);
    register_reference("column_store_load32", twice(), column_store_load32);
    register_reference("column_store_load64", twice(), column_store_load64);
    register_reference("set_store32", twice(), set_store32);
    register_reference("set_load32", twice(), set_load32);
    register_reference("set_store_load32", twice(), set_store_load32);
    register_reference("set_load_store32", twice(), set_load_store32);
    register_reference("block_store", half(), block_store);
    register_reference("block_load", half(), block_load);
    register_reference("block32_store", half(), block32_store);
    register_reference("block32_load", half(), block32_load);
    register_reference("block32_copy", half(), block32_copy);
    register_reference("swap_walk", whole(), swap_walk);
    register_reference("offset_store", whole(), offset_store);
    register_reference("offset_store_check", whole(), offset_store_check);
    register_reference("offset_load", whole(), offset_load);

    // In the order the per-processor sequence runs them.
    register_subtest(
        "cache_wrrdvr_stress", [](uint32_t n) { return cache_wrrdvr_stress(nullptr, g.cache_size, g.ways, n); },
        wrrdvr_traffic, {0, 1, 64});
    register_subtest(
        "cache_hit_stress", [](uint32_t n) { return cache_hit_stress(nullptr, g.cache_size, g.line_size, n); },
        hit_traffic, {0, 1});
    register_subtest(
        "cache_miss_stress",
        [](uint32_t n) { return cache_miss_stress(nullptr, g.cache_size, g.line_size, g.ways, n); }, miss_traffic,
        {0, 1});
    register_subtest("crand", [](uint32_t) { return crand(nullptr, g.cache_size); }, crand_traffic, {1});
    register_subtest(
        "cache_interconnect_stress", [](uint32_t n) { return cache_interconnect_stress(nullptr, g.cache_size, n); },
        interconnect_traffic, {0, 1});
    register_subtest(
        "cache_march_stress4", [](uint32_t) { return cache_march_stress4(nullptr, g.cache_size); }, march4_traffic,
        {1});
    register_subtest(
        "cache_march_stress3", [](uint32_t n) { return cache_march_stress3(nullptr, g.cache_size, n); },
        march3_traffic, {0, 1});
    register_subtest(
        "cache_march_stress1",
        [](uint32_t n) { return cache_march_stress1(nullptr, g.cache_size, g.line_size, n); }, march1_traffic,
        {0, 1});
    register_subtest(
        "cache_march_stress2", [](uint32_t n) { return cache_march_stress2(nullptr, g.cache_size, n); },
        march2_traffic, {0, 1});
    // The sequence hands the random offset test its buffer; a thousand
    // passes show the pass loops once the list draws are spread out. The
    // write/read/verify test's 63 passes after the first show its loops once
    // the first has faulted its fresh pages in.
    register_subtest(
        "cache_rand_off_stress",
        [](uint32_t n) { return cache_rand_off_stress(rand_off_buffer, g.cache_size, n); }, rand_off_traffic,
        {0, 1, 1000}, true);
    register_miss_kernels();
}

}  // namespace

#ifdef L2_FAULT_MODEL
// The census (tarnel_bench_census, the program in its fault-model build):
// every row's call once, its accesses counted as the access helpers make
// them, against the traffic its model gives. A kernel changed without its
// model fails here instead of skewing the ratios.
int census()
{
    int wrong = 0;
    for (const row_def &r : rows) {
        double counted = 0, modelled = 0;
        fault::reset();
        fault::on_access([&counted](const void *, unsigned width, bool) { counted += width; });
        if (r.seeded)
            srand48(OFFSET_SEED);
        int status = r.call(r.passes);
        fault::reset();
        for (const component &c : r.model(r.passes))
            modelled += c.bytes;
        std::printf("%-52s %14.0f bytes counted, %14.0f modelled%s\n", r.name.c_str(), counted, modelled,
                    counted == modelled && status == 0 ? "" : "  <- differs");
        wrong += counted != modelled || status != 0;
    }
    return wrong == 0 ? 0 : 1;
}
#endif

int main(int argc, char **argv)
{
    g = machine_geometry();
#ifdef L2_FAULT_MODEL
    g = {64 * 1024, 64, 8};  // every shape, at the speed of the simulated memory
#endif
    pagesize = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
    rand_off_buffer = page_aligned(g.cache_size);
    miss_buffer = page_aligned(twice());
    std::mt19937 draws(1);
    for (int e = 0; e < 512; e++)
        offset_list.push_back(static_cast<uint32_t>(draws() % (g.cache_size / 4)));
    count_offset_entries();

    benchmark::AddCustomContext("l2_cache_size", std::to_string(g.cache_size));
    benchmark::AddCustomContext("l2_line_size", std::to_string(g.line_size));
    benchmark::AddCustomContext("l2_ways", std::to_string(g.ways));
    benchmark::AddCustomContext("offset_list_entries", std::to_string(offset_entries[0]) + "," +
                                                           std::to_string(offset_entries[1]) + "," +
                                                           std::to_string(offset_entries[2]));
    register_all();
#ifdef L2_FAULT_MODEL
    return census();
#endif
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    free(rand_off_buffer);
    free(miss_buffer);
    return 0;
}
