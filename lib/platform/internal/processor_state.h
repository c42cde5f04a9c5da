// p_online against any directory laid out like the kernel's processor
// directory, open to tests.
#ifndef TARNEL_PLATFORM_PROCESSOR_STATE_H
#define TARNEL_PLATFORM_PROCESSOR_STATE_H

int processor_state(const char *cpu_dir, int processor_id, int flag);

#endif
