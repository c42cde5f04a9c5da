// Processor and thread calls of the platform, in the SVR4 form the program
// uses, implemented on Linux: processor state, binding, bound threads.
#ifndef TARNEL_PLATFORM_H
#define TARNEL_PLATFORM_H

#include <cstddef>

#define P_OFFLINE 1
#define P_ONLINE 2
#define P_STATUS 3
#define P_LWPID 8
#define P_MYID (-1)
#define THR_BOUND 1

extern "C" {

// P_STATUS: the processor's state (P_ONLINE when the kernel lists it online
// and this process may run on it, else P_OFFLINE), or -1 with errno.
int p_online(int processor_id, int flag);
// Binds the calling thread (P_LWPID, P_MYID): 0, or -1 with errno.
int processor_bind(int idtype, int id, int processor_id, int *old_binding);
// 0, or an error number.
int thr_create(void *stack_base, size_t stack_size, void *(*start)(void *),
               void *arg, long flags, unsigned int *new_thread);
int thr_join(unsigned int thread, unsigned int *departed, void **status);
void thr_exit(void *status);

}  // extern "C"

#endif
