// DEVSTUB
#include "platform.h"
int p_online(int, int) { return -1; }
int processor_bind(int, int, int, int *) { return 0; }
int thr_create(void *, size_t, void *(*)(void *), void *, long, unsigned int *) { return 1; }
int thr_join(unsigned int, unsigned int *, void **) { return 0; }
void thr_exit(void *) {}
