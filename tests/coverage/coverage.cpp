// Measured fault coverage: every subtest of the per-CPU sequence runs on
// small buffers of the simulated faulty memory, once per planted fault, and
// what it reports is counted per subtest and fault model.
//
//   coverage_report              prints the table
//   coverage_report DOC          writes it into DOC between its markers
//   coverage_report --check DOC  fails when DOC shows another table
//
// It also fails when a run fails for another reason than a miscompare it
// found, when a verifying subtest never finds a lost write or a stuck bit,
// or when a traffic-only subtest reports a fault: the proof that every
// verifying subtest fails on a bad word, in its own way (its miscompare
// status, or 6000). Runs are deterministic: one thread, the program's
// generator seeded before each, and fault positions from a generator of this
// program seeded by the subtest's name.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "fakes.h"
#include "fault_model.h"
#include "harness/testinfo.h"
#include "kernel_calls.h"
#include "stress/l2cache.h"

extern "C" void __libc_free(void *);

namespace {

// Small enough that the twenty thousand runs take seconds, large enough that
// every subtest makes all of its phases (the half-cache marches still have
// 16 or 32 blocks, the set kernels 16 sets); two passes, so the ping-pong
// walks of the hit test verify every element (up, then down).
enum : uint32_t { CACHE_SIZE = 2048, LINE_SIZE = 64, WAYS = 4, ITERATIONS = 2 };
constexpr int PLACEMENTS = 256;      // fault positions per subtest, the same for every model
constexpr int SEEDS = 16;            // placement j runs with the subtest's seed j % SEEDS
constexpr uint8_t FILL_BYTE = 0x5A;  // every buffer starts so: a lost write keeps a known value

enum model { STUCK_AT_0, STUCK_AT_1, LOST_WRITE, ALIAS, COUPLING, MODELS };
const char *const model_names[MODELS] = {"Stuck at 0", "Stuck at 1", "Lost write", "Alias", "Coupling"};

struct subtest {
    const char *name;
    const char *function;
    std::vector<uint32_t> numbers;  // its arguments (kernel_calls.h)
    bool verifies;                  // compares what it reads back (else traffic only)
};

const subtest subtests[] = {
    {"Write/Read/Verify", "cache_wrrdvr_stress", {CACHE_SIZE, WAYS, ITERATIONS}, true},
    {"Cache Hit", "cache_hit_stress", {CACHE_SIZE, LINE_SIZE, ITERATIONS}, true},
    {"Cache Miss", "cache_miss_stress", {CACHE_SIZE, LINE_SIZE, WAYS, ITERATIONS}, false},
    {"Random Swap", "crand", {CACHE_SIZE}, false},
    {"Interconnect", "cache_interconnect_stress", {CACHE_SIZE, ITERATIONS}, false},
    {"30N march, variable data", "cache_march_stress4", {CACHE_SIZE}, false},
    {"30N march, line striding", "cache_march_stress3", {CACHE_SIZE, ITERATIONS}, false},
    {"Row-striding march", "cache_march_stress1", {CACHE_SIZE, LINE_SIZE, ITERATIONS}, true},
    {"Column-striding march", "cache_march_stress2", {CACHE_SIZE, ITERATIONS}, true},
    // Handed its buffer: the one kernel_call allocates for it.
    {"Random Offset", "cache_rand_off_stress", {CACHE_SIZE, ITERATIONS}, true},
};

char *planted_block;  // a fault ends with the buffer it is planted in

}  // namespace

// Every free of the process passes here: a later kernel's buffer at the
// address of a freed one is sound memory.
extern "C" void free(void *address)
{
    if (address != nullptr && address == planted_block) {
        planted_block = nullptr;
        fault::reset();
    }
    __libc_free(address);
}

namespace {

enum verdict { PASSED, FOUND, OTHER };

// A run from `seed`, with `plant` (if any) applied to the subtest's nth
// buffer. FOUND when it reports the miscompare (its status, or the message
// that ends the test); OTHER for any other failure, or when the buffer never
// came.
verdict run(const subtest &test, long seed, int nth = 0, const std::function<void(char *)> &plant = nullptr)
{
    fake::reset();
    fault::reset();
    pagesize = 4096;
    srand48(seed);
    bool planted = plant == nullptr;
    auto prepare = [&](char *block, size_t length) {
        std::memset(block, FILL_BYTE, length);
        if (plant != nullptr)
            plant(block), planted = true;
    };
    if (plant != nullptr)
        fault::in_allocation(nth, [&](char *block, size_t length) {
            prepare(block, length);
            planted_block = block;
        });
    else
        fake::on_memalign([&](void *block, size_t length) { prepare(static_cast<char *>(block), length); });
    int status = -1;
    bool miscompare = false;
    try {
        status = kernel_call(test.function, test.numbers)();
        miscompare = status == L2_MISCOMPARE;
    } catch (const fake::exit_request &request) {
        miscompare = request.number == MSG_MISCOMPARE && request.exit_flag == DXT_STEP_FAIL;
    }
    planted_block = nullptr;
    fault::reset();
    if (planted && status == L2_PASSED)
        return PASSED;
    return planted && test.verifies && miscompare ? FOUND : OTHER;
}

char *word_at(char *block, uint32_t word) { return block + 4 * uintptr_t{word}; }

struct row {
    int found[MODELS] = {};
    int other_failures = 0;
};

row measure(const subtest &test)
{
    std::seed_seq name(test.function, test.function + std::strlen(test.function));
    std::mt19937_64 draws(name);
    auto below = [&draws](size_t bound) { return static_cast<uint32_t>(draws() % bound); };
    long seeds[SEEDS];
    for (long &seed : seeds)
        seed = static_cast<long>(draws() & 0xFFFFFFFFu);  // srand48 keeps 32 bits
    row r;
    r.other_failures = run(test, seeds[0]) != PASSED;
    std::vector<size_t> words;  // of each buffer, from the fault-free run
    for (const fake::range &block : fake::memalign_results())
        words.push_back(block.length / 4);
    size_t all_words = 0;
    for (size_t n : words)
        all_words += n;
    for (int j = 0; j < PLACEMENTS && all_words > 0; j++) {
        int nth = 0;
        uint32_t word = below(all_words);
        while (word >= words[nth])
            word -= static_cast<uint32_t>(words[nth++]);
        int bit = static_cast<int>(below(32));
        std::vector<uint32_t> address_bits;  // an alias: a decoder that ignores one of them
        for (uint32_t b = 0; (size_t{1} << b) < words[nth]; b++)
            if ((word ^ (1u << b)) < words[nth])
                address_bits.push_back(b);
        uint32_t alias = word ^ (1u << address_bits[below(address_bits.size())]);
        uint32_t victim = below(words[nth] - 1);  // a coupling's: any other word of the buffer
        victim += victim >= word;
        const std::function<void(char *)> faults[MODELS] = {
            [=](char *b) { fault::stuck_at(word_at(b, word), bit, 0); },
            [=](char *b) { fault::stuck_at(word_at(b, word), bit, 1); },
            [=](char *b) { fault::lost_write(word_at(b, word)); },
            [=](char *b) { fault::alias(word_at(b, word), word_at(b, alias)); },
            [=](char *b) { fault::coupling(word_at(b, word), word_at(b, victim), bit); },
        };
        for (int m = 0; m < MODELS; m++) {
            verdict v = run(test, seeds[j % SEEDS], nth, faults[m]);
            r.found[m] += v == FOUND;
            r.other_failures += v == OTHER;
        }
    }
    return r;
}

const char BEGIN[] = "<!-- coverage_report: begin of the generated tables, do not edit -->";
const char END[] = "<!-- coverage_report: end of the generated tables -->";

std::string table(const std::vector<row> &rows)
{
    std::ostringstream out;
    out << "\nEvery subtest runs with `cache_size` " << CACHE_SIZE << ", `line_size` " << LINE_SIZE << ", `ways` "
        << WAYS << " and `iterations` " << ITERATIONS << "; " << PLACEMENTS
        << " placements per subtest, the same positions for every fault model, over " << SEEDS
        << " seeds of the program's generator.\n\n| Subtest |";
    for (const char *name : model_names)
        out << " " << name << " |";
    out << "\n|---|---|---|---|---|---|\n";
    for (size_t i = 0; i < rows.size(); i++) {
        out << "| " << subtests[i].name << " `" << subtests[i].function << "` |";
        for (int found : rows[i].found) {
            char cell[64];
            std::snprintf(cell, sizeof cell, " %.1f%% (%d/%d) |", 100.0 * found / PLACEMENTS, found, PLACEMENTS);
            out << cell;
        }
        out << "\n";
    }
    return out.str();
}

}  // namespace

int main(int argc, char **argv)
{
    std::vector<row> rows;
    int bad = 0;
    for (const subtest &test : subtests) {
        std::fprintf(stderr, "measuring %s\n", test.function);
        rows.push_back(measure(test));
        const row &r = rows.back();
        int stuck = r.found[STUCK_AT_0] + r.found[STUCK_AT_1], found = stuck;
        for (int m = LOST_WRITE; m < MODELS; m++)
            found += r.found[m];
        bool wrong = test.verifies ? r.found[LOST_WRITE] == 0 || stuck == 0 : found > 0;
        if (r.other_failures != 0 || wrong) {
            std::fprintf(stderr, "%s: %d runs failed for another reason%s\n", test.function, r.other_failures,
                         !wrong ? "" : test.verifies ? ", a kind of fault it never found" : ", a fault it reported");
            bad = 1;
        }
    }
    std::string generated = table(rows);
    if (argc < 2) {
        std::cout << generated;
        return bad;
    }
    const char *path = argv[argc - 1];
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    std::string document = text.str();
    size_t begin = document.find(BEGIN), end = document.find(END);
    if (begin == std::string::npos || end < begin) {
        std::fprintf(stderr, "%s: no markers\n%s\n%s\n", path, BEGIN, END);
        return 1;
    }
    begin += sizeof BEGIN - 1;
    if (std::string(argv[1]) == "--check") {
        if (document.compare(begin, end - begin, generated + "\n") == 0)
            return bad;
        std::fprintf(stderr, "%s differs from the measured coverage: regenerate it with\n  "
                             "cmake --build build/test --target coverage_report && "
                             "build/test/tests/coverage/coverage_report docs/COVERAGE.md\n", path);
        return 1;
    }
    document.replace(begin, end - begin, generated + "\n");
    std::ofstream(path) << document;
    return bad;
}
