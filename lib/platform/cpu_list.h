// What the Linux platform calls read about processors, open to tests: the
// parser of the kernel's processor lists and p_online against any directory
// laid out like the kernel's processor directory.
#ifndef TARNEL_PLATFORM_CPU_LIST_H
#define TARNEL_PLATFORM_CPU_LIST_H

#include <set>

// The kernel's processor directory: its files "online" and "possible" hold
// processor lists.
#define PLATFORM_CPU_DIR "/sys/devices/system/cpu"

// A processor list as the kernel writes it ("0-3,5\n"): the ids it names.
// False, with the set empty, for malformed text or an empty list.
bool parse_cpu_list(const char *text, std::set<int> *ids);

// p_online with the lists read from cpu_dir instead of the kernel's.
int processor_state(const char *cpu_dir, int processor_id, int flag);

#endif
