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
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <algorithm>
#include <string>
#include <vector>

#include "cpuset.h"
#include "processor_state.h"
#include "platform_ext.h"

namespace {

// What an unbound thread reports as its previous binding.
constexpr int NOT_BOUND = -1;

// The one processor a mask allows, or NOT_BOUND when it allows several.
int bound_processor(const cpu_mask &mask)
{
    if (CPU_COUNT_S(mask.size, mask.set) != 1)
        return NOT_BOUND;
    int cpu = 0;
    while (!cpu_mask_has(mask, cpu))
        cpu++;
    return cpu;
}

bool listed(const std::vector<int> &ids, int id) { return std::binary_search(ids.begin(), ids.end(), id); }

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

long long monotonic_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

void record_exit(void *status)
{
    if (own_entry == 0)
        return;
    std::lock_guard<std::mutex> hold(threads_lock);
    platform_thread &self = started_threads()[own_entry - 1];
    if (self.exited)
        return;
    self.exited = 1;
    self.status = reinterpret_cast<intptr_t>(status);
    self.ended_ms = monotonic_ms();
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

namespace {

// The kernel's lists that decide a processor's state.
struct processor_lists {
    bool possible_listed;
    std::vector<int> possible;
    bool online_listed;
    std::vector<int> online;
    int mask_error;            // 0: the process's CPU set was read
    std::vector<int> allowed;  // the processors of that set, ascending
};

processor_lists read_lists(const char *cpu_dir)
{
    processor_lists lists;
    lists.possible_listed = read_cpu_list(std::string(cpu_dir) + "/possible", &lists.possible);
    lists.online_listed = read_cpu_list(std::string(cpu_dir) + "/online", &lists.online);
    cpu_mask mask;
    lists.mask_error = read_cpu_mask(true, &mask) ? 0 : (errno != 0 ? errno : EINVAL);
    if (lists.mask_error == 0) {
        for (int id = 0; id < mask.processors; id++)
            if (cpu_mask_has(mask, id))
                lists.allowed.push_back(id);
        free_cpu_mask(&mask);
    }
    return lists;
}

int state_of(const processor_lists &lists, int processor_id, int flag)
{
    if (flag != P_STATUS || processor_id < 0) {
        errno = EINVAL;
        return -1;
    }
    if (lists.possible_listed ? !listed(lists.possible, processor_id)
                              : processor_id >= sysconf(_SC_NPROCESSORS_CONF)) {
        errno = EINVAL;
        return -1;
    }
    if (lists.mask_error != 0) {
        errno = lists.mask_error;
        return -1;
    }
    // Without the kernel's online list, the processors the process may run
    // on are the online ones.
    if (lists.online_listed && !listed(lists.online, processor_id))
        return P_OFFLINE;
    return listed(lists.allowed, processor_id) ? P_ONLINE : P_OFFLINE;
}

}  // namespace

int processor_state(const char *cpu_dir, int processor_id, int flag)
{
    return state_of(read_lists(cpu_dir), processor_id, flag);
}

int p_online(int processor_id, int flag)
{
    // Read once, with the process's CPU set: a run asks for every possible
    // processor id in turn.
    static const processor_lists lists = read_lists(CPU_DIR);
    return state_of(lists, processor_id, flag);
}

int processor_bind(int idtype, int id, int processor_id, int *old_binding)
{
    if (idtype != P_LWPID || id != P_MYID || processor_id < 0 || processor_id >= MAX_PROCESSOR_ID) {
        errno = EINVAL;
        return -1;
    }
    cpu_mask old;
    if (!read_cpu_mask(false, &old))
        return -1;
    int previous = bound_processor(old);
    free_cpu_mask(&old);
    if (int error = bind_thread(processor_id)) {
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
        started_threads().push_back(
            {thread_id, 0, NOT_BOUND, 0, 0, reinterpret_cast<intptr_t>(arg), monotonic_ms(), 0});
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
    std::vector<int> present;
    if (!read_cpu_list(std::string(CPU_DIR) + "/present", &present) &&
        !read_cpu_list(std::string(CPU_DIR) + "/possible", &present))
        for (long id = 0; id < sysconf(_SC_NPROCESSORS_CONF) && id < MAX_PROCESSOR_ID; id++)
            present.push_back(int(id));
    std::vector<int> online;
    bool online_listed = read_cpu_list(std::string(CPU_DIR) + "/online", &online);
    cpu_mask allowed;
    if (!read_cpu_mask(true, &allowed))
        return -1;
    int count = 0;
    for (int id : present) {
        // Without the kernel's online list, the allowed ones are online.
        if (count < capacity)
            out[count] = {id, online_listed ? int(listed(online, id)) : int(cpu_mask_has(allowed, id))};
        count++;
    }
    free_cpu_mask(&allowed);
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
