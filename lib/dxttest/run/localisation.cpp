// After a fault, the harness's own sweep on each failing processor
// (localisation.h).
#include "localisation.h"

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <algorithm>

#include "cpuset.h"

namespace dxt {

namespace {

struct sweep_job {
    int cpu;
    loc::l2_shape l2;
    long long budget_ms;
    uint64_t seed;
    loc::finding *found;
};

void *sweep_on_processor(void *context)
{
    sweep_job &job = *static_cast<sweep_job *>(context);
    if (bind_thread(job.cpu) != 0) {
        job.found->cpu = job.cpu;
        job.found->why_not = "the sweep could not be bound to its processor";
        return nullptr;
    }
    *job.found = loc::sweep(job.cpu, job.l2, job.budget_ms, job.seed);
    return nullptr;
}

// The L2 the processor's worker sized its buffers from, else the one the
// machine describes.
loc::l2_shape shape_of(const run_state &run, int cpu)
{
    for (const l2_geometry &g : announced_so_far(run.workers))
        if (g.cpu == cpu)
            return {g.size, g.line, g.ways};
    for (const processor_entry &p : run.processors)
        if (p.cpu == cpu)
            return {p.l2.size, p.l2.line, p.l2.ways};
    return {0, 0, 0};
}

}  // namespace

void localise_faults(run_state &run, std::span<failure_site> failures, std::vector<loc::finding> &found)
{
    // Within the run's own limit, with a second to spare for the ending: a
    // sweep the watchdog cut short would turn a fault into a hang.
    long long budget = std::min(run.localise_ms, run.timeout_ms - run_elapsed_ms(run) - 1000);
    if (budget <= 0 || run.localised.exchange(true))
        return;
    std::vector<int> cpus;
    for (const failure_site &f : failures)
        if (is_fault(f) && !f.hung && f.cpu >= 0 && std::find(cpus.begin(), cpus.end(), f.cpu) == cpus.end())
            cpus.push_back(f.cpu);
    found.assign(cpus.size(), loc::finding{});
    std::vector<sweep_job> jobs;
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    for (size_t i = 0; i < cpus.size(); i++)
        jobs.push_back({cpus[i], shape_of(run, cpus[i]), budget,
                        static_cast<uint64_t>(now.tv_sec) * 1000000007ULL + static_cast<uint64_t>(now.tv_nsec) + i,
                        &found[i]});
    // Started with every signal blocked, so that the interrupts reach only
    // the thread that waits for them.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &old);
    std::vector<pthread_t> threads(jobs.size());
    std::vector<bool> started(jobs.size());
    for (size_t i = 0; i < jobs.size(); i++) {
        started[i] = pthread_create(&threads[i], nullptr, sweep_on_processor, &jobs[i]) == 0;
        if (!started[i]) {
            found[i].cpu = cpus[i];
            found[i].why_not = "no thread could be started for the sweep";
        }
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    for (size_t i = 0; i < jobs.size(); i++)
        if (started[i])
            pthread_join(threads[i], nullptr);
    for (failure_site &f : failures)
        for (const loc::finding &l : found)
            if (is_fault(f) && !f.hung && f.cpu == l.cpu) {
                f.localised = &l;
                // Where the sweep found it, unless a memory error said where.
                if (!f.address_known && l.kept > 0) {
                    f.address_known = true;
                    f.address = l.records[0].address;
                }
            }
}

}  // namespace dxt
