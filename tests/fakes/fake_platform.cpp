#include <cerrno>
#include <cstdint>
#include <map>
#include <set>

#include "fakes.h"
#include "platform.h"

namespace fake {
namespace {

std::set<int> online;
int bind_error;
int create_calls;
int failing_create;
int create_error;
std::vector<int> bound;
std::vector<int> started;
std::map<int, int> scripted_status;
std::map<unsigned int, void *> finished;  // thread id -> exit status
std::vector<unsigned int> joined;

}  // namespace

void reset_platform()
{
    online = {0};
    bind_error = 0;
    create_calls = 0;
    failing_create = 0;
    create_error = 0;
    bound.clear();
    started.clear();
    scripted_status.clear();
    finished.clear();
    joined.clear();
}

void set_online(const std::vector<int> &cpus) { online = std::set<int>(cpus.begin(), cpus.end()); }
void fail_bind(int error_number) { bind_error = error_number; }

void fail_create(int nth_call, int error_number)
{
    failing_create = nth_call;
    create_error = error_number;
}

std::vector<int> bound_cpus() { return bound; }
std::vector<int> started_cpus() { return started; }
void script_worker_status(int cpu, int status) { scripted_status[cpu] = status; }
std::vector<unsigned int> joined_threads() { return joined; }

}  // namespace fake

using namespace fake;

int p_online(int processor_id, int flag)
{
    if (flag != P_STATUS || processor_id < 0) {
        errno = EINVAL;
        return -1;
    }
    return online.count(processor_id) != 0 ? P_ONLINE : P_OFFLINE;
}

int processor_bind(int idtype, int id, int processor_id, int *)
{
    if (idtype != P_LWPID || id != P_MYID) {
        errno = EINVAL;
        return -1;
    }
    if (bind_error != 0) {
        errno = bind_error;
        return -1;
    }
    bound.push_back(processor_id);
    return 0;
}

// Runs the worker to its end before returning: thr_exit's exception carries
// its status; any other exception (a fatal message) goes on to the caller,
// as the real run would end there.
int thr_create(void *, size_t, void *(*start)(void *), void *arg, long, unsigned int *new_thread)
{
    if (++create_calls == failing_create)
        return create_error;
    unsigned int id = static_cast<unsigned int>(create_calls);
    *new_thread = id;
    int cpu = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    started.push_back(cpu);
    auto scripted = scripted_status.find(cpu);
    if (scripted != scripted_status.end()) {
        finished[id] = reinterpret_cast<void *>(static_cast<intptr_t>(scripted->second));
        return 0;
    }
    try {
        finished[id] = start(arg);
    } catch (const thread_exit &done) {
        finished[id] = done.status;
    }
    return 0;
}

int thr_join(unsigned int thread, unsigned int *departed, void **status)
{
    auto found = finished.find(thread);
    if (found == finished.end())
        return ESRCH;
    joined.push_back(thread);
    if (departed != nullptr)
        *departed = thread;
    if (status != nullptr)
        *status = found->second;
    finished.erase(found);
    return 0;
}

void thr_exit(void *status) { throw thread_exit{status}; }
