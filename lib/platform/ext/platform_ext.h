// What the platform can tell the harness beyond the SVR4 calls: every
// processor the kernel lists present with the reason one is left out, and
// every thread thr_create started, with the processor it bound itself to and
// the status it ended with. The harness uses them to say which processors a
// run tested and which worker failed where.
#ifndef TARNEL_PLATFORM_EXT_H
#define TARNEL_PLATFORM_EXT_H

#include <cstdint>

extern "C" {

// A processor the kernel lists present (/sys/devices/system/cpu/present;
// without it, "possible", else every processor the C library counts).
struct platform_processor {
    int id;
    int online;  // 1: the kernel lists it online
};

// Fills at most capacity entries in ascending order and returns how many
// processors are present (more than capacity when out is too short), or -1
// when the process's CPU set cannot be read. p_online reports a present
// processor P_ONLINE exactly when it is online and allowed.
int platform_present_processors(struct platform_processor *out, int capacity);

// A thread that thr_create started.
struct platform_thread {
    unsigned int thread;  // thr_create's id
    int tid;              // the kernel's thread id; 0 until the thread runs
    int processor;        // its last successful processor_bind, or -1
    int exited;           // 1 once it called thr_exit or returned
    intptr_t status;      // its exit status, once exited
    intptr_t arg;         // the argument its start routine was given
    long long started_ms; // when it was created, and when it ended (0
    long long ended_ms;   // until then): CLOCK_MONOTONIC milliseconds
};

// Fills at most capacity entries, in the order the threads were created,
// and returns how many threads were started so far.
int platform_threads(struct platform_thread *out, int capacity);

// The processor the calling thread last bound itself to with
// processor_bind, or -1. Async-signal-safe.
int platform_bound_processor(void);

}  // extern "C"

#endif
