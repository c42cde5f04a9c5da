// Measured fault coverage: every subtest of the per-CPU sequence runs on
// small buffers of the simulated faulty memory, once per planted fault, and
// what it reports is counted per subtest and fault model.
//
//   coverage_report              prints the tables
//   coverage_report DOC          writes them into DOC between its markers
//   coverage_report --check DOC  fails when DOC shows other tables
//
// It also fails when a run failed for another reason than a miscompare it
// found, a fault-free run touched memory outside its buffers, a verifying
// subtest never found a lost write or a stuck bit, or a traffic-only subtest
// reported a fault: the proof that every verifying subtest fails on a bad
// word, in the subtest's own way (its miscompare status, or 6000). A run is deterministic: one thread,
// the program's generator seeded before every run, and fault positions drawn
// from a fixed-seed generator of this program (never from lrand48).
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "fakes.h"
#include "fault_model.h"
#include "harness/testinfo.h"
#include "march/genmarch.h"
#include "stress/l2cache.h"

extern "C" void __libc_free(void *);

namespace {

// Small enough that the twenty thousand runs take seconds, large enough that
// every subtest makes all of its phases (the half-cache marches still have
// 16 or 32 blocks, the set kernels 16 sets); two passes, so the ping-pong
// walks of the hit test verify every element (up, then down).
enum : uint32_t { CACHE_SIZE = 2048, LINE_SIZE = 64, WAYS = 4, ITERATIONS = 2 };
constexpr int PLACEMENTS = 256;  // fault positions per subtest, the same for every model
constexpr int SEEDS = 16;        // placement j runs with the subtest's seed j % SEEDS
constexpr uint8_t FILL_BYTE = 0x5A;  // every buffer starts so: a lost write keeps a known value

enum model { STUCK_AT_0, STUCK_AT_1, LOST_WRITE, ALIAS, COUPLING, MODELS };
const char *const model_names[MODELS] = {"Stuck at 0", "Stuck at 1", "Lost write", "Alias", "Coupling"};

alignas(4096) char given_buffer[CACHE_SIZE];  // the Random Offset test is handed its buffer

struct subtest {
    const char *name;
    const char *function;
    bool verifies;  // compares what it reads back (else traffic only)
    bool given;     // works on given_buffer instead of allocating
    std::function<int()> run;
};

const subtest subtests[] = {
    {"Write/Read/Verify", "cache_wrrdvr_stress", true, false,
     [] { return cache_wrrdvr_stress(nullptr, CACHE_SIZE, WAYS, ITERATIONS); }},
    {"Cache Hit", "cache_hit_stress", true, false, [] { return cache_hit_stress(nullptr, CACHE_SIZE, LINE_SIZE, ITERATIONS); }},
    {"Cache Miss", "cache_miss_stress", false, false,
     [] { return cache_miss_stress(nullptr, CACHE_SIZE, LINE_SIZE, WAYS, ITERATIONS); }},
    {"Random Swap", "crand", false, false, [] { return crand(nullptr, CACHE_SIZE); }},
    {"Interconnect", "cache_interconnect_stress", false, false,
     [] { return cache_interconnect_stress(nullptr, CACHE_SIZE, ITERATIONS); }},
    {"30N march, variable data", "cache_march_stress4", false, false, [] { return cache_march_stress4(nullptr, CACHE_SIZE); }},
    {"30N march, line striding", "cache_march_stress3", false, false,
     [] { return cache_march_stress3(nullptr, CACHE_SIZE, ITERATIONS); }},
    {"Row-striding march", "cache_march_stress1", true, false,
     [] { return cache_march_stress1(nullptr, CACHE_SIZE, LINE_SIZE, ITERATIONS); }},
    {"Column-striding march", "cache_march_stress2", true, false,
     [] { return cache_march_stress2(nullptr, CACHE_SIZE, ITERATIONS); }},
    {"Random Offset", "cache_rand_off_stress", true, true,
     [] { return cache_rand_off_stress(given_buffer, CACHE_SIZE, ITERATIONS); }},
};

// splitmix64, one stream per subtest and purpose (FNV-1a of its function's
// name), so the positions of one subtest do not move when another changes.
struct draws {
    uint64_t state;
    draws(const subtest &test, uint64_t purpose) : state(0xCBF29CE484222325u)
    {
        for (const char *c = test.function; *c != '\0'; c++)
            state = (state ^ static_cast<unsigned char>(*c)) * 0x100000001B3u;
        state ^= purpose;
    }
    uint64_t next()
    {
        uint64_t z = (state += 0x9E3779B97F4A7C15u);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
        return z ^ (z >> 31);
    }
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(next() % bound); }
};

std::vector<long> seeds_of(const subtest &test)
{
    draws d(test, 1);
    std::vector<long> seeds;
    for (int s = 0; s < SEEDS; s++)
        seeds.push_back(static_cast<long>(d.next() & 0xFFFFFFFFu));  // srand48 keeps 32 bits
    return seeds;
}

// What a fault-free run did with each word of each buffer.
enum use : uint8_t { TOUCHED = 1, STORED = 2, READ_BACK = 4 };  // read back: loaded after a store

struct buffer {
    char *start;
    size_t length;
    bool live;
    std::vector<uint8_t> words;
};

struct probe {
    bool failed = false;
    std::vector<buffer> buffers;
    int stray = 0;  // accesses outside every live buffer
};

probe *probing;
char *planted_block;  // a fault ends with the buffer it is planted in

void note_buffer(void *block, size_t length)
{
    std::memset(block, FILL_BYTE, length);
    probing->buffers.push_back({static_cast<char *>(block), length, true, std::vector<uint8_t>((length + 3) / 4)});
}

void note_access(const void *address, unsigned width, bool store)
{
    auto byte = reinterpret_cast<const char *>(address);
    for (size_t b = probing->buffers.size(); b-- > 0;) {
        buffer &in = probing->buffers[b];
        if (!in.live || byte < in.start || byte + width > in.start + in.length)
            continue;
        for (auto w = static_cast<size_t>(byte - in.start) / 4; w <= static_cast<size_t>(byte + width - 1 - in.start) / 4; w++)
            in.words[w] |= TOUCHED | (store ? STORED : (in.words[w] & STORED) ? READ_BACK : 0);
        return;
    }
    probing->stray++;
}

}  // namespace

// Every free of the process passes here: it ends the fault planted in the
// block being freed (a later kernel's buffer at the same address is sound
// memory), and the life of a block a fault-free run watches.
extern "C" void free(void *address)
{
    if (address != nullptr && address == planted_block) {
        planted_block = nullptr;
        fault::reset();
    }
    if (address != nullptr && probing != nullptr)
        for (buffer &b : probing->buffers)
            if (b.start == address)
                b.live = false;
    __libc_free(address);
}

namespace {

void start_run(long seed)
{
    fake::reset();
    fault::reset();
    pagesize = 4096;
    srand48(seed);
}

probe probe_run(const subtest &test, long seed)
{
    probe watched;
    watched.buffers.reserve(16);  // free() looks at them: they must not move
    start_run(seed);
    probing = &watched;
    if (test.given)
        note_buffer(given_buffer, CACHE_SIZE);
    else
        fake::on_memalign(note_buffer);
    fault::on_access(note_access);
    try {
        watched.failed = test.run() != 0;
    } catch (const fake::exit_request &) {
        watched.failed = true;
    }
    probing = nullptr;
    fault::reset();
    return watched;
}

enum verdict { PASSED, FOUND, OTHER };

// A run with a fault planted in the subtest's nth buffer. FOUND when it
// reports the miscompare (a status, or the message that ends the test);
// OTHER for any other failure, or when the buffer never came.
verdict planted_run(const subtest &test, long seed, int nth, const std::function<void(char *)> &plant)
{
    start_run(seed);
    bool planted = test.given;
    if (test.given) {
        std::memset(given_buffer, FILL_BYTE, CACHE_SIZE);
        plant(given_buffer);
    } else {
        fault::in_allocation(nth, [&](char *block, size_t length) {
            std::memset(block, FILL_BYTE, length);
            plant(block);
            planted_block = block;
            planted = true;
        });
    }
    int status = 0;
    bool miscompare = false;
    try {
        status = test.run();
        miscompare = status == L2_MISCOMPARE;
    } catch (const fake::exit_request &request) {
        status = -1;
        miscompare = request.number == MSG_MISCOMPARE && request.exit_flag == DXT_STEP_FAIL;
    }
    planted_block = nullptr;
    fault::reset();
    if (planted && status == L2_PASSED)
        return PASSED;
    return planted && test.verifies && miscompare ? FOUND : OTHER;
}

char *word_at(char *block, uint32_t word) { return block + 4 * uintptr_t{word}; }

struct placement {
    int nth;
    uint32_t word, other;  // other: the alias (word XOR one address bit) or the coupling's victim
    int bit;
    int seed;
};

std::function<void(char *)> fault_of(int m, const placement &p)
{
    switch (m) {
    case STUCK_AT_0:
    case STUCK_AT_1:
        return [p, m](char *b) { fault::stuck_at(word_at(b, p.word), p.bit, m == STUCK_AT_1); };
    case LOST_WRITE:
        return [p](char *b) { fault::lost_write(word_at(b, p.word)); };
    case ALIAS:
        return [p](char *b) { fault::alias(word_at(b, p.word), word_at(b, p.other)); };
    default:
        return [p](char *b) { fault::coupling(word_at(b, p.word), word_at(b, p.other), p.bit); };
    }
}

struct share {
    int found = 0, placed = 0;
    void add(bool f) { placed++, found += f; }
    std::string text() const
    {
        char t[64];
        std::snprintf(t, sizeof t, "%.1f%% (%d/%d)", placed ? 100.0 * found / placed : 0.0, found, placed);
        return placed ? t : "-";
    }
};

struct row {
    share all[MODELS], touched[MODELS], read_back[MODELS];
    int other_failures = 0, stray = 0;
};

row measure(const subtest &test)
{
    row r;
    std::vector<long> seeds = seeds_of(test);
    std::vector<probe> probes;
    for (long seed : seeds) {
        probes.push_back(probe_run(test, seed));
        r.other_failures += probes.back().failed;
        r.stray += probes.back().stray;
    }
    const std::vector<buffer> &buffers = probes[0].buffers;
    uint32_t all_words = 0;
    for (const buffer &b : buffers)
        all_words += static_cast<uint32_t>(b.words.size());
    draws d(test, 2);
    for (int j = 0; j < PLACEMENTS && all_words > 0; j++) {
        placement p{0, d.below(all_words), 0, static_cast<int>(d.below(32)), j % SEEDS};
        while (p.word >= buffers[p.nth].words.size())
            p.word -= static_cast<uint32_t>(buffers[p.nth++].words.size());
        auto words = static_cast<uint32_t>(buffers[p.nth].words.size());
        std::vector<uint32_t> address_bits;  // a decoder that ignores one of them
        for (uint32_t bit = 0; (1u << bit) < words; bit++)
            if ((p.word ^ (1u << bit)) < words)
                address_bits.push_back(bit);
        uint32_t alias = p.word ^ (1u << address_bits[d.below(static_cast<uint32_t>(address_bits.size()))]);
        uint32_t victim = d.below(words - 1);
        victim += victim >= p.word;
        const std::vector<uint8_t> &use = probes[p.seed].buffers[p.nth].words;
        for (int m = 0; m < MODELS; m++) {
            p.other = m == ALIAS ? alias : victim;
            bool two_words = m == ALIAS || m == COUPLING;
            verdict v = planted_run(test, seeds[p.seed], p.nth, fault_of(m, p));
            r.all[m].add(v == FOUND);
            if ((use[p.word] & TOUCHED) && (!two_words || (use[p.other] & TOUCHED)))
                r.touched[m].add(v == FOUND);
            if ((use[p.word] & READ_BACK) && (!two_words || (use[p.other] & READ_BACK)))
                r.read_back[m].add(v == FOUND);
            r.other_failures += v == OTHER;
        }
    }
    return r;
}

const char BEGIN[] = "<!-- coverage_report: begin of the generated tables, do not edit -->";
const char END[] = "<!-- coverage_report: end of the generated tables -->";

std::string table_line(const subtest &test, const share *cells)
{
    std::string line = std::string("| ") + test.name + " `" + test.function + "` |";
    for (int i = 0; i < MODELS; i++)
        line += " " + cells[i].text() + " |";
    return line;
}

std::string tables(const std::vector<row> &rows)
{
    std::ostringstream out;
    out << "\nEvery subtest runs with `cache_size` " << CACHE_SIZE << ", `line_size` " << LINE_SIZE << ", `ways` "
        << WAYS << " and `iterations` " << ITERATIONS << "; " << PLACEMENTS
        << " placements per subtest, the same positions for every fault model, over " << SEEDS
        << " seeds of the program's generator.\n";
    std::string header = "| Subtest |", rule = "|---|";
    for (const char *name : model_names)
        header += std::string(" ") + name + " |", rule += "---|";
    const struct {
        const char *title;
        const share *(*cells)(const row &);
        bool verifying_only;
    } views[] = {{"of all words", [](const row &r) -> const share * { return r.all; }, false},
                 {"of the words the subtest touches", [](const row &r) -> const share * { return r.touched; }, false},
                 {"of the words the subtest reads back after writing them",
                  [](const row &r) -> const share * { return r.read_back; }, true}};
    for (const auto &view : views) {
        out << "\n### Found, " << view.title << "\n\n" << header << "\n" << rule << "\n";
        for (size_t i = 0; i < rows.size(); i++)
            if (subtests[i].verifies || !view.verifying_only)
                out << table_line(subtests[i], view.cells(rows[i])) << "\n";
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
        // A verifying subtest must find a lost write and a stuck bit
        // somewhere; a traffic-only one must never report a fault.
        int found = r.all[LOST_WRITE].found + r.all[STUCK_AT_0].found + r.all[STUCK_AT_1].found;
        bool wrong = test.verifies ? r.all[LOST_WRITE].found == 0 || found == r.all[LOST_WRITE].found : found > 0;
        if (r.other_failures != 0 || r.stray != 0 || wrong) {
            std::fprintf(stderr, "%s: %d runs failed for another reason, %d accesses outside its buffers%s\n",
                         test.function, r.other_failures, r.stray,
                         !wrong ? "" : test.verifies ? ", a planted fault it never found" : ", a fault it reported");
            bad = 1;
        }
    }
    std::string generated = tables(rows);
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
