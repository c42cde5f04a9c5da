// The whole program with a faulty memory word, for end-to-end runs through
// the real harness: TARNEL_FAULT=<kind>,<cpu>,<allocation>,<byte offset>[,<bit>]
// plants a fault (kind stuck0, stuck1 or lost) in the given word of the nth
// block (0 = the first) that the worker bound to processor <cpu> allocates;
// kind hang stops that worker at that word for ever, as a stuck processor
// would.
// Several faults are separated by ';'.
// A position outside that block, or a fault the run never planted, ends
// the run with status 2 and says why: a run that tested no fault must not
// pass as a proof.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fault_model.h"

extern "C" int __real_test_end(void);

namespace {

std::atomic<bool> asked{false};
std::atomic<bool> planted{false};

[[noreturn]] void refuse(const char *why)
{
    fprintf(stderr, "TARNEL_FAULT: %s\n", why);
    fflush(stderr);
    _exit(2);
}

void plant(const char *spec)
{
    char kind[16] = {};
    int cpu = -1, allocation = -1, bit = 0;
    unsigned long long offset = 0;
    int fields = sscanf(spec, "%15[a-z01],%d,%d,%llu,%d", kind, &cpu, &allocation, &offset, &bit);
    bool stuck = strcmp(kind, "stuck0") == 0 || strcmp(kind, "stuck1") == 0;
    bool hang = strcmp(kind, "hang") == 0;
    if (fields < 4 || cpu < 0 || allocation < 0 || bit < 0 || bit > 31 ||
        (!stuck && !hang && strcmp(kind, "lost") != 0))
        refuse("expected <stuck0|stuck1|lost|hang>,<cpu>,<allocation>,<byte offset>[,<bit>]");
    asked = true;
    fault::in_allocation(
        allocation,
        [stuck, hang, value = kind[5] == '1', offset, bit, cpu, allocation](char *block, size_t length) {
            if (offset + 4 > length) {
                char why[160];
                snprintf(why, sizeof why, "byte offset %llu is outside block %d of cpu%d (%zu bytes)", offset,
                         allocation, cpu, length);
                refuse(why);
            }
            if (hang)
                fault::stall(block + offset);
            else if (stuck)
                fault::stuck_at(block + offset, bit, value);
            else
                fault::lost_write(block + offset);
            planted = true;
        },
        cpu);
}

__attribute__((constructor)) void plant_from_environment()
{
    const char *spec = getenv("TARNEL_FAULT");
    for (; spec != nullptr; spec = strchr(spec, ';') != nullptr ? strchr(spec, ';') + 1 : nullptr)
        plant(spec);
}

}  // namespace

// Linked with --wrap=test_end: the program's call of test_end comes here.
extern "C" int __wrap_test_end(void)
{
    if (asked && !planted)
        refuse("the fault was never planted: that processor's worker allocated no such block");
    return __real_test_end();
}
