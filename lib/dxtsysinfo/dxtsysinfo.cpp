// DEVSTUB
#include <cstdint>
#include "harness/testinfo.h"
int dxt_tlib_get_cpu_cacheinfo(int, uint32_t **) { return -1; }
int dxt_tlib_get_x86_vendor(int) { return 0; }
const char *dxt_tlib_get_init_errmsg(void) { return ""; }
