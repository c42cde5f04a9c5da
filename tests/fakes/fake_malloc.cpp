// Interposes malloc so that one call can be made to fail. Kept apart from
// the other fakes: only a test that needs it links it, and never under a
// sanitizer, which owns malloc itself.
#include <atomic>
#include <cstddef>

#include "fakes.h"

extern "C" void *__libc_malloc(size_t);

namespace {
std::atomic<bool> fail_next{false};
}

void fake::fail_next_malloc() { fail_next = true; }

extern "C" void *malloc(size_t size)
{
    if (fail_next.exchange(false))
        return nullptr;
    return __libc_malloc(size);
}
