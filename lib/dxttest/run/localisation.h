// After a fault, the harness's own sweep (localise.h) on each processor a
// fault was found on: a thread bound to each, all at once, each for up to
// the run's --localise time, so that the record says which bits failed
// where. Once per run, never from a signal handler.
#ifndef TARNEL_DXTTEST_LOCALISATION_H
#define TARNEL_DXTTEST_LOCALISATION_H

#include <span>
#include <vector>

#include "localise.h"
#include "run_state.h"

namespace dxt {

// Sweeps the processors of the faults and points each fault at its
// processor's finding, which `found` keeps.
void localise_faults(run_state &run, std::span<failure_site> failures, std::vector<loc::finding> &found);

}  // namespace dxt

#endif
