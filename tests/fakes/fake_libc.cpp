// Interposes memalign, mlock, munlock, lrand48, drand48 and sleep for the program
// under test: the test binary's definitions come before the C library's.
// Each forwards to the next definition (the C library's, or a sanitizer's)
// unless the script says otherwise.
#include <dlfcn.h>

#include <cerrno>
#include <cstddef>
#include <deque>
#include <mutex>

#include "fakes.h"

namespace fake {
namespace {

std::recursive_mutex lock;
int memalign_count;
int memalign_fail_first;
int memalign_fail_count;
std::vector<range> blocks;
std::vector<range> locks;
std::vector<range> unlocks;
std::deque<long> lrand48_script;
std::deque<double> drand48_script;
int lrand48_count;
int drand48_count;
bool mlock_fails;
bool munlock_fails;
// Made on first use: a constructor of another file (the fault planting of a
// whole-run binary) may set it before this file's globals are initialised.
std::function<void(void *, size_t)> &observer()
{
    static std::function<void(void *, size_t)> slot;
    return slot;
}

template <typename F>
F next(const char *name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void reset_libc()
{
    std::lock_guard<std::recursive_mutex> hold(lock);
    memalign_count = 0;
    memalign_fail_first = 0;
    memalign_fail_count = 0;
    blocks.clear();
    locks.clear();
    unlocks.clear();
    lrand48_script.clear();
    drand48_script.clear();
    lrand48_count = 0;
    drand48_count = 0;
    mlock_fails = munlock_fails = false;
    observer() = nullptr;
}

void fail_memalign(int first, int count)
{
    memalign_fail_first = first;
    memalign_fail_count = count;
}

void fail_mlock(bool lock, bool unlock)
{
    mlock_fails = lock;
    munlock_fails = unlock;
}

int memalign_calls() { return memalign_count; }
std::vector<range> memalign_results() { return blocks; }
std::vector<range> mlock_calls() { return locks; }
std::vector<range> munlock_calls() { return unlocks; }
void script_lrand48(const std::vector<long> &draws) { lrand48_script.assign(draws.begin(), draws.end()); }
void script_drand48(const std::vector<double> &draws) { drand48_script.assign(draws.begin(), draws.end()); }
int lrand48_calls() { return lrand48_count; }
int drand48_calls() { return drand48_count; }
void on_memalign(std::function<void(void *, size_t)> callback) { observer() = std::move(callback); }

}  // namespace fake

using namespace fake;

extern "C" {

void *memalign(size_t alignment, size_t length)
{
    static auto real = next<void *(*)(size_t, size_t)>("memalign");
    std::lock_guard<std::recursive_mutex> hold(lock);
    int call = ++memalign_count;
    if (call >= memalign_fail_first && call < memalign_fail_first + memalign_fail_count)
        return nullptr;
    void *block = real(alignment, length);
    if (block != nullptr) {
        blocks.push_back({block, length});
        if (observer())
            observer()(block, length);
    }
    return block;
}

int mlock(const void *address, size_t length)
{
    static auto real = next<int (*)(const void *, size_t)>("mlock");
    std::lock_guard<std::recursive_mutex> hold(lock);
    locks.push_back({const_cast<void *>(address), length});
    if (mlock_fails) {
        errno = ENOMEM;
        return -1;
    }
    return real(address, length);
}

int munlock(const void *address, size_t length)
{
    static auto real = next<int (*)(const void *, size_t)>("munlock");
    std::lock_guard<std::recursive_mutex> hold(lock);
    unlocks.push_back({const_cast<void *>(address), length});
    if (munlock_fails) {
        real(address, length);  // undone all the same, so nothing stays locked
        errno = ENOMEM;
        return -1;
    }
    return real(address, length);
}

long lrand48(void)
{
    static auto real = next<long (*)(void)>("lrand48");
    std::lock_guard<std::recursive_mutex> hold(lock);
    lrand48_count++;
    if (lrand48_script.empty())
        return real();
    long draw = lrand48_script.front();
    lrand48_script.pop_front();
    return draw;
}

double drand48(void)
{
    static auto real = next<double (*)(void)>("drand48");
    std::lock_guard<std::recursive_mutex> hold(lock);
    drand48_count++;
    if (drand48_script.empty())
        return real();
    double draw = drand48_script.front();
    drand48_script.pop_front();
    return draw;
}

// Not slept: the driver's pauses would only slow the tests.
unsigned int sleep(unsigned int) { return 0; }

}  // extern "C"
