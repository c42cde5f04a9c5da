#include <cerrno>

#include "fakes.h"
#include "platform.h"

namespace fake {
namespace {
std::vector<int> bound;
}  // namespace

void reset_platform() { bound.clear(); }
std::vector<int> bound_cpus() { return bound; }

}  // namespace fake

// The tests run a worker on the calling thread (thr_exit ends it with an
// exception); no test creates or joins threads.
int p_online(int processor_id, int flag) { return flag == P_STATUS && processor_id == 0 ? P_ONLINE : P_OFFLINE; }

int processor_bind(int idtype, int id, int processor_id, int *)
{
    if (idtype != P_LWPID || id != P_MYID) {
        errno = EINVAL;
        return -1;
    }
    fake::bound.push_back(processor_id);
    return 0;
}

int thr_create(void *, size_t, void *(*)(void *), void *, long, unsigned int *) { return EAGAIN; }
int thr_join(unsigned int, unsigned int *, void **) { return ESRCH; }
void thr_exit(void *status) { throw fake::thread_exit{status}; }
