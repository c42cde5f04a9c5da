#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>

#include "fakes.h"
#include "harness/testinfo.h"
#include "message_args.h"

const char *test_name;
const char *device_name;
int test_modes;
const char *func_name;

namespace fake {
namespace {

std::mutex lock;
std::vector<message> recorded;

struct cpu_info {
    int retval = 0;
    uint32_t record[CACHEINFO_FIRST_WORD + CACHEINFO_DESC_WORDS * CACHEINFO_DESCRIPTORS] = {};
    int vendor = VENDOR_AMD;
};
std::map<int, cpu_info> cpus;
std::string errmsg;

cpu_info &info(int cpu)
{
    auto found = cpus.find(cpu);
    if (found != cpus.end())
        return found->second;
    cpu_info &fresh = cpus[cpu];
    uint32_t *l1 = fresh.record + CACHEINFO_FIRST_WORD;
    l1[CACHEINFO_SIZE] = 32768;
    l1[CACHEINFO_LINE] = 64;
    l1[CACHEINFO_WAYS] = 8;
    uint32_t *l2 = fresh.record + CACHEINFO_FIRST_WORD + CACHEINFO_DESC_WORDS * 4;
    l2[CACHEINFO_SIZE] = 1048576;
    l2[CACHEINFO_LINE] = 64;
    l2[CACHEINFO_WAYS] = 8;
    return fresh;
}

// What follows a number: "" for one the program never emits.
const char *signature(int number)
{
    for (const message_args &m : program_messages)
        if (m.number == number)
            return m.args;
    return "";
}

}  // namespace

void reset_harness();
void reset_platform();
void reset_libc();

void reset()
{
    reset_harness();
    reset_platform();
    reset_libc();
}

void reset_harness()
{
    std::lock_guard<std::mutex> hold(lock);
    recorded.clear();
    cpus.clear();
    errmsg = "information library not initialised";
}

std::vector<message> messages()
{
    std::lock_guard<std::mutex> hold(lock);
    return recorded;
}

std::vector<message> messages_numbered(int number)
{
    std::vector<message> found;
    for (const message &m : messages())
        if (m.number == number)
            found.push_back(m);
    return found;
}

std::vector<int> numbers()
{
    std::vector<int> found;
    for (const message &m : messages())
        found.push_back(m.number);
    return found;
}

void set_cacheinfo_result(int cpu, int retval) { info(cpu).retval = retval; }

void set_descriptor(int cpu, int index, uint32_t size, uint32_t line_size, uint32_t ways)
{
    uint32_t *desc = info(cpu).record + CACHEINFO_FIRST_WORD + CACHEINFO_DESC_WORDS * index;
    desc[CACHEINFO_SIZE] = size;
    desc[CACHEINFO_LINE] = line_size;
    desc[CACHEINFO_WAYS] = ways;
}

void set_vendor(int cpu, int code) { info(cpu).vendor = code; }
void set_errmsg(const std::string &text) { errmsg = text; }

}  // namespace fake

using namespace fake;

int test_init(int, char **, int (*)(char *), int (*)(void), const char *) { return 0; }

void dxt_test_async_handler(int) {}
void trace_before(int) {}
void trace_after(int) {}

int dxt_message(int exit_flag, int level, const char *tag, int number, ...)
{
    message m{exit_flag, level, tag != nullptr, tag != nullptr ? tag : "", number, {}, {}, {}};
    va_list ap;
    va_start(ap, number);
    if (number == MSG_FREE_TEXT) {
        const char *format = va_arg(ap, const char *);
        m.format = format;
        char text[1024];
        vsnprintf(text, sizeof text, format, ap);
        m.text = text;
    } else {
        for (const char *kind = signature(number); *kind != '\0'; kind++) {
            if (*kind == 's')
                m.args.emplace_back(va_arg(ap, const char *));
            else if (*kind == 'u')
                m.args.push_back(std::to_string(va_arg(ap, unsigned int)));
            else
                m.args.push_back(std::to_string(va_arg(ap, int)));
        }
    }
    va_end(ap);
    {
        std::lock_guard<std::mutex> hold(lock);
        recorded.push_back(m);
    }
    if (exit_flag != 0)
        throw exit_request{exit_flag, number};
    return 0;
}

int test_end(void) { return 0; }

int dxt_tlib_get_cpu_cacheinfo(int cpu_id, uint32_t **record)
{
    std::lock_guard<std::mutex> hold(lock);
    cpu_info &cpu = info(cpu_id);
    *record = cpu.record;
    return cpu.retval;
}

int dxt_tlib_get_x86_vendor(int cpu_id)
{
    std::lock_guard<std::mutex> hold(lock);
    return info(cpu_id).vendor;
}

const char *dxt_tlib_get_init_errmsg(void) { return errmsg.c_str(); }
