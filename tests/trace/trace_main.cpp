// trace_run CASE: runs one subtest on a tiny buffer between two reads of a
// marker word and prints, for check_trace.py:
//   X start end     the program's code (accesses made by other code, such as
//                   the C library's allocator, are not the subtest's)
//   M address       the marker word
//   B start length  each block memalign handed out, in order
// Built against the fault-model program (trace_record), it also prints every
// access the source makes through the access helpers, L/S address width, in
// order: what the optimised program must do, access for access, under lackey.
#include <malloc.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <functional>

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

// One case a kernel family, each on a geometry that makes every phase run
// and in which no block is freed before the next is handed out (an address
// used twice would leave the checker unable to tell the blocks apart).
// The 200-byte line march has a 100-byte region, so its descending blocks sit
// 4 bytes off the ascending ones.
const struct {
    const char *name;
    std::function<void()> run;
} cases[] = {
    {"stress_wrrdvr", [] { cache_wrrdvr_stress(nullptr, 32, 1, 1); }},
    {"stress_basic_dtype", [] { basic_dtype_l2cachehit_stress(nullptr, 32, 2); }},
    {"stress_wrrdwr", [] { l2cachehit_wrrdwr(nullptr, 64, 4, 2); }},
    {"stress_derived", [] { derived_dtype_test(nullptr, 35, 2); }},
    {"stress_readmiss", [] { cache_readmiss(memalign(64, 64), 64, 24, 1); }},
    {"stress_miss", [] { cache_miss_stress(nullptr, 32, 16, 2, 1); }},
    {"stress_rand_off",
     [] {
         fake::script_lrand48({0x8001, 12, 3, 5, 3, 0x40, 8, 7, 9, 4, 11});
         cache_rand_off_stress(memalign(64, 64), 64, 2);
     }},
    {"stress_march_rows", [] { cache_march_stress1(nullptr, 32, 16, 1); }},
    {"stress_march_columns", [] { cache_march_stress2(nullptr, 32, 1); }},
    {"stress_crand", [] { crand(nullptr, 64); }},
    {"march_line_512", [] { cache_march_stress3(nullptr, 512, 1); }},
    {"march_line_200", [] { cache_march_stress3(nullptr, 200, 1); }},
    {"march_variable_384", [] { cache_march_stress4(nullptr, 384); }},
    {"march_interconnect_512", [] { cache_interconnect_stress(nullptr, 512, 1); }},
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
        pagesize = 4096;
#ifdef L2_FAULT_MODEL
        fault::on_access([](const void *address, unsigned width, bool store) {
            printf("%c %" PRIxPTR " %x\n", store ? 'S' : 'L', reinterpret_cast<uintptr_t>(address), width);
        });
#endif
        (void)l2_ld32(&marker);
        c.run();
        (void)l2_ld32(&marker);
        for (const fake::range &block : fake::memalign_results())
            printf("B %" PRIxPTR " %zx\n", reinterpret_cast<uintptr_t>(block.address), block.length);
        return 0;
    }
    fprintf(stderr, "usage: trace_run CASE\ncases:");
    for (const auto &c : cases)
        fprintf(stderr, " %s", c.name);
    fprintf(stderr, "\n");
    return 2;
}
