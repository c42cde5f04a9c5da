// The link-time wrappers of the program's allocation calls
// (-Wl,--wrap=memalign,--wrap=malloc): the program gets the C library's
// answer unchanged, errno included, and the run hears of every failure.
#include "allocations.h"

#include <cerrno>
#include <cstddef>

extern "C" {

void *__real_memalign(size_t alignment, size_t size);
void *__real_malloc(size_t size);

namespace {

void *told(void *block)
{
    if (block == nullptr) {
        int error = errno;
        dxt::note_failed_allocation();
        errno = error;
    }
    return block;
}

}  // namespace

void *__wrap_memalign(size_t alignment, size_t size) { return told(__real_memalign(alignment, size)); }

void *__wrap_malloc(size_t size) { return told(__real_malloc(size)); }

}  // extern "C"
