#include "fakes.h"

namespace fake {
void reset_harness();
void reset_platform();
void reset_libc();

void reset()
{
    reset_harness();
    reset_platform();
    reset_libc();
}
}  // namespace fake
