// trace_run [--expect] CASE: runs one trace case and prints, for
// check_trace.py:
//   X start end     the program's code (accesses made by other code, such as
//                   the C library's allocator, are not the subtest's)
//   M address       the marker word read by trace_begin and trace_end
//   B start length  a watched buffer, in the order the case names them
// and, with --expect only, the expected accesses in order:
//   L/S address size
// The traced run (under lackey) leaves the expected accesses out: every
// instruction the runner executes there is logged, and working them out
// would cost far more than the subtest itself. The checker takes them from
// a plain run and compares offsets into the watched buffers, which are the
// same in both runs.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "fakes.h"
#include "trace_case.h"
#include "util/l2_util.h"

extern "C" char __executable_start;
extern "C" char etext;

namespace {

std::map<std::string, trace_case_fn> &cases()
{
    static std::map<std::string, trace_case_fn> registry;
    return registry;
}

uint32_t marker;
bool expecting;

void expect(char kind, const void *address, unsigned size)
{
    if (expecting)
        printf("%c %" PRIxPTR " %x\n", kind, reinterpret_cast<uintptr_t>(address), size);
}

}  // namespace

trace_case::trace_case(const char *name, trace_case_fn run) { cases()[name] = run; }

void trace_begin() { (void)l2_ld32(&marker); }
void trace_end() { (void)l2_ld32(&marker); }

void watch(const void *start, size_t length) { printf("B %" PRIxPTR " %zx\n", reinterpret_cast<uintptr_t>(start), length); }

void watch_allocations()
{
    for (const fake::range &block : fake::memalign_results())
        watch(block.address, block.length);
}

void expect_load(const void *address, unsigned size) { expect('L', address, size); }
void expect_store(const void *address, unsigned size) { expect('S', address, size); }

int main(int argc, char **argv)
{
    expecting = argc == 3 && strcmp(argv[1], "--expect") == 0;
    const char *name = argv[argc - 1];
    if (argc != 2 + expecting || cases().count(name) == 0) {
        fprintf(stderr, "usage: trace_run [--expect] CASE\ncases:");
        for (const auto &entry : cases())
            fprintf(stderr, " %s", entry.first.c_str());
        fprintf(stderr, "\n");
        return 2;
    }
    printf("X %" PRIxPTR " %" PRIxPTR "\n", reinterpret_cast<uintptr_t>(&__executable_start),
           reinterpret_cast<uintptr_t>(&etext));
    printf("M %" PRIxPTR "\n", reinterpret_cast<uintptr_t>(&marker));
    fake::reset();
    cases()[name]();
    return 0;
}
