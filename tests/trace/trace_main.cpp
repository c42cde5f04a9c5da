// trace_run CASE: runs one trace case and prints, for check_trace.py:
//   X start end     the program's code (accesses made by other code, such as
//                   the C library's allocator, are not the subtest's)
//   M address       the marker word read by trace_begin and trace_end
//   B start length  a watched buffer
//   L/S address size  the expected accesses, in order
#include <charconv>
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

namespace {

// Formatted by hand: under lackey one printf costs some 1500 traced
// accesses, which made cases of tens of thousands of expected accesses
// (the block marches) run for minutes.
void expect(char kind, const void *address, unsigned size)
{
    char line[48];
    char *end = line;
    *end++ = kind;
    *end++ = ' ';
    end = std::to_chars(end, line + sizeof line, reinterpret_cast<uintptr_t>(address), 16).ptr;
    *end++ = ' ';
    end = std::to_chars(end, line + sizeof line, size, 16).ptr;
    *end++ = '\n';
    fwrite(line, 1, static_cast<size_t>(end - line), stdout);
}

}  // namespace

void expect_load(const void *address, unsigned size) { expect('L', address, size); }
void expect_store(const void *address, unsigned size) { expect('S', address, size); }

int main(int argc, char **argv)
{
    if (argc != 2 || cases().count(argv[1]) == 0) {
        fprintf(stderr, "usage: trace_run CASE\ncases:");
        for (const auto &entry : cases())
            fprintf(stderr, " %s", entry.first.c_str());
        fprintf(stderr, "\n");
        return 2;
    }
    printf("X %" PRIxPTR " %" PRIxPTR "\n", reinterpret_cast<uintptr_t>(&__executable_start),
           reinterpret_cast<uintptr_t>(&etext));
    printf("M %" PRIxPTR "\n", reinterpret_cast<uintptr_t>(&marker));
    fake::reset();
    cases()[argv[1]]();
    return 0;
}
