// The whole program with a faulty memory word, for end-to-end runs through
// the real harness: TARNEL_FAULT=<kind>,<cpu>,<allocation>,<byte offset>[,<bit>]
// plants a fault (kind stuck0, stuck1, lost, or flip: one read wrong) in the
// given word of the nth block (0 = the first) that the worker bound to
// processor <cpu> allocates, or with "sweep" for the allocation, of the
// buffer of the harness's localisation sweep on that processor; kind hang
// stops that worker at that word for ever, as a stuck processor would;
// coupling,<cpu>,<allocation>,<offset>,<bit>,<victim offset> flips the bit
// of the victim's word at every store to the word at offset.
// Several faults are separated by ';'.
// A position outside that block, or a fault the run never planted on a
// processor it was let use, ends the run with status 2 and says why: a run
// that tested no fault must not pass as a proof. (A run one L2 at a time
// runs each L2's turn on those processors alone.)
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <algorithm>

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
    char kind[16] = {}, where[16] = {};
    int cpu = -1, bit = 0;
    unsigned long long offset = 0, victim = 0;
    int fields = sscanf(spec, "%15[a-z01],%d,%15[a-z0-9],%llu,%d,%llu", kind, &cpu, where, &offset, &bit, &victim);
    std::string_view k = kind;
    bool sweep = strcmp(where, "sweep") == 0;
    int allocation = sweep ? 0 : atoi(where);
    bool known = k == "stuck0" || k == "stuck1" || k == "lost" || k == "hang" || k == "flip" || k == "coupling";
    if (fields < 4 || cpu < 0 || allocation < 0 || bit < 0 || bit > 31 || !known || (k == "coupling" && fields < 6))
        refuse("expected <stuck0|stuck1|lost|hang|flip>,<cpu>,<allocation|sweep>,<byte offset>[,<bit>], or "
               "coupling,<cpu>,<allocation|sweep>,<byte offset>,<bit>,<victim's byte offset>");
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0 || (cpu < CPU_SETSIZE && CPU_ISSET(cpu, &allowed)))
        asked = true;
    auto place = [k = std::string(k), offset, bit, victim, cpu, where = std::string(where)](char *block, size_t length) {
        if (std::max(offset, victim) + 4 > length) {
            char why[160];
            snprintf(why, sizeof why, "byte offset %llu is outside block %s of cpu%d (%zu bytes)",
                     std::max(offset, victim), where.c_str(), cpu, length);
            refuse(why);
        }
        if (k == "hang")
            fault::stall(block + offset);
        else if (k == "stuck0" || k == "stuck1")
            fault::stuck_at(block + offset, bit, k[5] == '1');
        else if (k == "flip")
            fault::flip_once(block + offset, bit);
        else if (k == "coupling")
            fault::coupling(block + offset, block + victim, bit);
        else
            fault::lost_write(block + offset);
        planted = true;
    };
    if (sweep)
        fault::in_sweep(cpu, place);
    else
        fault::in_allocation(allocation, place, cpu);
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
