// The SVR4 processor and thread calls on Linux. A processor is online for
// the program when the kernel lists it online and the process may run on it,
// so `taskset -c 1 tarneltest` tests processor 1 alone. Every Linux thread
// is scheduled by the kernel on its own, which is what a bound thread is;
// thread ids are small numbers mapped to pthread handles. The platform
// remembers every thread it started (platform_ext.h) so that the harness can
// learn where a failed worker ran.
#include "platform.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "cpu_list.h"
#include "platform_ext.h"

namespace {

// Processor ids beyond this are refused rather than sized into a mask.
constexpr int MAX_PROCESSOR_ID = 1 << 20;
// What an unbound thread reports as its previous binding.
constexpr int NOT_BOUND = -1;

// A processor mask sized for whatever the kernel uses.
struct processor_mask {
    cpu_set_t *set;
    size_t size;
    int processors;
};

// The mask of the thread (pthread) or, with process set, of the process's
// first thread, which is the mask the process was started with.
bool get_mask(bool process, processor_mask *mask)
{
    for (int processors = 1024; processors <= MAX_PROCESSOR_ID; processors *= 2) {
        cpu_set_t *set = CPU_ALLOC(processors);
        size_t size = CPU_ALLOC_SIZE(processors);
        int error = process ? (sched_getaffinity(getpid(), size, set) == 0 ? 0 : errno)
                            : pthread_getaffinity_np(pthread_self(), size, set);
        if (error == 0) {
            *mask = {set, size, processors};
            return true;
        }
        CPU_FREE(set);
        if (error != EINVAL)  // EINVAL: the kernel's mask is larger
            return false;
    }
    return false;
}

// The one processor a mask allows, or NOT_BOUND when it allows several.
int bound_processor(const processor_mask &mask)
{
    if (CPU_COUNT_S(mask.size, mask.set) != 1)
        return NOT_BOUND;
    int cpu = 0;
    while (!CPU_ISSET_S(cpu, mask.size, mask.set))
        cpu++;
    return cpu;
}

bool read_cpu_list(const std::string &path, std::set<int> *ids)
{
    char text[4096];
    FILE *file = fopen(path.c_str(), "re");
    if (file == nullptr)
        return false;
    size_t length = fread(text, 1, sizeof text - 1, file);
    fclose(file);
    text[length] = '\0';
    return parse_cpu_list(text, ids);
}

// One id of a list: digits, below MAX_PROCESSOR_ID.
bool parse_id(const char **at, int *id)
{
    const char *c = *at;
    if (*c < '0' || *c > '9')
        return false;
    long value = 0;
    while (*c >= '0' && *c <= '9') {
        value = value * 10 + (*c - '0');
        if (value >= MAX_PROCESSOR_ID)
            return false;
        c++;
    }
    *id = int(value);
    *at = c;
    return true;
}

std::mutex threads_lock;
unsigned int next_thread_id = 1;

// Never freed: threads may still be joined while the process ends.
std::map<unsigned int, pthread_t> &threads()
{
    static auto *by_id = new std::map<unsigned int, pthread_t>;
    return *by_id;
}

// Every thread started, in order, kept after its join. Guarded by
// threads_lock; never freed, like threads().
std::vector<platform_thread> &started_threads()
{
    static auto *started = new std::vector<platform_thread>;
    return *started;
}

// The calling thread's entry in started_threads() (its position plus one;
// 0 for a thread thr_create did not start) and its binding.
thread_local size_t own_entry = 0;
thread_local int own_binding = NOT_BOUND;

// thr_create's start routine and argument, handed to the new thread.
struct launch {
    void *(*start)(void *);
    void *arg;
    size_t entry;
};

void record_exit(void *status)
{
    if (own_entry == 0)
        return;
    std::lock_guard<std::mutex> hold(threads_lock);
    platform_thread &self = started_threads()[own_entry - 1];
    self.exited = 1;
    self.status = reinterpret_cast<intptr_t>(status);
}

void *run_thread(void *argument)
{
    launch start = *static_cast<launch *>(argument);
    delete static_cast<launch *>(argument);
    own_entry = start.entry;
    {
        std::lock_guard<std::mutex> hold(threads_lock);
        started_threads()[own_entry - 1].tid = static_cast<int>(gettid());
    }
    void *status = start.start(start.arg);
    record_exit(status);
    return status;
}

unsigned int new_thread_id()
{
    while (next_thread_id == 0 || threads().count(next_thread_id) != 0)
        next_thread_id++;
    return next_thread_id++;
}

}  // namespace

bool parse_cpu_list(const char *text, std::set<int> *ids)
{
    ids->clear();
    const char *at = text;
    for (;;) {
        int first = 0;
        int last = 0;
        if (!parse_id(&at, &first))
            break;
        last = first;
        if (*at == '-') {
            at++;
            if (!parse_id(&at, &last) || last < first)
                break;
        }
        for (int id = first; id <= last; id++)
            ids->insert(id);
        if (*at == ',') {
            at++;
            continue;
        }
        if (*at == '\n')
            at++;
        if (*at == '\0')
            return true;
        break;
    }
    ids->clear();
    return false;
}

namespace {

// The kernel's lists that decide a processor's state.
struct processor_lists {
    bool possible_listed;
    std::set<int> possible;
    bool online_listed;
    std::set<int> online;
};

processor_lists read_lists(const char *cpu_dir)
{
    processor_lists lists;
    lists.possible_listed = read_cpu_list(std::string(cpu_dir) + "/possible", &lists.possible);
    lists.online_listed = read_cpu_list(std::string(cpu_dir) + "/online", &lists.online);
    return lists;
}

int state_of(const processor_lists &lists, int processor_id, int flag)
{
    if (flag != P_STATUS || processor_id < 0) {
        errno = EINVAL;
        return -1;
    }
    if (lists.possible_listed ? lists.possible.count(processor_id) == 0
                              : processor_id >= sysconf(_SC_NPROCESSORS_CONF)) {
        errno = EINVAL;
        return -1;
    }
    processor_mask allowed;
    if (!get_mask(true, &allowed))
        return -1;
    bool may_run = processor_id < allowed.processors && CPU_ISSET_S(processor_id, allowed.size, allowed.set);
    CPU_FREE(allowed.set);
    // Without the kernel's online list, the processors the process may run
    // on are the online ones.
    if (lists.online_listed && lists.online.count(processor_id) == 0)
        return P_OFFLINE;
    return may_run ? P_ONLINE : P_OFFLINE;
}

}  // namespace

int processor_state(const char *cpu_dir, int processor_id, int flag)
{
    return state_of(read_lists(cpu_dir), processor_id, flag);
}

int p_online(int processor_id, int flag)
{
    // Read once: a run asks for every possible processor id in turn.
    static const processor_lists lists = read_lists(PLATFORM_CPU_DIR);
    return state_of(lists, processor_id, flag);
}

int processor_bind(int idtype, int id, int processor_id, int *old_binding)
{
    if (idtype != P_LWPID || id != P_MYID || processor_id < 0 || processor_id >= MAX_PROCESSOR_ID) {
        errno = EINVAL;
        return -1;
    }
    processor_mask old;
    if (!get_mask(false, &old))
        return -1;
    int previous = bound_processor(old);
    CPU_FREE(old.set);

    cpu_set_t *only = CPU_ALLOC(processor_id + 1);
    size_t size = CPU_ALLOC_SIZE(processor_id + 1);
    CPU_ZERO_S(size, only);
    CPU_SET_S(processor_id, size, only);
    int error = pthread_setaffinity_np(pthread_self(), size, only);
    CPU_FREE(only);
    if (error != 0) {
        errno = error;
        return -1;
    }
    if (old_binding != nullptr)
        *old_binding = previous;
    own_binding = processor_id;
    if (own_entry != 0) {
        std::lock_guard<std::mutex> hold(threads_lock);
        started_threads()[own_entry - 1].processor = processor_id;
    }
    return 0;
}

int thr_create(void *stack_base, size_t stack_size, void *(*start)(void *), void *arg, long flags,
               unsigned int *new_thread)
{
    // THR_BOUND is the only flag: every Linux thread is bound already.
    if (start == nullptr || (flags & ~long(THR_BOUND)) != 0)
        return EINVAL;
    pthread_attr_t attributes;
    int error = pthread_attr_init(&attributes);
    if (error != 0)
        return error;
    if (stack_base != nullptr)
        error = pthread_attr_setstack(&attributes, stack_base, stack_size);
    else if (stack_size != 0)
        error = pthread_attr_setstacksize(&attributes, stack_size);
    if (error == 0) {
        std::lock_guard<std::mutex> hold(threads_lock);
        unsigned int thread_id = new_thread_id();
        // The entry exists before the thread runs; the thread waits for
        // this lock before it fills in its kernel id.
        started_threads().push_back({thread_id, 0, NOT_BOUND, 0, 0});
        auto *handed = new launch{start, arg, started_threads().size()};
        pthread_t thread;
        error = pthread_create(&thread, &attributes, run_thread, handed);
        if (error == 0) {
            threads()[thread_id] = thread;
            if (new_thread != nullptr)
                *new_thread = thread_id;
        } else {
            delete handed;
            started_threads().pop_back();
        }
    }
    pthread_attr_destroy(&attributes);
    return error;
}

int thr_join(unsigned int thread, unsigned int *departed, void **status)
{
    pthread_t handle;
    {
        std::lock_guard<std::mutex> hold(threads_lock);
        auto found = threads().find(thread);
        if (found == threads().end())
            return ESRCH;
        if (pthread_equal(found->second, pthread_self()))
            return EDEADLK;
        handle = found->second;
        threads().erase(found);
    }
    void *exit_status = nullptr;
    int error = pthread_join(handle, &exit_status);
    if (error != 0)
        return error;
    if (departed != nullptr)
        *departed = thread;
    if (status != nullptr)
        *status = exit_status;
    return 0;
}

void thr_exit(void *status)
{
    record_exit(status);
    pthread_exit(status);
}

int platform_present_processors(platform_processor *out, int capacity)
{
    // Without the kernel's lists, every processor the C library counts.
    std::set<int> present;
    if (!read_cpu_list(std::string(PLATFORM_CPU_DIR) + "/present", &present) &&
        !read_cpu_list(std::string(PLATFORM_CPU_DIR) + "/possible", &present))
        for (long id = 0; id < sysconf(_SC_NPROCESSORS_CONF) && id < MAX_PROCESSOR_ID; id++)
            present.insert(int(id));
    std::set<int> online;
    bool online_listed = read_cpu_list(std::string(PLATFORM_CPU_DIR) + "/online", &online);
    processor_mask allowed;
    if (!get_mask(true, &allowed))
        return -1;
    int count = 0;
    for (int id : present) {
        if (count < capacity) {
            bool may_run = id < allowed.processors && CPU_ISSET_S(id, allowed.size, allowed.set);
            // Without the kernel's online list, the allowed ones are online.
            out[count] = {id, online_listed ? int(online.count(id)) : int(may_run)};
        }
        count++;
    }
    CPU_FREE(allowed.set);
    return count;
}

int platform_threads(platform_thread *out, int capacity)
{
    std::lock_guard<std::mutex> hold(threads_lock);
    const std::vector<platform_thread> &started = started_threads();
    for (size_t i = 0; i < started.size() && i < size_t(capacity); i++)
        out[i] = started[i];
    return static_cast<int>(started.size());
}

int platform_bound_processor(void)
{
    return own_binding;
}
