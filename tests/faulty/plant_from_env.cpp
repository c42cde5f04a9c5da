// The whole program with a faulty memory word, for end-to-end runs through
// the real harness: TARNEL_FAULT=<kind>,<allocation>,<byte offset>[,<bit>]
// plants a fault (kind stuck0, stuck1 or lost) in the given word of the nth
// block memalign hands out (0 = the first). Run it on one processor
// (taskset -c 0) so that "the nth block" names one worker's buffer.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fault_model.h"

namespace {

__attribute__((constructor)) void plant_from_environment()
{
    const char *spec = getenv("TARNEL_FAULT");
    if (spec == nullptr)
        return;
    char kind[16] = {};
    int allocation = -1;
    unsigned long offset = 0;
    int bit = 0;
    int fields = sscanf(spec, "%15[a-z01],%d,%lu,%d", kind, &allocation, &offset, &bit);
    bool stuck = strcmp(kind, "stuck0") == 0 || strcmp(kind, "stuck1") == 0;
    if (fields < 3 || allocation < 0 || bit < 0 || bit > 31 || (!stuck && strcmp(kind, "lost") != 0)) {
        fprintf(stderr, "TARNEL_FAULT: expected <stuck0|stuck1|lost>,<allocation>,<byte offset>[,<bit>]\n");
        exit(2);
    }
    fault::in_allocation(allocation, [stuck, value = kind[5] == '1', offset, bit](char *block, size_t) {
        if (stuck)
            fault::stuck_at(block + offset, bit, value);
        else
            fault::lost_write(block + offset);
    });
}

}  // namespace
