#include "util/l2_util.h"

#include <malloc.h>
#include <sys/mman.h>

#include <cstdlib>
#include <mutex>

#include "harness/testinfo.h"

namespace {
std::mutex rand_lock;

enum : uint32_t {
    RANDBUF_SIZE_BITS = 0x7FF,   // the size draw keeps 11 bits: 0 to 2047
    RANDBUF_ROUND_UP = 3,        // then rounds to a whole 32-bit entry
    RANDBUF_WORD_MASK = ~3u,
};
}  // namespace

long l2_lrand48(void)
{
    std::lock_guard<std::mutex> hold(rand_lock);
    return lrand48();
}

double l2_drand48(void)
{
    std::lock_guard<std::mutex> hold(rand_lock);
    return drand48();
}

uint32_t l2_getrandom(uint32_t modulus)
{
    uint32_t r = static_cast<uint32_t>(l2_lrand48()) % modulus;
    return (r << 16) | r;
}

uint32_t l2_get32random(uint32_t modulus)
{
    if (modulus == 0)
        modulus = 0xFFFFFFFF;
    return static_cast<uint32_t>(l2_lrand48()) % modulus;
}

uint32_t *l2_get_randbuf(uint32_t modulus, uint32_t *entries)
{
    uint32_t size = ((static_cast<uint32_t>(l2_lrand48()) & RANDBUF_SIZE_BITS) + RANDBUF_ROUND_UP) &
                    RANDBUF_WORD_MASK;
    *entries = size / 4;
    auto *list = static_cast<uint32_t *>(malloc(size));
    if (list == nullptr)
        return nullptr;
    for (uint32_t i = 0; i < *entries; i++)
        list[i] = static_cast<uint32_t>(l2_lrand48()) % modulus;
    return list;
}

bool l2_buffer::allocate(size_t alignment, size_t length, int attempts)
{
    release();
    for (int attempt = 0; attempt < attempts && base_ == nullptr; attempt++)
        base_ = memalign(alignment, length);
    length_ = length;
    return base_ != nullptr;
}

void l2_buffer::lock(const char *tag, const char *lock_fail, const char *unlock_fail)
{
    tag_ = tag;
    unlock_fail_ = unlock_fail;
    locked_ = mlock(base_, length_) == 0;
    if (!locked_ && lock_fail != nullptr)
        dxt_message(DXT_RETURN, LVL_DEBUG, tag, MSG_FREE_TEXT, lock_fail);
}

void l2_buffer::release()
{
    if (base_ == nullptr)
        return;
    // Only a buffer whose lock succeeded is unlocked.
    if (locked_ && munlock(base_, length_) != 0 && unlock_fail_ != nullptr)
        dxt_message(DXT_RETURN, LVL_DEBUG, tag_, MSG_FREE_TEXT, unlock_fail_);
    free(base_);
    base_ = nullptr;
    locked_ = false;
}

// DEVSTUB
void update_pattern(uint32_t, uint32_t *, int32_t, int32_t) {}
void compl_pattern(uint32_t *, const uint32_t *, int32_t) {}
int getSSOPattern(uint32_t *, int32_t, int32_t, int32_t) { return 0; }
