#include "march/genmarch.h"
// DEVSTUB
int cache_march_stress3(void *, uint32_t, uint32_t) { return 0; }
