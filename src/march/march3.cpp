#include "march/genmarch.h"
// DEVSTUB
int cache_interconnect_stress(void *, uint32_t, uint32_t) { return 0; }
