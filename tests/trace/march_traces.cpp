// The block marches in the built program: every store and every load of
// every element, in order, on a tiny cache size and one pass. The loads of
// the read elements are never used, so this is where their survival in the
// optimised code shows.
#include <cstdint>
#include <vector>

#include "fakes.h"
#include "march/genmarch.h"
#include "trace_case.h"

namespace {

// One operation at a block: a read or a write (of P or Q alike: the trace
// sees addresses, not values), or element 16's load of word 3 alone.
enum op { READ, WRITE, PROBE };

struct element {
    bool ascending;
    std::vector<op> ops;
};

// The eighteen elements of both 30N marches; the line march writes once
// where the variable-data march writes P and Q.
const element march_30n[] = {
    {true, {WRITE}},
    {true, {READ, WRITE}},
    {false, {READ}},
    {true, {READ, WRITE}},
    {false, {READ}},
    {false, {READ, WRITE}},
    {true, {READ}},
    {false, {READ, WRITE}},
    {true, {READ}},
    {true, {READ, WRITE, WRITE}},
    {false, {READ}},
    {false, {READ, WRITE, WRITE}},
    {true, {READ}},
    {true, {WRITE}},
    {true, {READ, WRITE, WRITE}},
    {false, {PROBE}},
    {false, {READ, WRITE, WRITE}},
    {true, {READ}},
};

// Block addresses of one order over a region of `region` bytes at `base`.
std::vector<const char *> blocks(const char *base, uint32_t region, uint32_t block, bool ascending)
{
    std::vector<const char *> order;
    int64_t last = int64_t{region} - block;
    if (ascending)
        for (int64_t offset = 0; offset < last; offset += block)
            order.push_back(base + offset);
    else
        for (int64_t offset = last; offset > 0; offset -= block)
            order.push_back(base + offset);
    return order;
}

void expect_words(const char *address, int words, bool store)
{
    for (int i = 0; i < words; i++)
        store ? expect_store(address + 4 * i, 4) : expect_load(address + 4 * i, 4);
}

// Ends the traced stretch and watches the subtest's buffer, the first block
// memalign handed out.
const char *the_buffer()
{
    trace_end();
    watch_allocations();
    return static_cast<const char *>(fake::memalign_results().at(0).address);
}

// The line march: a write stores words 0 to 3 of a 32-byte block, a read
// loads word 3; one march per base value.
void line_march(uint32_t cache_size)
{
    trace_begin();
    cache_march_stress3(nullptr, cache_size, 1);
    const char *base = the_buffer();
    uint32_t region = march_region_bytes(cache_size);
    for (int v = 0; gen_cache_patt[v] != PATT_END; v++)
        for (const element &e : march_30n)
            for (const char *p : blocks(base, region, 32, e.ascending))
                for (size_t i = 0; i < e.ops.size(); i++) {
                    // Write P, write Q is a single write of v here.
                    if (e.ops[i] != WRITE)
                        expect_load(p + 12, 4);
                    else if (i == 0 || e.ops[i - 1] != WRITE)
                        expect_words(p, 4, true);
                }
}

// The variable-data march: whole 16-word blocks, element 16 a single load
// at byte 12; ten modes of five base values.
void variable_march(uint32_t cache_size)
{
    trace_begin();
    cache_march_stress4(nullptr, cache_size);
    const char *base = the_buffer();
    uint32_t region = march_region_bytes(cache_size);
    for (int mode = 1; mode <= 10; mode++)
        for (int v = 0; cache_patt[v] != PATT_END; v++)
            for (const element &e : march_30n)
                for (const char *p : blocks(base, region, 64, e.ascending))
                    for (op o : e.ops)
                        o == PROBE ? expect_load(p + 12, 4) : expect_words(p, 16, o == WRITE);
}

// Sixteen passes of a store sweep and a load sweep per pattern, two
// patterns a pass, over every block but the last.
void interconnect(uint32_t cache_size)
{
    trace_begin();
    cache_interconnect_stress(nullptr, cache_size, 1);
    const char *base = the_buffer();
    std::vector<const char *> sweep = blocks(base, march_region_bytes(cache_size), 64, true);
    for (int sweeps = 0; sweeps < 16 * 2; sweeps++)
        for (bool store : {true, false})
            for (const char *p : sweep)
                expect_words(p, 16, store);
}

// 512 bytes: a region of 256 bytes, 8 line blocks or 4 pattern blocks;
// 384 bytes: 3 pattern blocks (fifty marches make every block count).
// 200 bytes: a region of 100 bytes, whose descending line blocks sit 4
// bytes off the ascending ones.
trace_case line_512("march_line_512", [] { line_march(512); });
trace_case line_200("march_line_200", [] { line_march(200); });
trace_case variable_384("march_variable_384", [] { variable_march(384); });
trace_case interconnect_512("march_interconnect_512", [] { interconnect(512); });

}  // namespace
