// The suite harness as this program sees it: the calls it makes, the globals
// it shares, the message levels and exit flags, and the catalogue numbers of
// every numbered message it emits. Declarations only; the harness supplies
// the code.
#ifndef TARNEL_HARNESS_TESTINFO_H
#define TARNEL_HARNESS_TESTINFO_H

#include <cstdint>

extern "C" {

// Written by the program, read by the harness.
extern const char *test_name;
extern const char *device_name;
extern int test_modes;
extern const char *func_name;
// Defined by the program, read by the harness.
extern const char dxt_test_version[];

int test_init(int argc, char **argv, int (*parser)(char *), int (*usage)(void),
              const char *options);
void dxt_test_async_handler(int);
void trace_before(int);
void trace_after(int);
// A non-zero exit_flag ends the process: the call does not return (it may
// leave its caller by unwinding).
int dxt_message(int exit_flag, int level, const char *tag, int number, ...);
int test_end(void);

int dxt_tlib_get_cpu_cacheinfo(int cpu_id, uint32_t **record);
int dxt_tlib_get_x86_vendor(int cpu_id);
const char *dxt_tlib_get_init_errmsg(void);

}  // extern "C"

// Exit flags of dxt_message.
enum dxt_exit_flag {
    DXT_RETURN = 0,      // report and return
    DXT_FATAL = -1,      // fatal error of the run
    DXT_STEP_FAIL = 1,   // failed step of the Write/Read/Verify test
};

// Message levels.
enum dxt_level {
    LVL_FATAL = 1,       // the run cannot go on
    LVL_TEST_ERROR = 2,  // data read back differs from what was written
    LVL_STEP_ERROR = 3,  // thread creation, binding, allocation
    LVL_USAGE = 6,       // usage text and rejected sub-options
    LVL_INFO = 7,        // progress and information
    LVL_DEBUG = 8,       // debug texts
};

// Catalogue numbers. Number 0 is a free text: a printf format follows.
enum dxt_msg_number {
    MSG_FREE_TEXT = 0,
    MSG_RUN_START = 1,
    MSG_PASS_COUNT = 2,           // pass count
    MSG_WRRDVR_START = 3,
    MSG_RUN_END = 4,
    MSG_SWAP_START = 6,
    MSG_SWAP_END = 8,
    MSG_ROW_MARCH_START = 9,
    MSG_ROW_MARCH_END = 10,
    MSG_COL_MARCH_START = 11,
    MSG_COL_MARCH_END = 12,
    MSG_MARCH_LINE_START = 13,
    MSG_MARCH_LINE_END = 14,
    MSG_MARCH_VAR_START = 17,
    MSG_MARCH_VAR_END = 18,
    MSG_INTERCONNECT_START = 19,
    MSG_INTERCONNECT_END = 20,
    MSG_DEFAULT_TAKEN = 23,       // default value taken (int)
    MSG_CPC_ENABLED = 24,
    MSG_GEOMETRY_DEFAULTS = 41,   // call name, cpu id, return code, detail
    MSG_USAGE = 2005,             // test name
    MSG_WRRDVR_NO_MEMORY = 4001,
    MSG_NO_MEMORY = 4002,
    MSG_BIND_FAILED = 4003,       // cpu id, error text
    MSG_THREAD_CREATE_FAILED = 4006,  // worker table index
    MSG_MISCOMPARE = 6000,
    MSG_BAD_SUBOPTION = 8000,     // keyword
    MSG_WORKERS_FAILED = 8011,
    MSG_SYSCALL_FAILED = 8012,    // call name, error text
    MSG_UNKNOWN_VENDOR = 8014,
};

// The second-level cache geometry a worker takes when its processor's
// record describes none (and the line size or ways a descriptor leaves at
// 0); the harness reports it as the defaults.
enum : uint32_t {
    L2_DEFAULT_CACHE_SIZE = 0x200000,  // 2 MiB
    L2_DEFAULT_LINE_SIZE = 64,
    L2_DEFAULT_WAYS = 4,
};

// The bits of the test_mask sub-option, in the order the per-CPU sequence
// tests them; the harness names the subtests they select.
enum dxt_test_bit {
    TEST_WRRDVR = 0x8,
    TEST_CACHE_HIT = 0x10,
    TEST_CACHE_MISS = 0x20,
    TEST_RANDOM_SWAP = 0x40,
    TEST_INTERCONNECT = 0x200,
    TEST_MARCHES = 0x400,
    TEST_RANDOM_OFFSET = 0x1000,
};

// The program's test_mask sub-option, final once test_init has called the
// option parser: the harness reads it to know which subtests a run selected.
extern int32_t test_mask;

// Vendor codes of dxt_tlib_get_x86_vendor.
enum dxt_vendor {
    VENDOR_INTEL = 2,
    VENDOR_AMD = 4,
};

// The cache-information record is read as 32-bit words: descriptor i starts
// at word 2 + 4 i; its word 1 is the size in bytes (0 = empty), word 2 the
// line size, word 3 the associativity.
enum dxt_cache_record {
    CACHEINFO_FIRST_WORD = 2,
    CACHEINFO_DESC_WORDS = 4,
    CACHEINFO_SIZE = 1,
    CACHEINFO_LINE = 2,
    CACHEINFO_WAYS = 3,
    CACHEINFO_DESCRIPTORS = 5,    // descriptors 0 to 4
};

#endif
