// Interrupts and bus errors (signals.h).
#include "signals.h"

#include <sched.h>

#include <cstring>

#include "finish.h"
#include "statuses.h"
#include "testinfo.h"

namespace dxt {

namespace {

sigset_t interrupt_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&set, sig);
    return set;
}

// The interrupts arrive here, on a thread of their own.
void *wait_for_interrupts(void *)
{
    run_state &run = *current_run;
    sigset_t set = interrupt_signals();
    int sig = 0;
    // Blocked, an ignored signal still arrives here (the kernel keeps a
    // blocked signal whatever its action): it is dropped.
    while (sigwait(&set, &sig) != 0 ||
           (!run.signals.waiter_stopping.load() && sigismember(&run.signals.ignored_at_start, sig) == 1)) {
    }
    if (run.signals.waiter_stopping.load())
        return nullptr;
    line_buffer reason;
    put_interrupted_by(reason, sig);
    finish_failing(run, {now_seconds(), exit_signal_base + sig, view(reason)});
}

// Where the interrupt thread could not be started, and for a SIGBUS that
// another process sent.
void on_interrupt(int sig, siginfo_t *, void *)
{
    run_state &run = *current_run;
    if (run.output.ending.exchange(true))
        return;  // the run is ending already
    line_buffer reason;
    put_interrupted_by(reason, sig);
    finish_failing(run, {now_seconds(), exit_signal_base + sig, view(reason), {}, -1, nullptr, true});
}

// Linux delivers an uncorrectable memory error that a thread consumed as
// SIGBUS to that thread: the processor it ran on and si_addr locate it. A
// SIGBUS another process sent (kill) is no memory error: it interrupts.
void on_bus_error(int sig, siginfo_t *info, void *context)
{
    if (info->si_code <= 0) {
        on_interrupt(sig, info, context);
        return;
    }
    run_state &run = *current_run;
    if (run.output.ending.exchange(true))
        hang();  // returning would only fault again
    int cpu = sched_getcpu();
    line_buffer text;
    put(text, "hardware fault: ");
    put(text, info->si_code == BUS_MCEERR_AR || info->si_code == BUS_MCEERR_AO ? "uncorrectable memory error"
                                                                                : "bus error");
    put(text, " (SIGBUS) on cpu", cpu, " at address ");
    put_hex(text, reinterpret_cast<uintptr_t>(info->si_addr));
    failure_site site = own_bus_error(cpu, reinterpret_cast<uintptr_t>(info->si_addr));
    message_fields lead{now_seconds(), LVL_FATAL, cpu, on_main_thread(), nullptr, MSG_FREE_TEXT, DXT_FATAL, view(text)};
    finish_failing(run, {lead.time, exit_fault_found, verdict_reason(exit_fault_found), {&site, 1}, cpu, &lead, true});
}

void install(int sig, void (*handler)(int, siginfo_t *, void *))
{
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO;
    sigfillset(&action.sa_mask);  // one handler at a time on a thread
    sigaction(sig, &action, nullptr);
}

void install_handlers(const run_state &run)
{
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        if (sigismember(&run.signals.ignored_at_start, sig) != 1)
            install(sig, on_interrupt);
}

}  // namespace

sigset_t ignored_interrupts()
{
    sigset_t ignored;
    sigemptyset(&ignored);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction current;
        if (sigaction(sig, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) == 0 &&
            current.sa_handler == SIG_IGN)
            sigaddset(&ignored, sig);
    }
    return ignored;
}

void install_interrupt_handlers(run_state &run)
{
    run.signals.ignored_at_start = ignored_interrupts();
    install_handlers(run);
}

void start_interrupt_thread(run_state &run)
{
    // Blocked here, before the workers exist, so that every thread
    // inherits the mask and only the waiting thread takes them.
    sigset_t set = interrupt_signals();
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0 &&
        pthread_create(&run.signals.waiter, nullptr, wait_for_interrupts, nullptr) == 0) {
        run.signals.waiter_running = true;
    } else {
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        install_handlers(run);
    }
    install(SIGBUS, on_bus_error);
}

void stop_interrupt_thread(run_state &run)
{
    if (!run.signals.waiter_running)
        return;
    run.signals.waiter_stopping.store(true);
    pthread_kill(run.signals.waiter, SIGHUP);
    pthread_join(run.signals.waiter, nullptr);
    run.signals.waiter_running = false;
}

void put_interrupted_by(text_buffer &text, int sig)
{
    // A table lookup, safe in a signal handler.
    if (const char *name = sigabbrev_np(sig))
        put(text, "interrupted by SIG", name);
    else
        put(text, "interrupted by signal ", sig);
}

}  // namespace dxt
