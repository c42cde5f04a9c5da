#include "stress/l2cache.h"
// DEVSTUB
int crand(void *, uint32_t) { return 0; }
