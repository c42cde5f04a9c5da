#include "coverage.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>

#include "fakes.h"
#include "fault_model.h"
#include "harness/testinfo.h"
#include "march/genmarch.h"
#include "stress/l2cache.h"

extern "C" void __libc_free(void *);

namespace coverage {
namespace {

// ---- Where faults go: a generator of this module's own ----

// splitmix64: a fixed seed gives the same positions on every machine.
class position_draws {
public:
    explicit position_draws(uint64_t seed) : state_(seed) {}
    uint64_t next()
    {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15u);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
        return z ^ (z >> 31);
    }
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(next() % bound); }

private:
    uint64_t state_;
};

// A subtest's own stream, by the name of its function (FNV-1a), so that the
// positions of one subtest do not move when another is added.
uint64_t stream_of(const subtest &test, uint64_t purpose)
{
    uint64_t h = 0xCBF29CE484222325u;
    for (const char *c = test.function; *c != '\0'; c++)
        h = (h ^ static_cast<unsigned char>(*c)) * 0x100000001B3u;
    return h ^ purpose;
}

enum : uint64_t {
    SEED_STREAM = 1,
    PLACEMENT_STREAM = 2,
    VERIFIED_STREAM = 3,
};

// The seeds the program's generator starts from (srand48 keeps 32 bits).
std::vector<long> seeds_of(const subtest &test)
{
    position_draws draws(stream_of(test, SEED_STREAM));
    std::vector<long> seeds;
    for (int s = 0; s < SEEDS; s++)
        seeds.push_back(static_cast<long>(draws.next() & 0xFFFFFFFFu));
    return seeds;
}

// ---- The heap, as far as the runs need it ----

// The buffer handed to the Random Offset test; the others allocate their own.
char *given_buffer()
{
    static char *buffer = static_cast<char *>(aligned_alloc(4096, CACHE_SIZE));
    return buffer;
}

// A fault belongs to the buffer it is planted in: when the subtest frees
// that buffer the fault goes with it, and a later buffer that reuses the
// address (the hit test's kernels each allocate and free one in turn) is
// sound memory.
char *planted_block;

// The allocations of a fault-free run, so that every access can be put to
// the buffer it falls in.
struct allocation {
    char *start;
    size_t length;
    bool live;
};

struct probe {
    bool failed = false;  // the fault-free run did not return 0
    std::vector<allocation> allocations;
    std::vector<std::vector<bool>> touched;  // per allocation, per word
    int stray = 0;                           // accesses outside every live buffer
};

probe *probing;

void note_access(const void *address, unsigned width)
{
    auto byte = reinterpret_cast<uintptr_t>(address);
    for (size_t a = probing->allocations.size(); a-- > 0;) {
        const allocation &block = probing->allocations[a];
        auto start = reinterpret_cast<uintptr_t>(block.start);
        if (!block.live || byte < start || byte + width > start + block.length)
            continue;
        for (uintptr_t word = (byte - start) / 4; word <= (byte + width - 1 - start) / 4; word++)
            probing->touched[a][word] = true;
        return;
    }
    probing->stray++;
}

void note_allocation(void *block, size_t length)
{
    probing->allocations.push_back({static_cast<char *>(block), length, true});
    probing->touched.emplace_back((length + 3) / 4, false);
}

}  // namespace
}  // namespace coverage

// Every free of the process passes here: it ends the fault planted in the
// block being freed, and the life of a block a fault-free run watches.
extern "C" void free(void *address)
{
    using namespace coverage;
    if (address != nullptr && address == planted_block) {
        planted_block = nullptr;
        fault::reset();
    }
    if (address != nullptr && probing != nullptr) {
        for (allocation &block : probing->allocations)
            if (block.start == address)
                block.live = false;
    }
    __libc_free(address);
}

namespace coverage {

const char *const model_names[FAULT_MODELS] = {"Stuck at 0", "Stuck at 1", "Lost write", "Alias", "Coupling"};

namespace {

// ---- The subtests and the bytes each verifies ----

bool wrrdvr_verified(int allocation, uint32_t byte, long)
{
    // Regions A and B, one cache size each, at the start of the buffer.
    return allocation == 0 && byte < 2 * CACHE_SIZE;
}

bool hit_verified(int allocation, uint32_t byte, long)
{
    // Buffer 0: the 64-bit store-and-verify phase over every 8-byte element
    // (two passes of the ping-pong walk, up to the last element and back
    // down to the first). Buffer 2: every field of every whole packed
    // record. Buffers 1 and 3 (the line-stride and column kernels) are never
    // compared.
    if (allocation == 0)
        return byte < CACHE_SIZE / 8 * 8;
    if (allocation == 2)
        return byte < CACHE_SIZE / sizeof(derived_rec) * sizeof(derived_rec);
    return false;
}

bool march_rows_verified(int allocation, uint32_t byte, long)
{
    // Every word of every row of the double-size buffer.
    return allocation == 0 && byte < 2 * CACHE_SIZE / LINE_SIZE * (LINE_SIZE / 4 * 4);
}

bool march_columns_verified(int allocation, uint32_t byte, long)
{
    return allocation == 0 && byte < CACHE_SIZE / 4 * 4;
}

// The words of the Random Offset test's second list, drawn again from the
// same seed in the order the test draws: the first pattern, the first list
// (its size, then its entries), the second pattern, the second list.
std::vector<bool> second_list(long seed)
{
    const uint32_t words = CACHE_SIZE / 4;
    auto list_size = [] { return ((static_cast<uint32_t>(lrand48()) & 0x7FF) + 3) / 4; };
    srand48(seed);
    (void)lrand48();
    for (uint32_t n = list_size(); n > 0; n--)
        (void)lrand48();
    (void)lrand48();
    std::vector<bool> listed(words, false);
    for (uint32_t n = list_size(); n > 0; n--)
        listed[static_cast<uint32_t>(lrand48()) % words] = true;
    return listed;
}

bool rand_off_verified(int allocation, uint32_t byte, long seed)
{
    static std::map<long, std::vector<bool>> lists;
    auto found = lists.find(seed);
    if (found == lists.end())
        found = lists.emplace(seed, second_list(seed)).first;
    return allocation == 0 && byte < CACHE_SIZE / 4 * 4 && found->second[byte / 4];
}

}  // namespace

const std::vector<subtest> &subtests()
{
    static const std::vector<subtest> all = {
        {"Write/Read/Verify", "cache_wrrdvr_stress", true, false,
         [](void *) { return cache_wrrdvr_stress(nullptr, CACHE_SIZE, WAYS, ITERATIONS); }, wrrdvr_verified},
        {"Cache Hit", "cache_hit_stress", true, false,
         [](void *) { return cache_hit_stress(nullptr, CACHE_SIZE, LINE_SIZE, ITERATIONS); }, hit_verified},
        {"Cache Miss", "cache_miss_stress", false, false,
         [](void *) { return cache_miss_stress(nullptr, CACHE_SIZE, LINE_SIZE, WAYS, ITERATIONS); }, nullptr},
        {"Random Swap", "crand", false, false, [](void *) { return crand(nullptr, CACHE_SIZE); }, nullptr},
        {"Interconnect", "cache_interconnect_stress", false, false,
         [](void *) { return cache_interconnect_stress(nullptr, CACHE_SIZE, ITERATIONS); }, nullptr},
        {"30N march, variable data", "cache_march_stress4", false, false,
         [](void *) { return cache_march_stress4(nullptr, CACHE_SIZE); }, nullptr},
        {"30N march, line striding", "cache_march_stress3", false, false,
         [](void *) { return cache_march_stress3(nullptr, CACHE_SIZE, ITERATIONS); }, nullptr},
        {"Row-striding march", "cache_march_stress1", true, false,
         [](void *) { return cache_march_stress1(nullptr, CACHE_SIZE, LINE_SIZE, ITERATIONS); },
         march_rows_verified},
        {"Column-striding march", "cache_march_stress2", true, false,
         [](void *) { return cache_march_stress2(nullptr, CACHE_SIZE, ITERATIONS); }, march_columns_verified},
        {"Random Offset", "cache_rand_off_stress", true, true,
         [](void *given) { return cache_rand_off_stress(given, CACHE_SIZE, ITERATIONS); }, rand_off_verified},
    };
    return all;
}

const subtest &find(const std::string &function)
{
    for (const subtest &test : subtests())
        if (function == test.function)
            return test;
    throw std::invalid_argument("no subtest " + function);
}

namespace {

// ---- Runs ----

void start_run(long seed)
{
    fake::reset();
    fault::reset();
    pagesize = 4096;
    srand48(seed);
}

// A fault-free run, watched: which words of which buffer it touches.
probe probe_run(const subtest &test, long seed)
{
    probe watched;
    // Room for every buffer of a subtest: the lists must not move while
    // free() looks at them.
    watched.allocations.reserve(16);
    watched.touched.reserve(16);
    start_run(seed);
    probing = &watched;
    if (test.given_buffer) {
        std::memset(given_buffer(), FILL_BYTE, CACHE_SIZE);
        note_allocation(given_buffer(), CACHE_SIZE);
    } else {
        fake::on_memalign([](void *block, size_t length) {
            std::memset(block, FILL_BYTE, length);
            note_allocation(block, length);
        });
    }
    fault::on_access([](const void *address, unsigned width, bool) { note_access(address, width); });
    try {
        watched.failed = test.run(given_buffer()) != 0;
    } catch (const fake::exit_request &) {
        watched.failed = true;
    }
    probing = nullptr;
    fault::reset();
    return watched;
}

enum verdict { PASSED, FOUND, OTHER };

// One run with a fault planted in allocation `allocation` of the subtest
// (the nth memalign of its run, or the buffer handed to it). FOUND when it
// reports the miscompare it found; OTHER for any other failure.
verdict planted_run(const subtest &test, long seed, int allocation, const std::function<void(char *)> &plant)
{
    start_run(seed);
    bool planted = false;
    if (test.given_buffer) {
        std::memset(given_buffer(), FILL_BYTE, CACHE_SIZE);
        plant(given_buffer());
        planted = true;
    } else {
        fault::in_allocation(allocation, [&](char *block, size_t length) {
            std::memset(block, FILL_BYTE, length);
            plant(block);
            planted_block = block;
            planted = true;
        });
    }
    int status = 0;
    bool ended = false;
    bool miscompare_message = false;
    try {
        status = test.run(given_buffer());
    } catch (const fake::exit_request &request) {
        ended = true;
        miscompare_message = request.number == MSG_MISCOMPARE && request.exit_flag != DXT_RETURN;
    }
    planted_block = nullptr;
    fault::reset();

    if (!planted)
        return OTHER;
    if (!ended && status == L2_PASSED)
        return PASSED;
    bool miscompare = ended ? miscompare_message : status == L2_MISCOMPARE;
    return test.verifies && miscompare ? FOUND : OTHER;
}

struct placement {
    int allocation;
    uint32_t word;
    int bit;
    uint32_t alias_of;  // the word XOR one address bit: a decoder that ignores that bit
    uint32_t victim;    // the coupling's victim, any other word of the buffer
    int seed;           // index into the subtest's seeds
};

std::vector<placement> placements_of(const subtest &test, const std::vector<allocation> &allocations)
{
    uint32_t all_words = 0;
    for (const allocation &block : allocations)
        all_words += static_cast<uint32_t>(block.length / 4);
    position_draws draws(stream_of(test, PLACEMENT_STREAM));
    std::vector<placement> drawn;
    if (all_words == 0)
        return drawn;  // no buffer: the fault-free run has already failed
    for (int j = 0; j < PLACEMENTS; j++) {
        // Uniform over every word of every buffer of the subtest.
        uint32_t global = draws.below(all_words);
        int a = 0;
        while (global >= allocations[a].length / 4)
            global -= static_cast<uint32_t>(allocations[a++].length / 4);
        uint32_t words = static_cast<uint32_t>(allocations[a].length / 4);
        placement p{a, global, static_cast<int>(draws.below(32)), 0, 0, j % SEEDS};
        std::vector<uint32_t> address_bits;
        for (uint32_t bit = 0; (1u << bit) < words; bit++)
            if ((p.word ^ (1u << bit)) < words)
                address_bits.push_back(bit);
        p.alias_of = p.word ^ (1u << address_bits[draws.below(static_cast<uint32_t>(address_bits.size()))]);
        p.victim = draws.below(words - 1);
        if (p.victim >= p.word)
            p.victim++;
        drawn.push_back(p);
    }
    return drawn;
}

char *word_at(char *block, uint32_t word) { return block + 4 * uintptr_t{word}; }

std::function<void(char *)> fault_of(fault_model model, const placement &p)
{
    switch (model) {
    case STUCK_AT_0:
    case STUCK_AT_1:
        return [p, model](char *b) { fault::stuck_at(word_at(b, p.word), p.bit, model == STUCK_AT_1 ? 1 : 0); };
    case LOST_WRITE:
        return [p](char *b) { fault::lost_write(word_at(b, p.word)); };
    case ALIAS:
        return [p](char *b) { fault::alias(word_at(b, p.word), word_at(b, p.alias_of)); };
    case COUPLING:
    default:
        return [p](char *b) { fault::coupling(word_at(b, p.word), word_at(b, p.victim), p.bit); };
    }
}

// Whether every word the fault names is touched by the fault-free run.
bool touched(const probe &run, fault_model model, const placement &p)
{
    const std::vector<bool> &words = run.touched[p.allocation];
    if (!words[p.word])
        return false;
    if (model == ALIAS)
        return words[p.alias_of];
    if (model == COUPLING)
        return words[p.victim];
    return true;
}

// Whether the subtest compares every word the fault names, in a run from
// `seed`: for a stuck bit and a coupling's victim, the byte of the bit.
bool compared(const subtest &test, long seed, fault_model model, const placement &p)
{
    auto byte_compared = [&](uint32_t word, int bit) {
        return test.verified(p.allocation, 4 * word + static_cast<uint32_t>(bit) / 8, seed);
    };
    auto word_compared = [&](uint32_t word) {
        for (int byte = 0; byte < 4; byte++)
            if (byte_compared(word, 8 * byte))
                return true;
        return false;
    };
    if (test.verified == nullptr)
        return false;
    switch (model) {
    case STUCK_AT_0:
    case STUCK_AT_1:
        return byte_compared(p.word, p.bit);
    case ALIAS:
        return word_compared(p.word) && word_compared(p.alias_of);
    case COUPLING:
        return word_compared(p.word) && byte_compared(p.victim, p.bit);
    case LOST_WRITE:
    default:
        return word_compared(p.word);
    }
}

}  // namespace

row measure(const subtest &test)
{
    row result;
    result.test = &test;
    std::vector<long> seeds = seeds_of(test);
    std::vector<probe> probes;
    for (long seed : seeds) {
        probes.push_back(probe_run(test, seed));
        result.other_failures += probes.back().failed;
        result.stray_accesses += probes.back().stray;
    }
    for (const placement &p : placements_of(test, probes[0].allocations)) {
        for (int m = 0; m < FAULT_MODELS; m++) {
            auto model = static_cast<fault_model>(m);
            verdict v = planted_run(test, seeds[p.seed], p.allocation, fault_of(model, p));
            bool found = v == FOUND;
            cell &c = result.cells[m];
            c.placed++;
            c.found += found;
            if (touched(probes[p.seed], model, p)) {
                c.placed_touched++;
                c.found_touched += found;
            }
            if (compared(test, seeds[p.seed], model, p)) {
                c.placed_compared++;
                c.found_compared += found;
            }
            result.other_failures += v == OTHER;
        }
    }
    return result;
}

verified_check check_verified(const subtest &test)
{
    verified_check result;
    result.test = &test;
    if (test.verified == nullptr)
        return result;
    std::vector<long> seeds = seeds_of(test);
    probe sizes = probe_run(test, seeds[0]);
    position_draws draws(stream_of(test, VERIFIED_STREAM));
    for (size_t a = 0; a < sizes.allocations.size(); a++) {
        auto words = static_cast<uint32_t>(sizes.allocations[a].length / 4);
        for (uint32_t w = 0; w < words; w++) {
            long seed = seeds[w % SEEDS];
            std::vector<int> bits;
            for (uint32_t byte = 0; byte < 4; byte++)
                if (test.verified(static_cast<int>(a), 4 * w + byte, seed))
                    for (int bit = 0; bit < 8; bit++)
                        bits.push_back(static_cast<int>(8 * byte) + bit);
            if (bits.empty())
                continue;
            int bit = bits[draws.below(static_cast<uint32_t>(bits.size()))];
            bool found[2];
            for (int value = 0; value < 2; value++)
                found[value] = planted_run(test, seed, static_cast<int>(a), [w, bit, value](char *b) {
                                   fault::stuck_at(word_at(b, w), bit, value);
                               }) == FOUND;
            result.words++;
            result.found_0 += found[0];
            result.found_1 += found[1];
            result.found_either += found[0] || found[1];
        }
    }
    return result;
}

region_alias check_region_alias()
{
    const subtest &test = find("cache_wrrdvr_stress");
    std::vector<long> seeds = seeds_of(test);
    region_alias result;
    const uint32_t words = CACHE_SIZE / 4;  // per region; B[i] is word words + i
    for (uint32_t i = 0; i < words; i++) {
        long seed = seeds[i % SEEDS];
        result.words++;
        result.found_b_onto_a += planted_run(test, seed, 0, [i](char *b) {
                                     fault::alias(word_at(b, words + i), word_at(b, i));
                                 }) == FOUND;
        result.found_a_onto_b += planted_run(test, seed, 0, [i](char *b) {
                                     fault::alias(word_at(b, i), word_at(b, words + i));
                                 }) == FOUND;
    }
    return result;
}

// ---- The document ----

const char BLOCK_BEGIN[] = "<!-- coverage_report: begin of the generated tables, do not edit -->";
const char BLOCK_END[] = "<!-- coverage_report: end of the generated tables -->";
const char REGENERATE[] =
    "cmake --build build/test --target coverage_report && build/test/tests/coverage/coverage_report "
    "docs/COVERAGE.md";

namespace {

std::string share(int found, int placed)
{
    if (placed == 0)
        return "-";
    char text[64];
    std::snprintf(text, sizeof text, "%.1f%% (%d/%d)", 100.0 * found / placed, found, placed);
    return text;
}

std::string label(const subtest &test) { return std::string(test.name) + " `" + test.function + "`"; }

std::string join(const std::vector<std::string> &cells)
{
    std::string line = "|";
    for (const std::string &c : cells)
        line += " " + c + " |";
    return line;
}

}  // namespace

std::string all_words_line(const row &r)
{
    std::vector<std::string> cells = {label(*r.test)};
    for (const cell &c : r.cells)
        cells.push_back(share(c.found, c.placed));
    cells.push_back(std::to_string(r.other_failures));
    return join(cells);
}

std::string touched_words_line(const row &r)
{
    std::vector<std::string> cells = {label(*r.test)};
    for (const cell &c : r.cells)
        cells.push_back(share(c.found_touched, c.placed_touched));
    return join(cells);
}

std::string compared_words_line(const row &r)
{
    std::vector<std::string> cells = {label(*r.test)};
    for (const cell &c : r.cells)
        cells.push_back(share(c.found_compared, c.placed_compared));
    return join(cells);
}

std::string verified_line(const verified_check &c)
{
    return join({label(*c.test), std::to_string(c.words), share(c.found_0, c.words), share(c.found_1, c.words),
                 share(c.found_either, c.words)});
}

std::string region_alias_line(const region_alias &a)
{
    return join({"`cache_wrrdvr_stress` regions A and B", std::to_string(a.words),
                 share(a.found_b_onto_a, a.words), share(a.found_a_onto_b, a.words)});
}

std::vector<std::string> block(const std::vector<row> &rows, const std::vector<verified_check> &checks,
                               const region_alias &alias)
{
    char geometry[256];
    std::snprintf(geometry, sizeof geometry,
                  "Every subtest runs with `cache_size` %u, `line_size` %u, `ways` %u and `iterations` %u; "
                  "%d placements per subtest, the same positions for every fault model, over %d seeds of "
                  "the program's generator.",
                  unsigned{CACHE_SIZE}, unsigned{LINE_SIZE}, unsigned{WAYS}, unsigned{ITERATIONS}, PLACEMENTS,
                  SEEDS);
    std::string models_header = "| Subtest |";
    std::string rule = "|---|";
    for (const char *name : model_names) {
        models_header += std::string(" ") + name + " |";
        rule += "---|";
    }
    std::vector<std::string> lines = {
        "",
        geometry,
        "",
        "### Found, of all words",
        "",
        models_header + " Other failures |",
        rule + "---|",
    };
    for (const row &r : rows)
        lines.push_back(all_words_line(r));
    lines.insert(lines.end(), {"", "### Found, of the words the subtest touches", "", models_header, rule});
    for (const row &r : rows)
        lines.push_back(touched_words_line(r));
    lines.insert(lines.end(), {"", "### Found, of the words the subtest compares", "", models_header, rule});
    for (const row &r : rows)
        if (r.test->verifies)
            lines.push_back(compared_words_line(r));
    lines.insert(lines.end(), {"", "### Every word a verifying subtest compares, a bit stuck at 0 and at 1", "",
                               "| Subtest | Words | Stuck at 0 | Stuck at 1 | Either |", "|---|---|---|---|---|"});
    for (const verified_check &c : checks)
        lines.push_back(verified_line(c));
    lines.insert(lines.end(), {"", "### Alias between the two regions of the Write/Read/Verify test", "",
                               "| Regions | Words i | B[i] onto A[i] | A[i] onto B[i] |", "|---|---|---|---|",
                               region_alias_line(alias), ""});
    return lines;
}

std::vector<std::string> layout(const std::vector<std::string> &block_lines)
{
    std::vector<std::string> cut;
    for (const std::string &line : block_lines) {
        // A table line whose first cell names a function holds data.
        size_t end = line.find(" |", 2);
        bool table = line.rfind("| ", 0) == 0 && end != std::string::npos;
        bool data = table && line.substr(0, end).find('`') != std::string::npos;
        cut.push_back(data ? line.substr(0, end + 2) : line);
    }
    return cut;
}

namespace {

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

}  // namespace

std::vector<std::string> block_of(const std::string &document)
{
    std::vector<std::string> lines = lines_of(document);
    std::vector<std::string> inside;
    bool in_block = false;
    for (const std::string &line : lines) {
        if (line == BLOCK_END)
            return in_block ? inside : std::vector<std::string>{};
        if (in_block)
            inside.push_back(line);
        if (line == BLOCK_BEGIN)
            in_block = true;
    }
    return {};
}

std::string with_block(const std::string &document, const std::vector<std::string> &block_lines)
{
    std::string result;
    bool begun = false;
    bool in_block = false;
    bool ended = false;
    for (const std::string &line : lines_of(document)) {
        if (in_block && line != BLOCK_END)
            continue;
        if (line == BLOCK_END && in_block) {
            in_block = false;
            ended = true;
        }
        result += line + "\n";
        if (line == BLOCK_BEGIN && !begun) {
            begun = in_block = true;
            for (const std::string &b : block_lines)
                result += b + "\n";
        }
    }
    return begun && ended ? result : std::string{};
}

}  // namespace coverage
