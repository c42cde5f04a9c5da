// trace_run CASE: runs one case of cases.txt (a subtest at a small geometry
// with scripted draws) between two reads of a marker word, and prints
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
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "fakes.h"
#include "kernel_calls.h"
#include "table.h"
#include "util/l2_util.h"
#ifdef L2_FAULT_MODEL
#include "fault_model.h"
#endif

extern "C" char __executable_start;
extern "C" char etext;

namespace {

uint32_t marker;

// The numbers of a field, in any base strtold reads (0x1000, 0.25).
template <typename T>
std::vector<T> numbers(const std::string &field)
{
    std::vector<T> out;
    std::istringstream words(field);
    for (std::string word; words >> word;)
        out.push_back(static_cast<T>(std::strtold(word.c_str(), nullptr)));
    return out;
}

}  // namespace

int main(int argc, char **argv)
{
    const auto cases = table_rows(TARNEL_TEST_DATA "/cases.txt", 4);
    for (const auto &c : cases) {
        if (argc != 2 || c[0] != argv[1])
            continue;
        printf("X %" PRIxPTR " %" PRIxPTR "\nM %" PRIxPTR "\n", reinterpret_cast<uintptr_t>(&__executable_start),
               reinterpret_cast<uintptr_t>(&etext), reinterpret_cast<uintptr_t>(&marker));
        fake::reset();
        fake::keep_freed_blocks();
        pagesize = 4096;
        fake::script_lrand48(numbers<long>(c[2]));
        fake::script_drand48(numbers<double>(c[3]));
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
        std::function<int()> run = kernel_call(c[1]);
        (void)l2_ld32(&marker);
        run();
        (void)l2_ld32(&marker);
        printf("D %d %d\n", fake::lrand48_calls(), fake::drand48_calls());
        return 0;
    }
    fprintf(stderr, "usage: trace_run CASE\ncases:");
    for (const auto &c : cases)
        fprintf(stderr, " %s", c[0].c_str());
    fprintf(stderr, "\n");
    return 2;
}
