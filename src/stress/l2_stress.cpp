#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "driver/tarnel.h"
#include "harness/testinfo.h"
#include "march/genmarch.h"
#include "platform.h"
#include "stress/l2cache.h"
#include "util/l2_util.h"

std::atomic<uint32_t> pagesize;

namespace {

const char tag[] = "l2cache";

struct l2_geometry {
    uint32_t cache_size;
    uint32_t line_size;
    uint32_t ways;
};

// The second-level cache of this processor: descriptor 4, else descriptor 2,
// else the defaults (announced with message 41). All three values come from
// one source.
l2_geometry choose_geometry(int cpu)
{
    uint32_t *record = nullptr;
    int retval = dxt_tlib_get_cpu_cacheinfo(cpu, &record);
    if (retval == 0) {
        const uint32_t *desc = cache_descriptor(record, 4);
        if (desc[CACHEINFO_SIZE] == 0)
            desc = cache_descriptor(record, 2);
        if (desc[CACHEINFO_SIZE] != 0)
            return {desc[CACHEINFO_SIZE], desc[CACHEINFO_LINE], desc[CACHEINFO_WAYS]};
    }
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_GEOMETRY_DEFAULTS, "dxt_tlib_get_cpu_cacheinfo()", cpu, retval,
                retval == -1 ? dxt_tlib_get_init_errmsg() : "");
    return {L2_DEFAULT_CACHE_SIZE, L2_DEFAULT_LINE_SIZE, L2_DEFAULT_WAYS};
}

// The last subtest: its buffer belongs to the sequence.
int run_random_offset(uint32_t cache_size, uint32_t passes)
{
    l2_buffer buffer;
    if (!buffer.allocate(pagesize, cache_size))
        return L2_NO_MEMORY;
    buffer.lock(tag, "cache_miss mlock failed!!\n", "cache_miss munlock failed!!\n");
    return cache_rand_off_stress(buffer.get(), cache_size, passes);
}

int run_subtests(const l2_geometry &g, uint32_t passes)
{
    int status = L2_PASSED;
    if ((test_mask & TEST_WRRDVR) && (status = cache_wrrdvr_stress(nullptr, g.cache_size, g.ways, passes)) != 0)
        return status;
    if ((test_mask & TEST_CACHE_HIT) &&
        (status = cache_hit_stress(nullptr, g.cache_size, g.line_size, passes)) != 0)
        return status;
    if ((test_mask & TEST_CACHE_MISS) &&
        (status = cache_miss_stress(nullptr, g.cache_size, g.line_size, g.ways, passes)) != 0)
        return status;
    if ((test_mask & TEST_RANDOM_SWAP) && (status = crand(nullptr, g.cache_size)) != 0)
        return status;
    if ((test_mask & TEST_INTERCONNECT) &&
        (status = cache_interconnect_stress(nullptr, g.cache_size, passes)) != 0)
        return status;
    if (test_mask & TEST_MARCHES) {
        if ((status = cache_march_stress4(nullptr, g.cache_size)) != 0)
            return status;
        if ((status = cache_march_stress3(nullptr, g.cache_size, passes)) != 0)
            return status;
        if ((status = cache_march_stress1(nullptr, g.cache_size, g.line_size, passes)) != 0)
            return status;
        if ((status = cache_march_stress2(nullptr, g.cache_size, passes)) != 0)
            return status;
    }
    if (test_mask & TEST_RANDOM_OFFSET)
        status = run_random_offset(g.cache_size, passes);
    return status;
}

}  // namespace

void *l2cache_stress(void *cpu_arg)
{
    int cpu = static_cast<int>(reinterpret_cast<intptr_t>(cpu_arg));
    pagesize = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));

    l2_geometry geometry = choose_geometry(cpu);
    // The kernels divide by the line size and the sets kernel by the ways:
    // a descriptor that leaves either at 0 gets the defaults for them.
    if (geometry.line_size == 0)
        geometry.line_size = L2_DEFAULT_LINE_SIZE;
    if (geometry.ways == 0)
        geometry.ways = L2_DEFAULT_WAYS;
    uint32_t passes = static_cast<uint32_t>(iterations);

    int vendor = dxt_tlib_get_x86_vendor(cpu);
    if (vendor != VENDOR_INTEL && vendor != VENDOR_AMD)
        dxt_message(DXT_FATAL, LVL_FATAL, nullptr, MSG_UNKNOWN_VENDOR);

    lock2cpu(cpu);
    dxt_message(DXT_RETURN, LVL_DEBUG, tag, MSG_FREE_TEXT,
                "Cache Access stress for cache_size %x line_size %x num_loops %d\n", geometry.cache_size,
                geometry.line_size, iterations);

    int status = run_subtests(geometry, passes);
    thr_exit(reinterpret_cast<void *>(static_cast<intptr_t>(status)));
    return nullptr;
}

// ---- The access-pattern stress tests ----------------------------------------
// Every access to test memory goes through the helpers of util/l2_util.h: one
// volatile access of the stated width each, so a load whose value is unused
// still happens and a read-back comes from memory.

namespace {

enum : uint32_t {
    WRRDVR_ATTEMPTS = 5,         // memalign tries of the write/read/verify test
    RANDOM_WORD_MODULUS = 0xFFFFFFFF,
    DERIVED_REC_SIZE = sizeof(derived_rec),
    MARCH_PATTERN_CHOICES = 7,   // six table patterns and one raw draw
    MARCH_RAW_DRAW = 6,
};

// The six-element marches' pattern table.
const uint32_t march_patterns[MARCH_RAW_DRAW] = {
    0xFFFFFFFF, 0x00000000, 0xAAAAAAAA, 0xF0F0F0F0, 0x33333333, 0xCCCCCCCC,
};

// The hit and miss tests' pattern: a draw copied into the upper half, where
// it ORs with the draw's own bits 16 to 30.
uint32_t pattern_from(long draw)
{
    uint32_t r = static_cast<uint32_t>(draw);
    return (r << 16) | r;
}

// A ping-pong walk over elements 0 .. `last`: passes alternate between
// ascending from element 0 and descending from `last`, each visiting
// `visits` elements. This is the walk whose position carries over from pass
// to pass while its direction reverses: with `visits` = last the end element
// is left for the next pass, with `visits` = last + 1 it is visited twice in
// a row. `visit` returns false to stop the walk (a miscompare).
template <typename Visit>
bool ping_pong(uint32_t last, uint32_t visits, uint32_t passes, Visit visit)
{
    for (uint32_t pass = 0; pass < passes; pass++) {
        if (pass % 2 == 0) {
#pragma GCC unroll 8
            for (uint32_t i = 0; i < visits; i++)
                if (!visit(i))
                    return false;
        } else {
#pragma GCC unroll 8
            for (uint32_t i = 0; i < visits; i++)
                if (!visit(last - i))
                    return false;
        }
    }
    return true;
}

// The steps of one pass of the basic walk over `n` elements: n - 1, none
// for a region of fewer than two elements.
uint32_t walk_steps(uint32_t n) { return n < 2 ? 0 : n - 1; }

// Column geometry of the column kernels: `blocks` of `stride` bytes, each
// holding `columns` elements of `width` bytes; the block step is the stride
// rounded down to a whole element.
struct column_geometry {
    uint32_t blocks;
    uint32_t columns;
    uintptr_t block_step;
};

column_geometry columns_of(uint32_t size, uint32_t stride, uint32_t width)
{
    return {stride == 0 ? 0 : size / stride, stride / width, stride / width * width};
}

// Runs `element` on the byte address of every element in column order:
// element j of every block before element j + 1 of any block.
template <typename Element>
void column_sweep(void *buffer, const column_geometry &g, uint32_t width, Element element)
{
    for (uint32_t j = 0; j < g.columns; j++) {
        char *address = static_cast<char *>(l2_at(buffer, uintptr_t{j} * width));
#pragma GCC unroll 8
        for (uint32_t k = 0; k < g.blocks; k++) {
            element(address);
            address += g.block_step;
        }
    }
}

// The write/read/verify test's read-back, in the order of its stores: false
// at the first word that differs.
bool wrrdvr_verify(const uint32_t *a, const uint32_t *b, uint32_t words, uint32_t start)
{
    uint32_t value = start;
#pragma GCC unroll 8
    for (uint32_t i = 0; i < words; i++, value += 2) {
        if (l2_ld32(a + i) != value || l2_ld32(b + i) != value + 1)
            return false;
    }
    return true;
}

}  // namespace

int cache_wrrdvr_stress(void *, uint32_t cache_size, uint32_t ways, uint32_t iterations)
{
    l2_buffer buffer;
    size_t length = 2 * size_t{ways} * cache_size;
    if (!buffer.allocate(static_cast<size_t>(sysconf(_SC_PAGESIZE)), length, WRRDVR_ATTEMPTS)) {
        // Ends the process: the test never runs on a null buffer.
        dxt_message(DXT_STEP_FAIL, LVL_STEP_ERROR, nullptr, MSG_WRRDVR_NO_MEMORY);
        return L2_NO_MEMORY;
    }
    uint32_t words = cache_size / 4;
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_WRRDVR_START);

    // Word i of region b lies one cache size after word i of region a, and
    // the sweeps alternate between them word by word.
    auto *a = static_cast<uint32_t *>(buffer.get());
    uint32_t *b = a + words;
    for (uint32_t pass = 0; pass < iterations; pass++) {
        uint32_t start = l2_getrandom(RANDOM_WORD_MODULUS);
        uint32_t value = start;
#pragma GCC unroll 8
        for (uint32_t i = 0; i < words; i++, value += 2) {
            l2_st32(a + i, value);
            l2_st32(b + i, value + 1);
        }
        if (!wrrdvr_verify(a, b, words, start)) {
            buffer.release();
            dxt_message(DXT_STEP_FAIL, LVL_TEST_ERROR, nullptr, MSG_MISCOMPARE);
            return L2_WRRDVR_MISCOMPARE;
        }
    }
    return L2_PASSED;
}

int cache_hit_stress(void *buffer, uint32_t cache_size, uint32_t line_size, uint32_t iterations)
{
    // A kernel that could not get its memory is skipped, not failed.
    int status = basic_dtype_l2cachehit_stress(buffer, cache_size, iterations);
    if (status != L2_PASSED && status != L2_NO_MEMORY)
        return status;
    status = l2cachehit_wrrdwr(buffer, cache_size, line_size, iterations);
    if (status != L2_PASSED && status != L2_NO_MEMORY)
        return status;
    status = derived_dtype_test(buffer, cache_size, iterations);
    if (status != L2_PASSED && status != L2_NO_MEMORY)
        return status;

    l2_buffer columns;
    if (!columns.allocate(pagesize, cache_size))
        return L2_PASSED;
    columns.lock(tag, "cache_miss mlock failed!!\n", "cache_miss munlock failed!!\n");
    status = cache_readmiss(columns.get(), cache_size, line_size / 2, iterations);
    columns.release();
    return status == L2_NO_MEMORY ? L2_PASSED : status;
}

int basic_dtype_l2cachehit_stress(void *, uint32_t cache_size, uint32_t iterations)
{
    double d = l2_drand48();
    uint32_t p = pattern_from(l2_lrand48());

    l2_buffer buffer;
    if (!buffer.allocate(pagesize, cache_size))
        return L2_NO_MEMORY;
    buffer.lock(tag, "basic_dtype, ulong mlock failed!!\n", "basic_dtype munlock failure!!\n");
    uint32_t words = cache_size / 4;
    uint32_t dwords = cache_size / 8;
    if (iterations == 0)
        return L2_PASSED;

    auto *word = static_cast<uint32_t *>(buffer.get());
    auto *dword = static_cast<uint64_t *>(buffer.get());
    ping_pong(words - 1, walk_steps(words), iterations, [word, p](uint32_t i) {
        l2_st32(word + i, p);
        return true;
    });
    p = ~p;
    ping_pong(words - 1, walk_steps(words), iterations, [word, p](uint32_t i) {
        l2_st32(word + i, p);
        return true;
    });
    ping_pong(dwords - 1, walk_steps(dwords), iterations, [dword, d](uint32_t i) {
        l2_stf64(dword + i, d);
        return true;
    });
    // The read-back is a real 8-byte load of the element just stored,
    // compared as a double.
    double e = 2.0 * d;
    bool same = ping_pong(dwords - 1, walk_steps(dwords), iterations, [dword, e](uint32_t i) {
        l2_stf64(dword + i, e);
        return l2_ldf64(dword + i) == e;
    });
    return same ? L2_PASSED : L2_MISCOMPARE;
}

int l2cachehit_wrrdwr(void *, uint32_t cache_size, uint32_t line_size, uint32_t iterations)
{
    uint32_t v = pattern_from(l2_lrand48());

    l2_buffer buffer;
    if (!buffer.allocate(pagesize, cache_size))
        return L2_NO_MEMORY;
    buffer.lock(tag, "l2cachehit_wrrdwr, mlock failed!!\n", "l2cachehit_wrrdwr: munlock failed!!\n");
    uint32_t words = cache_size / 4;
    // A zero line size would hold the index still; the sequence never passes
    // one, and the default line stands in for it.
    uintptr_t step = line_size != 0 ? line_size : L2_DEFAULT_LINE_SIZE;

    auto *word = static_cast<uint32_t *>(buffer.get());
#pragma GCC unroll 8
    for (uint32_t i = 0; i < words; i++)
        l2_st32(word + i, v);
    // The index counts words, so accesses are 4 * line_size bytes apart.
    for (uint32_t pass = 0; pass < iterations; pass++) {
#pragma GCC unroll 8
        for (uintptr_t i = 0; i < words; i += step)
            v += l2_ld32(word + i);
    }
    for (uint32_t pass = 0; pass < iterations; pass++) {
#pragma GCC unroll 8
        for (uintptr_t i = 0; i < words; i += step)
            l2_st32(word + i, v);
    }
    return L2_PASSED;
}

int derived_dtype_test(void *, uint32_t cache_size, uint32_t iterations)
{
    l2_buffer area;
    if (!area.allocate(pagesize, cache_size))
        return L2_NO_MEMORY;
    area.lock(tag, "derived_dtype mlock failed!!\n", "derived_dtype munlock failed!!\n");
    const derived_rec zero = {0, 0, 0, 0};
    int status = derived_dtype_write(area.get(), cache_size, iterations, &zero);
    if (status == L2_PASSED)
        status = derived_dtype_write_read_verify(area.get(), cache_size, iterations, &zero);
    return status;
}

namespace {

// A field of the record in slot `slot`: each field is its own access, most
// of them unaligned.
void *field_at(void *area, uint32_t slot, size_t offset)
{
    return l2_at(area, uintptr_t{slot} * DERIVED_REC_SIZE + offset);
}

}  // namespace

int derived_dtype_write(void *area, uint32_t cache_size, uint32_t iterations, const derived_rec *tmpl)
{
    uint32_t slots = cache_size / DERIVED_REC_SIZE;
    if (slots == 0)
        return L2_PASSED;
    const int8_t c = tmpl->c;
    const int16_t s = tmpl->s;
    const int32_t i1 = tmpl->i1;
    const int32_t i2 = tmpl->i2;
    ping_pong(slots - 1, slots, iterations, [=](uint32_t k) {
        l2_st8(field_at(area, k, offsetof(derived_rec, c)), static_cast<uint8_t>(c));
        l2_st16(field_at(area, k, offsetof(derived_rec, s)), static_cast<uint16_t>(s));
        l2_st32(field_at(area, k, offsetof(derived_rec, i1)), static_cast<uint32_t>(i1));
        l2_st32(field_at(area, k, offsetof(derived_rec, i2)), static_cast<uint32_t>(i2));
        return true;
    });
    return L2_PASSED;
}

int derived_dtype_write_read_verify(void *area, uint32_t cache_size, uint32_t iterations,
                                    const derived_rec *tmpl)
{
    uint32_t slots = cache_size / DERIVED_REC_SIZE;
    if (slots == 0)
        return L2_PASSED;
    const int8_t c = tmpl->c;
    const int16_t s = tmpl->s;
    const int32_t i1 = tmpl->i1;
    const int32_t i2 = tmpl->i2;
    bool same = ping_pong(slots - 1, slots, iterations, [=](uint32_t k) {
        void *fc = field_at(area, k, offsetof(derived_rec, c));
        void *fs = field_at(area, k, offsetof(derived_rec, s));
        void *fi1 = field_at(area, k, offsetof(derived_rec, i1));
        void *fi2 = field_at(area, k, offsetof(derived_rec, i2));
        l2_st8(fc, static_cast<uint8_t>(c));
        l2_st16(fs, static_cast<uint16_t>(s));
        l2_st32(fi1, static_cast<uint32_t>(i1));
        l2_st32(fi2, static_cast<uint32_t>(i2));
        return static_cast<int8_t>(l2_ld8(fc)) == c && static_cast<int16_t>(l2_ld16(fs)) == s &&
               static_cast<int32_t>(l2_ld32(fi1)) == i1 && static_cast<int32_t>(l2_ld32(fi2)) == i2;
    });
    return same ? L2_PASSED : L2_MISCOMPARE;
}

int cache_readmiss(void *buffer, uint32_t size, uint32_t stride, uint32_t iterations)
{
    uint32_t sum = static_cast<uint32_t>(l2_lrand48());
    column_geometry g = columns_of(size, stride, 4);
    for (uint32_t pass = 0; pass < iterations; pass++)
        column_sweep(buffer, g, 4, [&sum](void *word) { sum += l2_ld32(word); });
    l2_st32(buffer, sum);
    return L2_PASSED;
}

int cache_miss_stress(void *, uint32_t cache_size, uint32_t line_size, uint32_t ways, uint32_t iterations)
{
    uint32_t size = 2 * cache_size;
    l2_buffer integer;
    if (!integer.allocate(pagesize, size))
        return L2_NO_MEMORY;
    integer.lock(tag, "cache_miss mlock failed!!\n", "cache_miss munlock failed!!\n");
    l2_buffer floating;
    if (!floating.allocate(pagesize, size))
        return L2_NO_MEMORY;
    floating.lock(tag, "cache_miss mlock failed in fp!!\n", "cache_miss munlock failed in fp!!\n");

    uint32_t pattern = pattern_from(l2_lrand48());
    double value = l2_drand48() * 1024.0;

    void *ints = integer.get();
    void *fps = floating.get();
    int status = cache_writemiss(ints, size, line_size, iterations, pattern);
    if (status == L2_PASSED)
        status = cache_writemissfp(fps, size, line_size, iterations, value);
    if (status == L2_PASSED)
        status = cache_readmiss(ints, size, line_size, iterations);
    if (status == L2_PASSED)
        status = cache_readmiss_write(ints, size, line_size, iterations, pattern);
    if (status == L2_PASSED)
        status = cache_writemiss_read(ints, size, line_size, iterations, pattern);
    if (status == L2_PASSED)
        status = cache_writemissfp_read(fps, size, line_size, iterations, value);
    // A direct-mapped cache has no ways to trash.
    if (static_cast<int32_t>(ways) > 1) {
        for (int mode = 1; mode <= 4 && status == L2_PASSED; mode++)
            status = cache_sets_trash(ints, size, line_size, ways, iterations, pattern, mode);
    }
    // The integer buffer goes first.
    integer.release();
    floating.release();
    return status;
}

int cache_writemiss(void *buffer, uint32_t size, uint32_t stride, uint32_t iterations, uint32_t pattern)
{
    column_geometry g = columns_of(size, stride, 4);
    for (uint32_t pass = 0; pass < iterations; pass++) {
        column_sweep(buffer, g, 4, [pattern](void *word) { l2_st32(word, pattern); });
        pattern <<= 1;
    }
    return L2_PASSED;
}

int cache_writemissfp(void *buffer, uint32_t size, uint32_t stride, uint32_t iterations, double value)
{
    column_geometry g = columns_of(size, stride, 8);
    for (uint32_t pass = 0; pass < iterations; pass++) {
        column_sweep(buffer, g, 8, [value](void *element) { l2_stf64(element, value); });
        value = value * 1.5 / 1.75;
    }
    return L2_PASSED;
}

int cache_readmiss_write(void *buffer, uint32_t size, uint32_t stride, uint32_t iterations, uint32_t pattern)
{
    column_geometry g = columns_of(size, stride, 4);
    for (uint32_t pass = 0; pass < iterations; pass++)
        column_sweep(buffer, g, 4, [pattern](void *word) { l2_st32(word, l2_ld32(word) * pattern); });
    return L2_PASSED;
}

int cache_writemiss_read(void *buffer, uint32_t size, uint32_t stride, uint32_t iterations, uint32_t pattern)
{
    column_geometry g = columns_of(size, stride, 4);
    uint32_t sum = 0;
    for (uint32_t pass = 0; pass < iterations; pass++) {
        column_sweep(buffer, g, 4, [&sum, &pattern](void *word) {
            l2_st32(word, pattern);
            sum += l2_ld32(word);
            pattern <<= 1;
        });
    }
    l2_st32(buffer, sum);
    return L2_PASSED;
}

int cache_writemissfp_read(void *buffer, uint32_t size, uint32_t stride, uint32_t iterations, double value)
{
    column_geometry g = columns_of(size, stride, 8);
    double sum = 0.0;
    for (uint32_t pass = 0; pass < iterations; pass++) {
        column_sweep(buffer, g, 8, [&sum, &value](void *element) {
            l2_stf64(element, value);
            value = value * 1.5;
            sum += l2_ldf64(element);
        });
    }
    l2_stf64(buffer, sum);
    return L2_PASSED;
}

namespace {

// Runs `action` on every word of the set-trashing walk: set by set, each
// set `passes` times, its ways in ascending order.
template <typename Action>
void set_sweep(void *buffer, uint32_t sets, uintptr_t set_step, uint32_t ways, uintptr_t way_step,
               uint32_t passes, Action action)
{
    for (uint32_t s = 0; s < sets; s++) {
        char *set = static_cast<char *>(l2_at(buffer, s * set_step));
        for (uint32_t pass = 0; pass < passes; pass++) {
            char *word = set;
#pragma GCC unroll 8
            for (uint32_t w = 0; w < ways; w++) {
                action(word);
                word += way_step;
            }
        }
    }
}

}  // namespace

int cache_sets_trash(void *buffer, uint32_t size, uint32_t stride, uint32_t ways, uint32_t iterations,
                     uint32_t pattern, int mode)
{
    uint64_t set_bytes = uint64_t{ways} * stride;
    uint32_t sets = set_bytes == 0 ? 0 : static_cast<uint32_t>(size / set_bytes);
    if (sets == 0)
        return L2_PASSED;
    // Addresses one way step apart map to the same cache set.
    uintptr_t way_step = (uintptr_t{stride} * sets) & ~uintptr_t{3};
    uintptr_t set_step = stride & ~3u;

    uint32_t total = 0;
    switch (mode) {
    case 1:
        set_sweep(buffer, sets, set_step, ways, way_step, iterations, [&pattern](void *word) {
            l2_st32(word, pattern);
            pattern <<= 1;
        });
        break;
    case 2:
        set_sweep(buffer, sets, set_step, ways, way_step, iterations,
                  [&total](void *word) { total += l2_ld32(word); });
        break;
    case 3:
        set_sweep(buffer, sets, set_step, ways, way_step, iterations, [&pattern, &total](void *word) {
            l2_st32(word, pattern);
            total += l2_ld32(word);
            pattern <<= 1;
        });
        break;
    case 4:
        set_sweep(buffer, sets, set_step, ways, way_step, iterations,
                  [pattern](void *word) { l2_st32(word, l2_ld32(word) * pattern); });
        break;
    default:
        break;
    }
    volatile uint32_t sink = total;
    (void)sink;
    return L2_PASSED;
}

int cache_rand_off_stress(void *buffer, uint32_t cache_size, uint32_t iterations)
{
    uint32_t words = cache_size / 4;
    int status = rand_off_wr_loop(buffer, words, iterations, l2_getrandom(RANDOM_WORD_MODULUS));
    if (status != L2_PASSED)
        return status;
    status = rand_off_wrrdvrfy_loop(buffer, words, iterations, static_cast<uint32_t>(l2_lrand48()));
    if (status != L2_PASSED)
        return status;
    return rand_off_rd_loop(buffer, words, iterations);
}

int rand_off_wr_loop(void *buffer, uint32_t words, uint32_t iterations, uint32_t pattern)
{
    uint32_t entries = 0;
    uint32_t *offsets = l2_get_randbuf(words, &entries);
    if (offsets == nullptr)
        return L2_NO_MEMORY;
    auto *word = static_cast<uint32_t *>(buffer);
    for (uint32_t pass = 0; pass < iterations; pass++) {
#pragma GCC unroll 8
        for (uint32_t e = 0; e < entries; e++)
            l2_st32(word + offsets[e], pattern);
        pattern <<= 1;
    }
    free(offsets);
    return L2_PASSED;
}

int rand_off_wrrdvrfy_loop(void *buffer, uint32_t words, uint32_t iterations, uint32_t pattern)
{
    uint32_t entries = 0;
    uint32_t *offsets = l2_get_randbuf(words, &entries);
    if (offsets == nullptr)
        return L2_NO_MEMORY;
    auto *word = static_cast<uint32_t *>(buffer);
    for (uint32_t pass = 0; pass < iterations; pass++) {
#pragma GCC unroll 8
        for (uint32_t e = 0; e < entries; e++) {
            l2_st32(word + offsets[e], pattern);
            if (l2_ld32(word + offsets[e]) != pattern) {
                free(offsets);
                return L2_MISCOMPARE;
            }
        }
        pattern <<= 1;
    }
    free(offsets);
    return L2_PASSED;
}

int rand_off_rd_loop(void *buffer, uint32_t words, uint32_t iterations)
{
    uint32_t entries = 0;
    uint32_t *offsets = l2_get_randbuf(words, &entries);
    if (offsets == nullptr)
        return L2_NO_MEMORY;
    auto *word = static_cast<const uint32_t *>(buffer);
    uint32_t total = 0;
    for (uint32_t pass = 0; pass < iterations; pass++) {
#pragma GCC unroll 8
        for (uint32_t e = 0; e < entries; e++)
            total += l2_ld32(word + offsets[e]);
    }
    volatile uint32_t sink = total;
    (void)sink;
    free(offsets);
    return L2_PASSED;
}

namespace {

// The pattern of one march pass: a table entry, or for the last of the
// seven choices a raw draw (bit 31 always clear).
uint32_t march_pattern()
{
    uint32_t k = l2_get32random(MARCH_PATTERN_CHOICES);
    return k < MARCH_RAW_DRAW ? march_patterns[k] : static_cast<uint32_t>(l2_lrand48());
}

// The six march elements, each a full sweep in the test's order of visits
// (`sweep` runs an operation on every word and stops when it returns
// false). False at the first word of the last element that is not p.
template <typename Sweep>
bool march_elements(Sweep sweep, uint32_t p)
{
    const uint32_t np = ~p;
    sweep([p](void *word) { l2_st32(word, p); return true; });
    sweep([](void *word) { (void)l2_ld32(word); return true; });
    sweep([np](void *word) { l2_st32(word, np); return true; });
    sweep([](void *word) { (void)l2_ld32(word); return true; });
    sweep([p](void *word) { l2_st32(word, p); return true; });
    return sweep([p](void *word) { return l2_ld32(word) == p; });
}

// The passes of a six-element march in its order of visits, then the
// buffer's release and the end message: -1 after the first miscompare, which
// ends the passes. A buffer without word positions only draws its patterns.
template <typename Sweep>
int march_passes(l2_buffer &buffer, uint32_t iterations, bool has_words, Sweep sweep, int end_message)
{
    int status = L2_PASSED;
    for (uint32_t pass = 0; pass < iterations && status == L2_PASSED; pass++) {
        uint32_t p = march_pattern();
        if (has_words && !march_elements(sweep, p))
            status = L2_MISCOMPARE;
    }
    buffer.release();
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, end_message);
    return status;
}

}  // namespace

int cache_march_stress1(void *, uint32_t cache_size, uint32_t line_size, uint32_t iterations)
{
    dxt_message(DXT_RETURN, LVL_DEBUG, tag, MSG_FREE_TEXT, "L2 March test with row striding");
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_ROW_MARCH_START);
    uint32_t size = 2 * cache_size;
    l2_buffer buffer;
    if (!buffer.allocate(pagesize, size))
        return L2_NO_MEMORY;
    buffer.lock(tag, nullptr, "cache_miss munlock failed!!\n");

    // Rows of one line each; the rows divide by the full line size, the
    // pitch is the line rounded down to whole words. The sequence never
    // passes a zero line size; the default line stands in for one.
    if (line_size == 0)
        line_size = L2_DEFAULT_LINE_SIZE;
    uint32_t rows = size / line_size;
    uint32_t line_words = line_size / 4;
    uintptr_t pitch = uintptr_t{4} * line_words;
    char *base = static_cast<char *>(buffer.get());
    // One word position of every row, one line apart, before the next.
    auto row_striding = [=](auto operation) {
        for (uint32_t column = 0; column < line_words; column++) {
            char *word = base + uintptr_t{4} * column;
#pragma GCC unroll 8
            for (uint32_t row = 0; row < rows; row++, word += pitch)
                if (!operation(word))
                    return false;
        }
        return true;
    };

    return march_passes(buffer, iterations, line_words != 0, row_striding, MSG_ROW_MARCH_END);
}

int cache_march_stress2(void *, uint32_t cache_size, uint32_t iterations)
{
    dxt_message(DXT_RETURN, LVL_DEBUG, tag, MSG_FREE_TEXT, "L2 March test with column striding");
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_COL_MARCH_START);
    l2_buffer buffer;
    if (!buffer.allocate(pagesize, cache_size))
        return L2_NO_MEMORY;
    buffer.lock(tag, nullptr, "cache_miss munlock failed!!\n");

    uint32_t words = cache_size / 4;
    auto *base = static_cast<uint32_t *>(buffer.get());
    auto ascending = [=](auto operation) {
#pragma GCC unroll 8
        for (uint32_t i = 0; i < words; i++)
            if (!operation(base + i))
                return false;
        return true;
    };

    return march_passes(buffer, iterations, words != 0, ascending, MSG_COL_MARCH_END);
}
