// Access traces of the built program: a trace case runs one subtest on a
// tiny buffer under valgrind's lackey tool and writes the accesses the
// subtest must make; check_trace.py compares them with the loads and stores
// lackey saw the program's own code make inside the watched buffers.
//
// A case: scripts the draws (fake::script_lrand48), calls trace_begin(),
// runs the subtest, calls trace_end(), then names the buffers to watch
// (watch_allocations() for every block memalign handed out, or watch())
// and lists the expected accesses in order with expect_load/expect_store.
#ifndef TARNEL_TESTS_TRACE_CASE_H
#define TARNEL_TESTS_TRACE_CASE_H

#include <cstddef>
#include <cstdint>

using trace_case_fn = void (*)();

// Registers a case under a name (at static initialisation).
struct trace_case {
    trace_case(const char *name, trace_case_fn run);
};

void trace_begin();
void trace_end();
void watch(const void *start, size_t length);
void watch_allocations();
void expect_load(const void *address, unsigned size);
void expect_store(const void *address, unsigned size);

#endif
