// What this machine offers a run: the processors it will test and those it
// leaves out, and why; each one's physical part and L2 as its worker takes
// it (or would); and the host's identity.
#ifndef TARNEL_DXTTEST_MACHINE_H
#define TARNEL_DXTTEST_MACHINE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "dxtsysinfo_ext.h"

namespace dxt {

// One tested processor's L2 as its worker takes it, with where each value
// came from ("sysfs", "CPUID leaf 4", ..., "sysconf", "defaults").
struct l2_geometry {
    int cpu;
    uint32_t size;
    uint32_t line;
    uint32_t ways;
    const char *size_source;
    const char *line_source;
    const char *ways_source;
    const char *shared_cpus;  // the processors sharing it, "0-1", or "unknown"
};

// The geometry a worker announced (its cache size and line size), with
// where it came from: the first of its processor's descriptors 4 and 2 that
// holds that size, whose ways it took; the defaults when neither does.
l2_geometry announced_l2(int cpu, uint32_t size, uint32_t line, const char *shared_cpus);

// Why a processor was left out: before the run, "offline" or "not-allowed"
// (outside the process's CPU set); during it, "thread-not-created" (its
// worker, entry `entry` of the worker table, was never created) or
// "not-bound" (its worker could not be bound to it, so it ran wherever the
// scheduler put it); at an early end, "cut-short" (its worker had not
// finished when a fault, a hang or an interrupt ended the run).
struct left_out_processor {
    int cpu;
    const char *reason;
    int entry = -1;
};

struct machine_description {
    std::vector<int> tested;  // ascending
    std::vector<left_out_processor> left_out;
    std::vector<const char *> shared_cpus;  // per tested processor, who shares its L2
};

// One processor as the record and --describe name it: the physical part,
// its L2 as its worker takes it (or would), and why it is left out.
struct processor_entry {
    int cpu;
    bool known;  // the machine describes it
    dxt_processor_identity id;
    l2_geometry l2;
    const char *reason;  // nullptr: tested
};

struct machine_entry {
    dxt_machine_identity id;
    long long start_time;  // seconds since the epoch
    std::string_view host;
};

// Every processor of the description, in ascending order.
std::vector<processor_entry> describe_processors(const machine_description &m);
machine_entry describe_host(long long start_time, std::string_view host);
// What this machine offers a run, from the platform (present, online and
// allowed processors) and the information library (the sharers of each
// tested processor's L2).
machine_description describe_machine();
// The tested processors by the L2 they share, each group ascending, the
// groups in the order of their first processor; a processor whose sharing
// is unknown is a group of its own.
std::vector<std::vector<int>> l2_domains(const machine_description &m);

// Why a recorded machine (--sysroot DIR) cannot be described: no such
// directory, no processor directory, or processor lists that are missing
// or do not parse; "" when it can.
std::string recorded_machine_problem(const std::string &root);

}  // namespace dxt

#endif
