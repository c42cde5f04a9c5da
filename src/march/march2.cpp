#include "march/genmarch.h"
// DEVSTUB
int cache_march_stress4(void *, uint32_t) { return 0; }
