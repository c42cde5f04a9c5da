// Interrupts and bus errors. SIGINT, SIGTERM and SIGHUP end a run with its
// record: from a thread of their own once the program asks for one (so the
// verdict can read the corrected-error counters like any other), from a
// handler before that. A SIGBUS the hardware raised is a fault, where the
// memory error was consumed.
#ifndef TARNEL_DXTTEST_SIGNALS_H
#define TARNEL_DXTTEST_SIGNALS_H

#include <signal.h>

#include "run_state.h"

namespace dxt {

// The interrupts ignored at the process's start, which stay ignored.
sigset_t ignored_interrupts();
// Handlers for the interrupts not ignored, while the machine is read.
void install_interrupt_handlers(run_state &run);
// The program is about to start its workers: every thread inherits the
// interrupts blocked, and one thread of the harness's takes them; SIGBUS
// gets its handler.
void start_interrupt_thread(run_state &run);
// Stops and joins that thread, so that a passing run leaves none behind.
void stop_interrupt_thread(run_state &run);
// "interrupted by SIGTERM"; async-signal-safe.
void put_interrupted_by(text_buffer &text, int sig);

}  // namespace dxt

#endif
