// DEVSTUB
#include "harness/testinfo.h"
const char *test_name; const char *device_name; int test_modes; const char *func_name;
int test_init(int, char **, int (*)(char *), int (*)(void), const char *) { return 0; }
void dxt_test_async_handler(int) {}
void trace_before(int) {}
void trace_after(int) {}
int dxt_message(int, int, const char *, int, ...) { return 0; }
int test_end(void) { return 0; }
