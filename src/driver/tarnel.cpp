#include "driver/tarnel.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "harness/testinfo.h"
#include "platform.h"
#include "stress/l2cache.h"

#define TARNEL_VERSION "1.0 2026/11/23 (tarnel)"

const char dxt_test_version[] = TARNEL_VERSION;
__attribute__((used)) const char test_ident[] = "@(#) Kestro tarneltest version " TARNEL_VERSION;

uint32_t count = 8;
uint32_t tag_count = 1;
uint32_t march_window = 0;
int32_t march_al = 512;
int32_t march_pats = 15;
int32_t l1cache_write_policy = -1;
int32_t test_mask = 0xFFFFF;

int32_t iterations;
int32_t nprocs;
int32_t threads_spawned;
thr_db_entry thr_db[MAX_PROCS];

namespace {

const char options_text[] = "dev=tarnel,count=[1..1024],cpc=[Enabled,Disabled]";
const char device[] = "tarnel";
enum {
    TEST_MODES = 16,
    COUNT_DEFAULT = 8,
    TAG_DEFAULT = 1,
    COUNT_MAX = 1024,  // count and tag accept 1..1024
};

enum option_keyword {
    OPT_DEV,
    OPT_COUNT,
    OPT_TAG,
    OPT_EM,
    OPT_THRESHOLD,
    OPT_MARCH_WINDOW,
    OPT_MARCH_AL,
    OPT_MARCH_ADDR_STRIDE,
    OPT_MARCH_PATS,
    OPT_L1CACHE_WRITE_POLICY,
    OPT_TEST_MASK,
    OPT_CPC,
};

// getsubopt's keyword table, in option_keyword order.
char *const keywords[] = {
    const_cast<char *>("dev"),
    const_cast<char *>("count"),
    const_cast<char *>("tag"),
    const_cast<char *>("em"),
    const_cast<char *>("threshold"),
    const_cast<char *>("march_window"),
    const_cast<char *>("march_al"),
    const_cast<char *>("march_addr_stride"),
    const_cast<char *>("march_pats"),
    const_cast<char *>("l1cache_write_policy"),
    const_cast<char *>("test_mask"),
    const_cast<char *>("cpc"),
    nullptr,
};

bool is_empty(const char *value) { return value == nullptr || *value == '\0'; }

bool digits_only(const char *value)
{
    for (const char *c = value; *c != '\0'; c++)
        if (*c < '0' || *c > '9')
            return false;
    return true;
}

// The conversions saturate like a 32-bit strtoul/strtol would: a number too
// large for its variable keeps the conversion's own overflow behaviour.
unsigned long parse_unsigned(const char *value) { return strtoul(value, nullptr, 10); }

uint32_t to_u32(unsigned long v) { return v > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(v); }

int32_t parse_signed(const char *value)
{
    long v = strtol(value, nullptr, 10);
    return v > INT32_MAX ? INT32_MAX : static_cast<int32_t>(v);
}

void reject(int *rejected, char *const keyword)
{
    ++*rejected;
    dxt_message(DXT_RETURN, LVL_USAGE, nullptr, MSG_BAD_SUBOPTION, keyword);
}

void free_text(const char *text) { dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_FREE_TEXT, text); }

// count and tag: out of 1..1024 takes the default, announced with message 23.
uint32_t in_range_or_default(unsigned long v, uint32_t fallback)
{
    if (v >= 1 && v <= COUNT_MAX)
        return static_cast<uint32_t>(v);
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_DEFAULT_TAKEN, static_cast<int>(fallback));
    return fallback;
}

}  // namespace

int main(int argc, char **argv)
{
    test_name = "tarneltest";
    device_name = device;
    test_modes = TEST_MODES;
    test_init(argc, argv, process_args, routine_usage, options_text);
    dxt_test_async_handler(0);
    iterations = static_cast<int32_t>(count);

    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_RUN_START);
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_PASS_COUNT, count);

    nprocs = init_proc_db();

    uint32_t size, line_size, ways;
    if (get_cache_info(2, &size, &line_size, &ways) != 0)
        dxt_message(DXT_RETURN, LVL_DEBUG, nullptr, MSG_FREE_TEXT,
                    "get_cache_info failed for L2 cache, dxt internal error, going ahead with default values");
    if (get_cache_info(0, &size, &line_size, &ways) != 0)
        dxt_message(DXT_RETURN, LVL_DEBUG, nullptr, MSG_FREE_TEXT,
                    "get_cache_info failed for L1 cache, dxt internal error, going ahead with default values");

    run_ecache_thr();
    sleep(1);
    if (wait_thr_db() != 0)
        dxt_message(DXT_FATAL, LVL_FATAL, nullptr, MSG_WORKERS_FAILED);
    sleep(1);

    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_RUN_END);
    clean_up();
    test_end();
    return 0;
}

int process_args(char *subopts)
{
    func_name = "process_args";
    trace_before(0);
    if (*subopts == '\0') {
        trace_after(0);
        return 1;
    }

    int rejected = 0;
    char *rest = subopts;
    while (*rest != '\0') {
        char *value = nullptr;
        int keyword = getsubopt(&rest, keywords, &value);
        // A value counts only while nothing has been rejected; later items
        // are still checked and still report.
        bool store = rejected == 0;

        switch (keyword) {
        case OPT_DEV:
            if (is_empty(value) || strcmp(value, device) != 0)
                reject(&rejected, keywords[keyword]);
            break;
        case OPT_COUNT:
        case OPT_TAG:
            if (is_empty(value) || !digits_only(value)) {
                reject(&rejected, keywords[keyword]);
            } else {
                uint32_t v = in_range_or_default(parse_unsigned(value),
                                                 keyword == OPT_COUNT ? COUNT_DEFAULT : TAG_DEFAULT);
                if (store)
                    (keyword == OPT_COUNT ? count : tag_count) = v;
            }
            break;
        case OPT_MARCH_WINDOW:
            if (is_empty(value)) {
                ++rejected;  // counted, but reported only by the free text
                free_text("Cont with default march window\n");
            } else if (!digits_only(value)) {
                reject(&rejected, keywords[keyword]);
            } else if (store) {
                march_window = to_u32(parse_unsigned(value));
            }
            break;
        case OPT_MARCH_AL:
        case OPT_MARCH_PATS:
        case OPT_L1CACHE_WRITE_POLICY:
        case OPT_TEST_MASK:
            if (is_empty(value)) {
                free_text(keyword == OPT_MARCH_AL             ? "Cont with default march_algorithms\n"
                          : keyword == OPT_MARCH_PATS         ? "Cont with default march data patterns\n"
                          : keyword == OPT_L1CACHE_WRITE_POLICY ? "Cont with default l1cache_write_policy\n"
                                                               : "Cont with default value for test_mask\n");
            } else if (!digits_only(value)) {
                reject(&rejected, keywords[keyword]);
            } else if (store) {
                int32_t v = keyword == OPT_MARCH_PATS ? parse_signed(value) : atoi(value);
                if (keyword == OPT_MARCH_AL)
                    march_al = v;
                else if (keyword == OPT_MARCH_PATS)
                    march_pats = v;
                else if (keyword == OPT_L1CACHE_WRITE_POLICY)
                    l1cache_write_policy = v;
                else
                    test_mask = v;
            }
            break;
        case OPT_CPC:
            // Performance counters stay off whatever the value.
            if (!is_empty(value) && strcmp(value, "Enabled") == 0)
                dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_CPC_ENABLED);
            else if (is_empty(value) || strcmp(value, "Disabled") != 0)
                reject(&rejected, keywords[keyword]);
            break;
        default:
            // em, threshold, march_addr_stride and unknown keywords.
            ++rejected;
            break;
        }
    }

    trace_after(0);
    return rejected == 0 ? 1 : 0;
}

int routine_usage(void)
{
    dxt_message(DXT_RETURN, LVL_USAGE, nullptr, MSG_USAGE, test_name);
    return 0;
}

int get_cache_info(int index, uint32_t *size, uint32_t *line_size, uint32_t *ways)
{
    // With no processor in the table the query fails like an unreadable one.
    int cpu = -1;
    for (int i = 0; i < MAX_PROCS && cpu == -1; i++)
        cpu = thr_db[i].cpu_id;

    int retval = 0;
    if (cpu != -1) {
        uint32_t *record = nullptr;
        retval = dxt_tlib_get_cpu_cacheinfo(cpu, &record);
        if (retval == 0) {
            const uint32_t *desc = cache_descriptor(record, index);
            if (desc[CACHEINFO_SIZE] == 0 && index == 2)
                desc = cache_descriptor(record, 4);
            if (desc[CACHEINFO_SIZE] != 0) {
                *size = desc[CACHEINFO_SIZE];
                *line_size = desc[CACHEINFO_LINE];
                *ways = desc[CACHEINFO_WAYS];
                return 0;
            }
        }
    }
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_FREE_TEXT, "dxt_tlib_get_cpu_cacheinfo() failed on cpu %d, retval %d ; %s",
                cpu, retval, retval == -1 ? dxt_tlib_get_init_errmsg() : "");
    return -1;
}

int clean_up(void)
{
    func_name = "clean_up";
    trace_before(0);
    // Every worker releases its own buffers: the run holds nothing here.
    trace_after(0);
    return 0;
}

int init_proc_db(void)
{
    for (thr_db_entry &entry : thr_db)
        entry = thr_db_entry{-1, 0, 0};
    int found = 0;
    for (int cpu = 0; cpu < MAX_PROCS; cpu++)
        if (p_online(cpu, P_STATUS) == P_ONLINE)
            thr_db[found++].cpu_id = cpu;
    return found;
}

void run_ecache_thr(void)
{
    threads_spawned = 0;
    for (int i = 0; i < nprocs; i++) {
        if (thr_db[i].cpu_id == -1)
            continue;
        unsigned int thread = 0;
        thr_db[i].create_result = thr_create(nullptr, 0, l2cache_stress,
                                             reinterpret_cast<void *>(static_cast<intptr_t>(thr_db[i].cpu_id)),
                                             THR_BOUND, &thread);
        thr_db[i].thr_id = thread;
        if (thr_db[i].create_result == 0)
            threads_spawned++;
        else
            dxt_message(DXT_RETURN, LVL_STEP_ERROR, nullptr, MSG_THREAD_CREATE_FAILED, i);
    }
}

int wait_thr_db(void)
{
    if (threads_spawned == 0)
        return 0;
    int failed = 0;
    for (int i = 0; i < nprocs; i++) {
        if (thr_db[i].thr_id == 0)
            continue;
        void *status = nullptr;
        thr_join(thr_db[i].thr_id, nullptr, &status);
        thr_db[i].cpu_id = -1;
        thr_db[i].thr_id = 0;
        if (reinterpret_cast<intptr_t>(status) != 0)
            failed++;
    }
    return failed;
}

int lock2cpu(int cpu_id)
{
    int result = processor_bind(P_LWPID, P_MYID, cpu_id, nullptr);
    if (result != 0)
        dxt_message(DXT_RETURN, LVL_STEP_ERROR, nullptr, MSG_BIND_FAILED, cpu_id, strerror(errno));
    return result;
}
