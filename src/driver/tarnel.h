// The test driver: entry and run lifecycle, the sub-option parser and usage
// routine, the worker table with one bound thread per online processor, and
// the run-wide option variables.
#ifndef TARNEL_DRIVER_TARNEL_H
#define TARNEL_DRIVER_TARNEL_H

#include <cstdint>

enum {
    MAX_PROCS = 1024,  // worker table entries; higher processor ids are not tested
};

// Option variables, final once test_init has returned.
extern uint32_t count;
extern uint32_t tag_count;
extern uint32_t march_window;
extern int32_t march_al;
extern int32_t march_pats;
extern int32_t l1cache_write_policy;
extern int32_t test_mask;

extern int32_t iterations;       // copy of count: every subtest's pass count
extern int32_t nprocs;           // filled entries of thr_db
extern int32_t threads_spawned;  // worker threads created

struct thr_db_entry {
    int32_t cpu_id;         // -1: empty entry
    uint32_t thr_id;        // 0: no thread
    int32_t create_result;  // 0: created
};
extern thr_db_entry thr_db[MAX_PROCS];

extern const char test_ident[];

int main(int argc, char **argv);
int process_args(char *subopts);
int routine_usage(void);
int get_cache_info(int index, uint32_t *size, uint32_t *line_size, uint32_t *ways);
int clean_up(void);
int init_proc_db(void);
void run_ecache_thr(void);
int wait_thr_db(void);
int lock2cpu(int cpu_id);

#endif
