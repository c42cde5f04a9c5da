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
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "rows.h"
#include "util/l2_util.h"

namespace {

using namespace bench;

// ---- Geometry -----------------------------------------------------------

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
// A row's traffic is the bytes its accesses move, shape by shape. Nothing
// here works it out: the census (bench/census.cpp, the same rows in the
// program's counting build) counts every access a row makes and puts it in
// the shape named for the kernel that made it, and the benchmark takes its
// figures at this machine's geometry.

struct component {
    std::string key;
    double bytes;
};
using traffic = std::vector<component>;

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
void run_subtest(benchmark::State &state, const row_def &r, const std::optional<traffic> &t)
{
    double bytes = 0;
    for (const component &c : t.value_or(traffic{}))
        bytes += c.bytes;
    long faults = minor_faults();
    double start = cpu_seconds();
    for (auto _ : state) {
        if (call_row(r) != 0) {
            state.SkipWithError("the subtest failed");
            return;
        }
    }
    double per_call = (cpu_seconds() - start) / double(state.iterations());
    state.counters["faults"] = double(minor_faults() - faults) / double(state.iterations());
    if (bytes > 0)
        state.SetBytesProcessed(static_cast<int64_t>(bytes * double(state.iterations())));

    double reference_seconds = t ? 0 : -1;  // no census: no ratio
    for (const component &c : t.value_or(traffic{})) {
        double rate = reference_rate(c.key);
        if (rate == 0) {
            reference_seconds = -1;  // a reference that did not run: no ratio
            break;
        }
        reference_seconds += c.bytes / rate;
    }
    std::map<uint32_t, subtest_time> &times = subtest_times[r.name.substr(0, r.name.find("/passes:"))];
    times[r.passes] = {per_call, reference_seconds};
    if (reference_seconds <= 0 || r.passes == 0)
        return;
    state.counters["ratio"] = reference_seconds / per_call;
    auto self = times.find(r.passes);
    if (self == times.begin())
        return;
    const subtest_time &lower = std::prev(self)->second;
    if (lower.reference_seconds >= 0 && per_call > lower.seconds)
        state.counters["pass_ratio"] = (reference_seconds - lower.reference_seconds) / (per_call - lower.seconds);
}

std::set<std::string> references;  // the keys of every reference loop

void register_reference(const std::string &shape, size_t region, double (*loop)(const buffers &))
{
    references.insert(key(shape, region));
    benchmark::RegisterBenchmark(("ref/" + key(shape, region)).c_str(),
                                 [shape, region, loop](benchmark::State &s) { run_reference(s, shape, region, loop); })
        ->Unit(benchmark::kMicrosecond);
}

// The rows' traffic from the census at this machine's geometry; none (and
// so no ratios) when the census is not built or fails.
std::map<std::string, traffic> census_traffic()
{
    std::map<std::string, traffic> found;
#ifdef TARNEL_CENSUS
    std::string command = std::string(TARNEL_CENSUS) + " " + std::to_string(g.cache_size) + " " +
                          std::to_string(g.line_size) + " " + std::to_string(g.ways);
    FILE *census = popen(command.c_str(), "r");
    char line[8192];
    while (census != nullptr && std::fgets(line, sizeof line, census) != nullptr) {
        std::string text(line);
        size_t tab = text.find('\t');
        if (tab == std::string::npos)
            continue;
        traffic &t = found[text.substr(0, tab)];
        for (size_t at = tab + 1; at < text.size();) {
            size_t end = text.find_first_of(";\n", at);
            size_t equals = text.find('=', at);
            if (equals < end)
                t.push_back({text.substr(at, equals - at), std::atof(text.c_str() + equals + 1)});
            at = end == std::string::npos ? text.size() : end + 1;
        }
    }
    if (census == nullptr || pclose(census) != 0)
        found.clear();
#endif
    if (found.empty())
        std::fprintf(stderr, "tarnel_bench: no traffic census, so no ratios (build tarnel_bench_census)\n");
    return found;
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

    // The traffic of each row, shape by shape, also goes into the output's
    // context ("traffic:<row>" = "<shape>/<region>=<bytes>;..."): bench/report.py
    // works the ratios out from it and the rows' medians, which also holds
    // when the repetitions are interleaved.
    std::map<std::string, traffic> traffic_of = census_traffic();
    for (const row_def &r : rows) {
        auto counted = traffic_of.find(r.name);
        std::optional<traffic> t;
        if (counted != traffic_of.end()) {
            t = counted->second;
            std::string text;
            for (const component &c : *t) {
                if (!references.contains(c.key)) {
                    std::fprintf(stderr, "tarnel_bench: %s: the census names %s, which no reference loop measures\n",
                                 r.name.c_str(), c.key.c_str());
                    std::exit(1);
                }
                text += (text.empty() ? "" : ";") + c.key + "=" + std::to_string(static_cast<long long>(c.bytes));
            }
            benchmark::AddCustomContext("traffic:" + r.name, text);
        }
        benchmark::RegisterBenchmark(r.name.c_str(), [&r, t](benchmark::State &s) { run_subtest(s, r, t); })
            ->Unit(benchmark::kMicrosecond);
    }
}

}  // namespace

int main(int argc, char **argv)
{
    prepare(machine_geometry());
    std::mt19937 draws(1);
    for (int e = 0; e < 512; e++)
        offset_list.push_back(static_cast<uint32_t>(draws() % (g.cache_size / 4)));

    benchmark::AddCustomContext("l2_cache_size", std::to_string(g.cache_size));
    benchmark::AddCustomContext("l2_line_size", std::to_string(g.line_size));
    benchmark::AddCustomContext("l2_ways", std::to_string(g.ways));
    register_all();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    free(rand_off_buffer);
    free(miss_buffer);
    return 0;
}
