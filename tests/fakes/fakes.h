// Fake harness, information library, platform and C-library calls for the
// unit tests: they record what the program asks and answer from a script,
// so every expected value can be worked out by hand. A message with a
// non-zero exit flag throws fake::exit_request, and thr_exit throws
// fake::thread_exit, so a worker runs on the test's own thread.
#ifndef TARNEL_TESTS_FAKES_H
#define TARNEL_TESTS_FAKES_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// The program's entry, renamed in the program under test.
int tarnel_main(int argc, char **argv);

namespace fake {

struct message {
    int exit_flag;
    int level;
    bool has_tag;
    std::string tag;
    int number;
    std::vector<std::string> args;  // numbered messages: each argument as text
    std::string format;             // free texts: the format as given
    std::string text;               // free texts: the formatted text
};

struct exit_request {
    int exit_flag;
    int number;
};

struct thread_exit {
    void *status;
};

// Back to the defaults: no messages, the default script below.
void reset();

// ---- harness ----
std::vector<message> messages();
std::vector<message> messages_numbered(int number);  // 0: the free texts
// The numbers of all messages, in order (free texts as 0).
std::vector<int> numbers();

// ---- information library ----
// Default for every processor: result 0, descriptor 0 a 32 KiB L1 with 64-byte
// lines and 8 ways, descriptor 4 a 1 MiB L2 with 64-byte lines and 8 ways.
void set_cacheinfo_result(int cpu, int retval);
void set_descriptor(int cpu, int index, uint32_t size, uint32_t line_size, uint32_t ways);
void set_vendor(int cpu, int code);  // default 4 (AMD)
void set_errmsg(const std::string &text);

// ---- platform ----
std::vector<int> bound_cpus();                 // successful bindings, in order

// ---- C library ----
// Calls numbered from 1 since reset(): calls first .. first+count-1 fail.
void fail_memalign(int first, int count);
int memalign_calls();
struct range {
    void *address;
    size_t length;
};
std::vector<range> memalign_results();  // every non-null block handed out
std::vector<range> mlock_calls();
// From now on every mlock fails (ENOMEM) without locking, or every munlock
// reports a failure (ENOMEM) though the pages are unlocked all the same.
void fail_mlock(bool lock, bool unlock);
std::vector<range> munlock_calls();
// Calls the observer with every block freed from now on, before it is freed
// (only in tests linked with fake_malloc); nullptr stops.
void on_free(void (*observer)(void *block));
// From now on nothing is freed, so no address is handed out twice (only in
// tests linked with fake_malloc).
void keep_freed_blocks();
// Scripted draws, used first; the real generator afterwards.
void script_lrand48(const std::vector<long> &draws);
void script_drand48(const std::vector<double> &draws);
int lrand48_calls();
int drand48_calls();
// Called with every block memalign hands out (the fault model plants here).
void on_memalign(std::function<void(void *, size_t)> observer);

}  // namespace fake

#endif
