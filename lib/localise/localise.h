// Localisation of a fault: a sweep of the harness's own over a buffer sized
// from one processor's L2, run on that processor after a run found a fault
// there, that says of every miscompare which bits flipped, at which offset,
// virtual and physical address and L2 set, and whether the cell holds the
// wrong value ("stored": a reread is wrong too) or the read returned it
// ("read": a reread is right). Its kernels are not the subtests': the
// program reports only the fact of a miscompare.
#ifndef TARNEL_LOCALISE_H
#define TARNEL_LOCALISE_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace loc {

enum kernel_id {
    moving_inversions,  // each word's own address, then its complement, up and down
    walking_bits,       // a one, then a zero, through every bit lane of every word
    random_words,       // words drawn from a logged seed
    set_targeted,       // set by set, the `ways` lines that share one L2 set
    kernel_count,
};
const char *kernel_name(int kernel);

struct l2_shape {
    uint32_t size;
    uint32_t line;
    uint32_t ways;
};

struct miss {
    int kernel;
    int pass;
    size_t offset;  // bytes into the buffer
    uintptr_t address;
    bool physical_known;
    uint64_t physical;
    const char *physical_why;  // why not known ("" when it is)
    long long set;             // from the physical address, assuming linear set indexing; -1: not known
    uint64_t expected, actual, reread;
    bool stored() const { return reread != expected; }
};

constexpr int kept_misses = 16;

struct finding {
    int cpu = -1;
    bool ran = false;
    const char *why_not = "";  // why it did not run: no memory, not bound, switched off
    uint64_t seed = 0;
    int passes = 0;            // rounds of every kernel completed
    long long elapsed_ms = 0;
    long long misses = 0;      // all of them, kept or not
    int kept = 0;
    miss records[kept_misses];
    std::span<const miss> kept_records() const { return {records, static_cast<size_t>(kept)}; }
};

// Sweeps on the calling thread, which must be bound to `cpu`, until a round
// of every kernel found something or budget_ms passed (at least one round
// once started). Allocates its buffer, and frees it.
finding sweep(int cpu, l2_shape l2, long long budget_ms, uint64_t seed);

// The random words' value of word i in a pass whose key the seed drew: the
// index multiplied by an odd constant and folded, mixed with the key.
inline uint64_t drawn_word(uint64_t key, size_t i)
{
    uint64_t v = static_cast<uint64_t>(i) * 0xD6E8FEB86659FD93ULL ^ key;
    return v ^ (v >> 32);
}

// One kernel, one pass, over the caller's buffer of l2.size bytes, with no
// time limit: for the sweep's benchmark.
finding run_kernel(int kernel, void *buffer, l2_shape l2, uint64_t seed);

// What the misses have in common, in a few words: "bit 17 stuck at 1",
// "bit 17 flipped in the cell", "bit 17 read wrong", "2 bits of one word",
// "L2 set 345", "spread over 7 words"; "" when there are none.
struct pattern {
    char text[96];
};
pattern common_pattern(std::span<const miss> misses);

}  // namespace loc

#endif
