// Interposes free so that a test can see when each block is released. Kept
// apart from the other fakes: only a test that needs it links it, and never
// under a sanitizer, which owns the heap itself.
#include <cstddef>

#include "fakes.h"

extern "C" void __libc_free(void *);

namespace {
void (*free_observer)(void *) = nullptr;
thread_local bool observing = false;  // the observer's own frees are not shown to it
bool keeping = false;
}  // namespace

void fake::on_free(void (*observer)(void *block)) { free_observer = observer; }
void fake::keep_freed_blocks() { keeping = true; }

extern "C" void free(void *block)
{
    if (free_observer != nullptr && block != nullptr && !observing) {
        observing = true;
        free_observer(block);
        observing = false;
    }
    if (!keeping)
        __libc_free(block);
}
