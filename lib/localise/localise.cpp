// The localisation sweep (localise.h).
#include "localise.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

// A fault-model build (tests/fault) defines these: the sweep's accesses then
// go through its simulated memory, and it learns where the sweep's buffer is
// so that a test can plant faults in it. The shipped program defines none.
uint64_t l2_fault_load(const void *addr, unsigned width) __attribute__((weak));
void l2_fault_store(void *addr, unsigned width, uint64_t value) __attribute__((weak));
void l2_fault_sweep_buffer(void *block, size_t length, int cpu) __attribute__((weak));

namespace loc {

namespace {

// One volatile access each, as the subtests' helpers make them.
struct direct {
    static uint64_t load(const uint64_t *p) { return *static_cast<const volatile uint64_t *>(p); }
    static void store(uint64_t *p, uint64_t v) { *static_cast<volatile uint64_t *>(p) = v; }
};
struct simulated {
    static uint64_t load(const uint64_t *p) { return l2_fault_load(p, sizeof *p); }
    static void store(uint64_t *p, uint64_t v) { l2_fault_store(p, sizeof *p, v); }
};

long long monotonic_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

struct sweep_state {
    uint64_t *words;
    size_t count;
    l2_shape l2;
    finding *found;
    int kernel = 0;
    int pass = 0;
    long long deadline_ms = 0;
    bool past_deadline() const { return monotonic_ms() >= deadline_ms; }
};

// Where a word lies in physical memory, and so in which L2 set: the kernel
// tells a page's frame to a process with CAP_SYS_ADMIN only, 0 to others.
void locate(miss &m, l2_shape l2)
{
    m.physical_known = false;
    m.physical = 0;
    m.set = -1;
    auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    int fd = open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        m.physical_why = "/proc/self/pagemap cannot be opened";
        return;
    }
    uint64_t entry = 0;
    ssize_t n = pread(fd, &entry, sizeof entry, static_cast<off_t>(m.address / page * sizeof entry));
    close(fd);
    uint64_t frame = entry & ((1ULL << 55) - 1);
    if (n != static_cast<ssize_t>(sizeof entry) || (entry >> 63) == 0) {
        m.physical_why = "the page is not in memory";
        return;
    }
    if (frame == 0) {
        m.physical_why = "page frames are shown only with CAP_SYS_ADMIN";
        return;
    }
    m.physical_known = true;
    m.physical_why = "";
    m.physical = frame * page + m.address % page;
    uint64_t sets = l2.line != 0 && l2.ways != 0 ? l2.size / (uint64_t{l2.line} * l2.ways) : 0;
    if (sets != 0)
        m.set = static_cast<long long>(m.physical / l2.line % sets);
}

// A miscompare: kept with its reread, while there is room; always counted.
template <typename A>
[[gnu::cold, gnu::noinline]] void note_miss(sweep_state &s, size_t i, uint64_t expected, uint64_t actual)
{
    uint64_t reread = A::load(s.words + i);
    finding &f = *s.found;
    f.misses++;
    if (f.kept >= kept_misses)
        return;
    miss &m = f.records[f.kept++];
    m = {s.kernel, s.pass, i * sizeof(uint64_t), reinterpret_cast<uintptr_t>(s.words + i), false, 0, "", -1,
         expected, actual, reread};
    locate(m, s.l2);
}

// The buffer's words come as a local of the kernel's: a store through a
// uint64_t pointer could otherwise change the state's own size_t fields, so
// the compiler would reload them after every store.
template <typename A>
inline void verify(sweep_state &s, const uint64_t *w, size_t i, uint64_t expected)
{
    uint64_t actual = A::load(w + i);
    if (actual != expected) [[unlikely]]
        note_miss<A>(s, i, expected, actual);
}

// Stores, then verifies, value_of(i) in every word of [first, last), four
// words a step with one branch for the four, as a hand-unrolled loop would.
template <typename A, typename F>
inline void fill(uint64_t *w, size_t first, size_t last, F value_of)
{
    size_t i = first;
    for (; i + 4 <= last; i += 4) {
        A::store(w + i, value_of(i));
        A::store(w + i + 1, value_of(i + 1));
        A::store(w + i + 2, value_of(i + 2));
        A::store(w + i + 3, value_of(i + 3));
    }
    for (; i < last; i++)
        A::store(w + i, value_of(i));
}

template <typename A, typename F>
[[gnu::cold, gnu::noinline]] void note_misses(sweep_state &s, size_t i, F value_of, uint64_t a, uint64_t b,
                                              uint64_t c, uint64_t d)
{
    const uint64_t got[4] = {a, b, c, d};
    for (size_t k = 0; k < 4; k++)
        if (got[k] != value_of(i + k))
            note_miss<A>(s, i + k, value_of(i + k), got[k]);
}

// Four words from i, with one branch for the four.
template <typename A, typename F>
inline void check4(sweep_state &s, const uint64_t *w, size_t i, F value_of)
{
    // Four scalars, not an array: an array the cold path indexes would be
    // kept on the stack, four more stores a step.
    uint64_t a = A::load(w + i), b = A::load(w + i + 1), c = A::load(w + i + 2), d = A::load(w + i + 3);
    if (((a ^ value_of(i)) | (b ^ value_of(i + 1)) | (c ^ value_of(i + 2)) | (d ^ value_of(i + 3))) != 0)
        [[unlikely]] note_misses<A>(s, i, value_of, a, b, c, d);
}

template <typename A, typename F>
inline void check(sweep_state &s, const uint64_t *w, size_t first, size_t last, F value_of)
{
    size_t i = first;
    for (; i + 4 <= last; i += 4)
        check4<A>(s, w, i, value_of);
    for (; i < last; i++)
        verify<A>(s, w, i, value_of(i));
}

// Verifies value_of(i) and stores next_of(i) in every word of [first,
// last), four words a step, upwards or downwards.
template <typename A, typename F, typename G>
inline void check_and_fill(sweep_state &s, uint64_t *w, size_t first, size_t last, bool down, F value_of, G next_of)
{
    size_t n = last - first, i;
    for (size_t step = 0; step + 4 <= n; step += 4) {
        i = down ? last - step - 4 : first + step;
        check4<A>(s, w, i, value_of);
        A::store(w + i, next_of(i));
        A::store(w + i + 1, next_of(i + 1));
        A::store(w + i + 2, next_of(i + 2));
        A::store(w + i + 3, next_of(i + 3));
    }
    for (size_t step = n - n % 4; step < n; step++) {
        i = down ? last - step - 1 : first + step;
        verify<A>(s, w, i, value_of(i));
        A::store(w + i, next_of(i));
    }
}

// Each word's own address, then its complement, up and down: an address
// line or decoder fault puts one word's value where another's belongs.
template <typename A>
void run_moving_inversions(sweep_state &s)
{
    uint64_t *const w = s.words;
    const size_t n = s.count;
    auto own = [w](size_t i) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(w + i)); };
    auto complement = [w](size_t i) { return ~static_cast<uint64_t>(reinterpret_cast<uintptr_t>(w + i)); };
    fill<A>(w, 0, n, own);
    check_and_fill<A>(s, w, 0, n, false, own, complement);
    check_and_fill<A>(s, w, 0, n, true, complement, own);
    check<A>(s, w, 0, n, own);
}

// Every bit lane alone at one, then alone at zero: a stuck bit or a data
// line shows as the one lane that differs.
template <typename A>
void run_walking_bits(sweep_state &s)
{
    uint64_t *const w = s.words;
    const size_t n = s.count;
    for (int bit = 0; bit < 64 && !s.past_deadline(); bit++)
        for (uint64_t value : {uint64_t{1} << bit, ~(uint64_t{1} << bit)}) {
            auto same = [value](size_t) { return value; };
            fill<A>(w, 0, n, same);
            check<A>(s, w, 0, n, same);
        }
}

// xorshift64*, for the words that depend on the data.
uint64_t next_word(uint64_t &x)
{
    x ^= x >> 12;
    x ^= x << 25;
    x ^= x >> 27;
    return x * 0x2545F4914F6CDD1DULL;
}

// Random words from the seed: each word's index, multiplied by an odd
// constant and folded, mixed with the pass's own draw from the seed. A
// draw per word from a generator would leave the loop waiting on the
// generator, not on the cache.
uint64_t pass_key(const sweep_state &s)
{
    uint64_t x = s.found->seed ^ (0x9E3779B97F4A7C15ULL * static_cast<uint64_t>(s.pass + 1));
    return next_word(x);
}

template <typename A>
void run_random_words(sweep_state &s)
{
    uint64_t *const w = s.words;
    const size_t n = s.count;
    auto drawn = [key = pass_key(s)](size_t i) { return drawn_word(key, i); };
    fill<A>(w, 0, n, drawn);
    check<A>(s, w, 0, n, drawn);
}

// Set by set, the lines of every way of one set, as the set-trashing
// subtests address them: the buffer is the L2's size, so the line at
// set * line + way * (size / ways) is that set's line in that way.
template <typename A>
void run_set_targeted(sweep_state &s)
{
    uint64_t *const w = s.words;
    const size_t line_words = s.l2.line / sizeof(uint64_t), ways = s.l2.ways, way_words = s.count / ways;
    const size_t sets = way_words / line_words;
    auto drawn = [key = pass_key(s)](size_t i) { return drawn_word(key, i); };
    for (size_t set = 0; set < sets; set++) {
        for (size_t way = 0; way < ways; way++)
            fill<A>(w, way * way_words + set * line_words, way * way_words + (set + 1) * line_words, drawn);
        for (size_t way = 0; way < ways; way++)
            check<A>(s, w, way * way_words + set * line_words, way * way_words + (set + 1) * line_words, drawn);
    }
}

template <typename A>
constexpr void (*kernels[kernel_count])(sweep_state &) = {run_moving_inversions<A>, run_walking_bits<A>,
                                                           run_random_words<A>, run_set_targeted<A>};

template <typename A>
void run_rounds(sweep_state &s)
{
    for (; s.found->misses == 0 && !(s.pass > 0 && s.past_deadline()); s.pass++) {
        for (s.kernel = 0; s.kernel < kernel_count && !s.past_deadline(); s.kernel++)
            kernels<A>[s.kernel](s);
        if (s.kernel == kernel_count)
            s.found->passes++;
    }
}

// The largest power of two that divides n, at least a page.
size_t alignment_for(size_t n)
{
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return std::max(page, n & (~n + 1));
}

}  // namespace

const char *kernel_name(int kernel)
{
    switch (kernel) {
    case moving_inversions:
        return "moving inversions";
    case walking_bits:
        return "walking ones and zeros";
    case random_words:
        return "random words";
    case set_targeted:
        return "set-targeted";
    default:
        return "unknown";
    }
}

finding sweep(int cpu, l2_shape l2, long long budget_ms, uint64_t seed)
{
    finding f;
    f.cpu = cpu;
    f.seed = seed;
    long long start = monotonic_ms();
    if (l2.line < sizeof(uint64_t) || l2.ways == 0 || l2.size % (l2.line * l2.ways) != 0) {
        f.why_not = "the L2 geometry does not describe whole sets";
        return f;
    }
    void *block = nullptr;
    if (posix_memalign(&block, alignment_for(l2.size / l2.ways), l2.size) != 0) {
        f.why_not = "its buffer could not be allocated";
        return f;
    }
    // Locked where it may be, so that the pages (and their frames) stay put.
    bool locked = mlock(block, l2.size) == 0;
    if (l2_fault_sweep_buffer != nullptr)
        l2_fault_sweep_buffer(block, l2.size, cpu);
    sweep_state s{static_cast<uint64_t *>(block), l2.size / sizeof(uint64_t), l2, &f};
    s.deadline_ms = start + budget_ms;
    f.ran = true;
    if (l2_fault_load != nullptr && l2_fault_store != nullptr)
        run_rounds<simulated>(s);
    else
        run_rounds<direct>(s);
    if (locked)
        munlock(block, l2.size);
    free(block);
    f.elapsed_ms = monotonic_ms() - start;
    return f;
}

finding run_kernel(int kernel, void *buffer, l2_shape l2, uint64_t seed)
{
    finding f;
    f.seed = seed;
    f.ran = true;
    sweep_state s{static_cast<uint64_t *>(buffer), l2.size / sizeof(uint64_t), l2, &f};
    s.kernel = kernel;
    s.deadline_ms = monotonic_ms() + 3600 * 1000LL;
    kernels<direct>[kernel](s);
    return f;
}

pattern common_pattern(std::span<const miss> misses)
{
    pattern p{};
    if (misses.empty())
        return p;
    uint64_t flipped = 0;
    bool one_word = true, one_set = misses[0].set >= 0, stuck = true;
    for (const miss &m : misses) {
        flipped |= m.expected ^ m.actual;
        one_word = one_word && m.offset == misses[0].offset;
        one_set = one_set && m.set == misses[0].set;
    }
    int bit = __builtin_ctzll(flipped);
    bool one_bit = (flipped & (flipped - 1)) == 0;
    int value = static_cast<int>(misses[0].actual >> bit & 1);
    bool stored = true, read = true;
    for (const miss &m : misses) {
        stuck = stuck && static_cast<int>(m.actual >> bit & 1) == value;
        stored = stored && m.stored();
        read = read && !m.stored();
    }
    // A cell that holds one value whatever is written is stuck; one that
    // holds the wrong value only sometimes was disturbed (by a write to a
    // coupled cell, or a weak one); a right cell read wrong is the read's.
    if (one_bit && stored)
        snprintf(p.text, sizeof p.text, stuck ? "bit %d stuck at %d" : "bit %d flipped in the cell", bit, value);
    else if (one_bit && read)
        snprintf(p.text, sizeof p.text, "bit %d read wrong", bit);
    else if (one_bit)
        snprintf(p.text, sizeof p.text, "bit %d wrong in the cell and in reads", bit);
    else if (one_word)
        snprintf(p.text, sizeof p.text, "%d bits of one word", __builtin_popcountll(flipped));
    else if (one_set)
        snprintf(p.text, sizeof p.text, "L2 set %lld", misses[0].set);
    else
        snprintf(p.text, sizeof p.text, "spread over %zu words", misses.size());
    return p;
}

}  // namespace loc
