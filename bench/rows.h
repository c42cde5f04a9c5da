// The rows that the benchmark times and the census counts: every subtest
// at a few pass counts, and the cache miss test's kernels one by one, at
// one L2 geometry.
#ifndef TARNEL_BENCH_ROWS_H
#define TARNEL_BENCH_ROWS_H

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "march/genmarch.h"
#include "stress/l2cache.h"

namespace bench {

struct geometry {
    uint32_t cache_size;
    uint32_t line_size;
    uint32_t ways;
};

inline geometry g;  // set once, before any row is added

// The three region sizes the subtests work on.
inline size_t whole() { return g.cache_size; }                   // one cache size
inline size_t twice() { return size_t{2} * g.cache_size; }         // twice the cache
inline size_t half() { return march_region_bytes(g.cache_size); }  // the half-cache region

// A reference shape over a region: "seq_store32/1048576".
inline std::string key(const std::string &shape, size_t region) { return shape + "/" + std::to_string(region); }

inline char *page_aligned(size_t size)
{
    void *p = nullptr;
    if (posix_memalign(&p, 4096, size) != 0)
        return nullptr;
    std::memset(p, 0, size);  // fault every page in before timing
    return static_cast<char *>(p);
}

// The random offset test draws its three offset lists from the process-wide
// generator; seeding it before every call makes every call draw the same
// lists, in the census as in the timed rows.
inline const long OFFSET_SEED = 20240611;

// A subtest or kernel row: the call, with its pass count; `subtest` is the
// subtest whose shapes it makes (a kernel row, the subtest it belongs to).
struct row_def {
    std::string name;
    std::string subtest;
    std::function<int(uint32_t)> call;
    uint32_t passes;
    bool seeded;
};
inline std::vector<row_def> rows;

inline int call_row(const row_def &r)
{
    if (r.seeded)
        srand48(OFFSET_SEED);
    return r.call(r.passes);
}

// Rows in ascending pass count, so that each can compare itself with the
// one before.
inline void add_subtest(const std::string &name, std::function<int(uint32_t)> call, std::vector<uint32_t> passes,
                        bool seeded = false)
{
    for (uint32_t p : passes)
        rows.push_back({"subtest/" + name + (passes.size() > 1 ? "/passes:" + std::to_string(p) : ""), name, call, p,
                        seeded});
}

// The kernels of the cache miss test one by one, on a buffer of twice the
// cache that the row owns, so that the test's ratio can be read kernel by
// kernel.
inline char *miss_buffer;
inline const uint32_t MISS_PATTERN = 0x5A5A5A5A;
inline const double MISS_VALUE = 512.25;

inline void add_miss_kernel(const std::string &name, std::function<int(uint32_t)> call)
{
    rows.push_back({"kernel/" + name, "cache_miss_stress", std::move(call), 1, false});
}

inline void add_miss_kernels()
{
    uint32_t size = static_cast<uint32_t>(twice());
    uint32_t line = g.line_size;
    add_miss_kernel("cache_writemiss",
                    [size, line](uint32_t n) { return cache_writemiss(miss_buffer, size, line, n, MISS_PATTERN); });
    add_miss_kernel("cache_writemissfp",
                    [size, line](uint32_t n) { return cache_writemissfp(miss_buffer, size, line, n, MISS_VALUE); });
    add_miss_kernel("cache_readmiss", [size, line](uint32_t n) { return cache_readmiss(miss_buffer, size, line, n); });
    add_miss_kernel("cache_readmiss_write", [size, line](uint32_t n) {
        return cache_readmiss_write(miss_buffer, size, line, n, MISS_PATTERN);
    });
    add_miss_kernel("cache_writemiss_read", [size, line](uint32_t n) {
        return cache_writemiss_read(miss_buffer, size, line, n, MISS_PATTERN);
    });
    add_miss_kernel("cache_writemissfp_read", [size, line](uint32_t n) {
        return cache_writemissfp_read(miss_buffer, size, line, n, MISS_VALUE);
    });
    // The modes store, load, store then load, load then store.
    for (int mode = 1; mode <= 4; mode++)
        add_miss_kernel("cache_sets_trash/mode:" + std::to_string(mode), [size, line, mode](uint32_t n) {
            return cache_sets_trash(miss_buffer, size, line, g.ways, n, MISS_PATTERN, mode);
        });
}

inline char *rand_off_buffer;

inline void add_rows()
{
    // In the order the per-processor sequence runs them.
    add_subtest(
        "cache_wrrdvr_stress", [](uint32_t n) { return cache_wrrdvr_stress(nullptr, g.cache_size, g.ways, n); },
        {0, 1, 64});
    add_subtest(
        "cache_hit_stress", [](uint32_t n) { return cache_hit_stress(nullptr, g.cache_size, g.line_size, n); },
        {0, 1});
    add_subtest(
        "cache_miss_stress",
        [](uint32_t n) { return cache_miss_stress(nullptr, g.cache_size, g.line_size, g.ways, n); }, {0, 1});
    add_subtest("crand", [](uint32_t) { return crand(nullptr, g.cache_size); }, {1});
    add_subtest(
        "cache_interconnect_stress", [](uint32_t n) { return cache_interconnect_stress(nullptr, g.cache_size, n); },
        {0, 1});
    add_subtest("cache_march_stress4", [](uint32_t) { return cache_march_stress4(nullptr, g.cache_size); }, {1});
    add_subtest(
        "cache_march_stress3", [](uint32_t n) { return cache_march_stress3(nullptr, g.cache_size, n); }, {0, 1});
    add_subtest(
        "cache_march_stress1",
        [](uint32_t n) { return cache_march_stress1(nullptr, g.cache_size, g.line_size, n); }, {0, 1});
    add_subtest(
        "cache_march_stress2", [](uint32_t n) { return cache_march_stress2(nullptr, g.cache_size, n); }, {0, 1});
    // The sequence hands the random offset test its buffer; a thousand
    // passes show the pass loops once the list draws are spread out. The
    // write/read/verify test's 63 passes after the first show its loops once
    // the first has faulted its fresh pages in.
    add_subtest(
        "cache_rand_off_stress", [](uint32_t n) { return cache_rand_off_stress(rand_off_buffer, g.cache_size, n); },
        {0, 1, 1000}, true);
    add_miss_kernels();
}

inline void prepare(geometry machine)
{
    g = machine;
    pagesize = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
    rand_off_buffer = page_aligned(g.cache_size);
    miss_buffer = page_aligned(twice());
    add_rows();
}

}  // namespace bench

#endif
