// Processors as the Linux kernel names them, for the platform calls, the
// information library and the harness alike: the processor directory, the
// list and mask texts it writes, and the affinity masks of threads. One
// parser and one writer of each form, sized for whatever the kernel uses.
#ifndef TARNEL_CPUSET_H
#define TARNEL_CPUSET_H

#include <sched.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// The kernel's processor directory: "online", "possible" and "present"
// hold processor lists, cpu<N>/ describes processor N.
constexpr char CPU_DIR[] = "/sys/devices/system/cpu";
// Processor ids from this on are refused rather than listed or sized into
// a mask.
constexpr int MAX_PROCESSOR_ID = 1 << 20;

// A processor list ("0-3,8,10-11\n"): the ids in ascending order without
// repeats. False, with none, for a malformed or empty list.
bool parse_cpu_list(std::string_view text, std::vector<int> *ids);
// A processor mask ("00000000,00000003"), hexadecimal, most significant
// group first: the ids of its set bits. False, with none, for a malformed
// or empty mask.
bool parse_cpu_map(std::string_view text, std::vector<int> *ids);
// The processor list in a file such as CPU_DIR/online.
bool read_cpu_list(const std::string &path, std::vector<int> *ids);

// Writes ascending ids as the kernel writes a list, ranges of two or more
// joined with a dash ("0-1,4"), one id at a time, into storage the caller
// owns (cut at its capacity): no allocation, so a signal handler can use it.
struct cpu_list_writer {
    char *out;
    size_t capacity;
    size_t &length;  // where the next character goes; advanced
    int first = -1;
    int last = -1;
    bool any = false;  // an id was written

    void add(int id);
    void finish();  // writes the range still open
};
// The list text of any ids ("" for none).
std::string format_cpu_list(std::vector<int> ids);

// A processor affinity mask; free it with free_cpu_mask.
struct cpu_mask {
    cpu_set_t *set;
    size_t size;
    int processors;  // ids below this fit
};
// The calling thread's mask, or with `process` the process's (its first
// thread's, the mask it was started with).
bool read_cpu_mask(bool process, cpu_mask *mask);
bool cpu_mask_has(const cpu_mask &mask, int id);
void free_cpu_mask(cpu_mask *mask);
// Binds the calling thread to one processor, or to a set of them: 0, or an
// error number.
int bind_thread(int cpu);
int bind_thread_to(const std::vector<int> &cpus);
// Gives the calling thread the mask back (a bind undone).
void restore_thread_mask(const cpu_mask &mask);

#endif
