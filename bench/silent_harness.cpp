// The harness and information library as the benchmarks need them: every
// message is dropped, and a message that would end the run (a miscompare,
// no memory) ends the benchmark program with a line on stderr, since its
// figures would mean nothing. The subtests are called directly, so nothing
// asks for the command line or the cache record.
#include <cstdio>
#include <cstdlib>

#include "harness/testinfo.h"

const char *test_name;
const char *device_name;
int test_modes;
const char *func_name;

extern "C" {

int test_init(int, char **, int (*)(char *), int (*)(void), const char *) { return 0; }
void dxt_test_async_handler(int) {}
void trace_before(int) {}
void trace_after(int) {}
int test_end(void) { return 0; }

int dxt_message(int exit_flag, int level, const char *, int number, ...)
{
    if (exit_flag != DXT_RETURN) {
        std::fprintf(stderr, "tarnel_bench: the subtest ended the run with message %d (level %d)\n", number,
                     level);
        std::exit(1);
    }
    return 0;
}

int dxt_tlib_get_cpu_cacheinfo(int, uint32_t **record)
{
    *record = nullptr;
    return -1;
}

int dxt_tlib_get_x86_vendor(int) { return VENDOR_AMD; }

const char *dxt_tlib_get_init_errmsg(void) { return "not used by the benchmarks"; }

}  // extern "C"
