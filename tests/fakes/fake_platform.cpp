#include <cerrno>
#include <cstdint>
#include <map>

#include "fakes.h"
#include "platform.h"

namespace fake {
namespace {

std::vector<int> bound;
unsigned int create_calls;
std::map<unsigned int, void *> finished;  // thread id -> exit status

}  // namespace

void reset_platform()
{
    bound.clear();
    create_calls = 0;
    finished.clear();
}

std::vector<int> bound_cpus() { return bound; }

}  // namespace fake

using namespace fake;

int p_online(int processor_id, int flag) { return flag == P_STATUS && processor_id == 0 ? P_ONLINE : P_OFFLINE; }

int processor_bind(int idtype, int id, int processor_id, int *)
{
    if (idtype != P_LWPID || id != P_MYID) {
        errno = EINVAL;
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
    *new_thread = ++create_calls;
    try {
        finished[create_calls] = start(arg);
    } catch (const thread_exit &done) {
        finished[create_calls] = done.status;
    }
    return 0;
}

int thr_join(unsigned int thread, unsigned int *departed, void **status)
{
    auto found = finished.find(thread);
    if (found == finished.end())
        return ESRCH;
    if (departed != nullptr)
        *departed = thread;
    if (status != nullptr)
        *status = found->second;
    finished.erase(found);
    return 0;
}

void thr_exit(void *status) { throw thread_exit{status}; }
