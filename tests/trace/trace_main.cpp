// trace_run CASE: runs one subtest at a small geometry with scripted draws,
// between two reads of a marker word, and prints
//   X start end        the program's code (accesses made by other code, such
//                      as the C library's allocator, are not the subtest's)
//   M address          the marker word
//   B address length   each block memalign hands out, when it does (filled
//                      with 0x11, so that values computed from loads repeat)
//   D lrand48 drand48  the draws made, at the end
// Nothing is freed, so no address is handed out twice. Built against the
// fault-model program (trace_record) it also prints every access the
// source makes through the access helpers, in order, `S address width
// value` or `L address width value`: what the optimised program must do,
// access for access, under lackey (check_trace.py), and what the reviewed
// records hold (record.py).
#include <malloc.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <functional>
#include <vector>

#include "fakes.h"
#include "march/genmarch.h"
#include "stress/l2cache.h"
#include "util/l2_util.h"
#ifdef L2_FAULT_MODEL
#include "fault_model.h"
#endif

extern "C" char __executable_start;
extern "C" char etext;

namespace {

uint32_t marker;

// The switching patterns of 16 passes, each built twice: bit j walks, the
// base and the mode take each of their values in turn.
std::vector<long> switching_draws()
{
    std::vector<long> draws;
    for (long pass = 0; pass < 16; pass++)
        for (int build = 0; build < 2; build++)
            draws.insert(draws.end(), {pass, pass % 2, pass / 2 % 2});
    return draws;
}

// A random pattern, then a stride of 3 words for each of the 12 passes, the
// last pattern random again.
std::vector<long> swap_draws()
{
    std::vector<long> draws = {0x5A5A};
    for (int pass = 1; pass <= 12; pass++)
        draws.insert(draws.end(), pass == 12 ? std::initializer_list<long>{1, 24} : std::initializer_list<long>{24});
    return draws;
}

const struct {
    const char *name;
    std::vector<long> lrand48s;
    std::vector<double> drand48s;
    std::function<void()> run;
} cases[] = {
    {"wrrdvr", {0x100, 0x7FFFFFFA}, {}, [] { cache_wrrdvr_stress(nullptr, 32, 2, 2); }},
    {"hit", {0x0F0F, 0x0101, 0x1000}, {0.25}, [] { cache_hit_stress(nullptr, 128, 16, 2); }},
    {"miss", {3, 0x1000}, {0.5}, [] { cache_miss_stress(nullptr, 64, 16, 2, 2); }},
    {"random_swap", swap_draws(), {}, [] { crand(nullptr, 128); }},
    {"interconnect", switching_draws(), {}, [] { cache_interconnect_stress(nullptr, 256, 1); }},
    {"march_variable", {}, {}, [] { cache_march_stress4(nullptr, 256); }},
    {"march_line", {}, {}, [] { cache_march_stress3(nullptr, 128, 2); }},
    {"march_rows", {2, 13, 0x12345678, 1}, {}, [] { cache_march_stress1(nullptr, 32, 16, 3); }},
    {"march_columns", {5, 3}, {}, [] { cache_march_stress2(nullptr, 32, 2); }},
    // Patterns 0x12341234 and 0x7FFF0000; lists {5, 0, 15}, {7, 7} and {9}.
    {"random_offset", {0x1234, 12, 5, 16, 31, 0x7FFF0000, 8, 7, 7, 4, 9}, {},
     [] { cache_rand_off_stress(memalign(4096, 64), 64, 2); }},
};

}  // namespace

int main(int argc, char **argv)
{
    for (const auto &c : cases) {
        if (argc != 2 || strcmp(argv[1], c.name) != 0)
            continue;
        printf("X %" PRIxPTR " %" PRIxPTR "\nM %" PRIxPTR "\n", reinterpret_cast<uintptr_t>(&__executable_start),
               reinterpret_cast<uintptr_t>(&etext), reinterpret_cast<uintptr_t>(&marker));
        fake::reset();
        fake::keep_freed_blocks();
        pagesize = 4096;
        fake::script_lrand48(c.lrand48s);
        fake::script_drand48(c.drand48s);
        fake::on_memalign([](void *block, size_t length) {
            memset(block, 0x11, length);
            printf("B %" PRIxPTR " %zx\n", reinterpret_cast<uintptr_t>(block), length);
        });
#ifdef L2_FAULT_MODEL
        fault::on_access([](const void *address, unsigned width, bool store, uint64_t value) {
            printf("%c %" PRIxPTR " %x %" PRIx64 "\n", store ? 'S' : 'L', reinterpret_cast<uintptr_t>(address),
                   width, value);
        });
#endif
        (void)l2_ld32(&marker);
        c.run();
        (void)l2_ld32(&marker);
        printf("D %d %d\n", fake::lrand48_calls(), fake::drand48_calls());
        return 0;
    }
    fprintf(stderr, "usage: trace_run CASE\ncases:");
    for (const auto &c : cases)
        fprintf(stderr, " %s", c.name);
    fprintf(stderr, "\n");
    return 2;
}
