// Measured fault coverage: every subtest of the per-CPU sequence runs on
// small buffers of the simulated faulty memory, once per planted fault, and
// what it reports is counted per subtest and fault model. The report
// program writes the tables into docs/COVERAGE.md; the coverage test
// recomputes them and holds the document to them.
//
// A run is deterministic: one thread, the program's generator started from
// a seed of its own before every run, and fault positions drawn from a
// fixed-seed generator of this module (never from lrand48).
#ifndef TARNEL_TESTS_COVERAGE_H
#define TARNEL_TESTS_COVERAGE_H

#include <cstdint>
#include <string>
#include <vector>

namespace coverage {

// The geometry and pass count every subtest runs with: small enough that a
// few thousand runs take seconds, large enough that every subtest makes
// all of its phases (the half-cache marches still have 16 or 32 blocks,
// the set kernels 16 sets) and that the ping-pong walks of the hit test
// verify every element (two passes: up, then down).
enum : uint32_t {
    CACHE_SIZE = 2048,
    LINE_SIZE = 64,
    WAYS = 4,
    ITERATIONS = 2,
};

enum : int {
    PLACEMENTS = 256,  // fault positions per subtest, the same for every model
    SEEDS = 16,        // generator seeds per subtest; placement j runs with seed j % SEEDS
};

// Every buffer starts as fresh memory of this byte, so a word whose stores
// are lost holds a known value.
constexpr uint8_t FILL_BYTE = 0x5A;

enum fault_model { STUCK_AT_0, STUCK_AT_1, LOST_WRITE, ALIAS, COUPLING, FAULT_MODELS };
extern const char *const model_names[FAULT_MODELS];

struct subtest {
    const char *name;      // as the tables show it
    const char *function;  // the subtest's entry point
    bool verifies;         // compares what it reads back (else traffic only)
    bool given_buffer;     // works on a buffer handed to it (Random Offset)
    // Runs the subtest once with the coverage geometry; `given` is the
    // buffer for the subtest that is handed one, else ignored.
    int (*run)(void *given);
    // Whether the subtest writes byte `byte` of its allocation `allocation`
    // and later reads it back and compares it, in a run whose generator
    // starts from `seed`. Worked out from the subtest's algorithm, not
    // measured. Null for traffic-only subtests.
    bool (*verified)(int allocation, uint32_t byte, long seed);
};

// The ten subtests, in the order of the per-CPU sequence.
const std::vector<subtest> &subtests();
const subtest &find(const std::string &function);

// One cell: placements, and how many the subtest reported; the same over
// the placements whose words the subtest touches in a fault-free run, and
// over those whose words (for a stuck bit or a coupling, the bit's byte)
// it compares.
struct cell {
    int placed = 0;
    int found = 0;
    int placed_touched = 0;
    int found_touched = 0;
    int placed_compared = 0;
    int found_compared = 0;
};

struct row {
    const subtest *test = nullptr;
    cell cells[FAULT_MODELS];
    // Runs, fault-free or faulty, in which the subtest failed for another
    // reason than a miscompare it found (a fault-free run that fails, an
    // allocation status, a traffic-only subtest that fails). Must be 0.
    int other_failures = 0;
    // Accesses of the fault-free runs outside every buffer of the subtest.
    // Must be 0.
    int stray_accesses = 0;
};

// Every word a verifying subtest compares, each with a stuck bit of both
// polarities in one run (the word's seed): words checked, and found.
struct verified_check {
    const subtest *test = nullptr;
    int words = 0;
    int found_0 = 0;
    int found_1 = 0;
    int found_either = 0;
};

// An alias between the two regions of the Write/Read/Verify test, for
// every word i: region B's word onto region A's, and the other way.
struct region_alias {
    int words = 0;
    int found_b_onto_a = 0;
    int found_a_onto_b = 0;
};

row measure(const subtest &test);
verified_check check_verified(const subtest &test);
region_alias check_region_alias();

// The generated part of docs/COVERAGE.md, between its markers, as lines.
// A line of a table is rendered on its own so that a test can check one
// subtest's lines; the layout is the whole block with every table line cut
// back to its first cell.
std::string all_words_line(const row &r);
std::string touched_words_line(const row &r);
std::string compared_words_line(const row &r);
std::string verified_line(const verified_check &c);
std::string region_alias_line(const region_alias &a);
std::vector<std::string> block(const std::vector<row> &rows, const std::vector<verified_check> &checks,
                               const region_alias &alias);
std::vector<std::string> layout(const std::vector<std::string> &block_lines);

extern const char BLOCK_BEGIN[];
extern const char BLOCK_END[];
extern const char REGENERATE[];  // the documented command
// The lines between the markers of a document's text; empty when a marker
// is missing.
std::vector<std::string> block_of(const std::string &document);
// The document with the lines between its markers replaced; empty when a
// marker is missing.
std::string with_block(const std::string &document, const std::vector<std::string> &block_lines);

}  // namespace coverage

#endif
