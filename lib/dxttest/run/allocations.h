// The program's allocation calls as the harness sees them: memalign and
// malloc are wrapped at link time (the link options of this library), so a
// buffer the program could not get is known even where its subtest carries
// on without it and says nothing.
#ifndef TARNEL_DXTTEST_ALLOCATIONS_H
#define TARNEL_DXTTEST_ALLOCATIONS_H

namespace dxt {

// Called on the thread whose allocation failed, with errno as the C
// library left it; the run records it against that worker's processor and
// subtest. It allocates nothing: there is no memory to be had.
void note_failed_allocation();

}  // namespace dxt

#endif
