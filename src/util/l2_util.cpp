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

void l2_buffer::unlock()
{
    // Only a buffer whose lock succeeded is unlocked.
    if (locked_ && munlock(base_, length_) != 0 && unlock_fail_ != nullptr)
        dxt_message(DXT_RETURN, LVL_DEBUG, tag_, MSG_FREE_TEXT, unlock_fail_);
    locked_ = false;
}

void l2_buffer::release()
{
    if (base_ == nullptr)
        return;
    unlock();
    free(base_);
    base_ = nullptr;
}

namespace {

// Words [first + half, first + 2 * half) become the complements of words
// [first, first + half), pairwise, in every complete group of 2 * half words
// from word 0 up; an incomplete group at the end keeps the fill value.
void complement_halves(uint32_t *block, int32_t n, int32_t half)
{
    int32_t group = 2 * half;
    for (int32_t first = 0; n - first >= group; first += group)
        for (int32_t i = first; i < first + half; i++)
            block[i + half] = ~block[i];
}

void xor_words(uint32_t *block, int32_t n, uint32_t mask)
{
    for (int32_t i = 0; i < n; i++)
        block[i] ^= mask;
}

}  // namespace

void update_pattern(uint32_t value, uint32_t *block, int32_t n, int32_t mode)
{
    for (int32_t i = 0; i < n; i++)
        block[i] = value;
    switch (mode) {
    case 2: complement_halves(block, n, 2); break;   // v, v, ~v, ~v
    case 3: complement_halves(block, n, 4); break;   // four v, four ~v
    case 4: complement_halves(block, n, 8); break;   // eight v, eight ~v
    case 5: xor_words(block, n, 0xFFFFFFFF); break;
    case 6: xor_words(block, n, 0x0000FFFF); break;
    case 7: xor_words(block, n, 0x00FF00FF); break;
    case 8: xor_words(block, n, 0x0F0F0F0F); break;
    case 9: xor_words(block, n, 0x33333333); break;
    case 10: xor_words(block, n, 0x55555555); break;
    default: complement_halves(block, n, 1); break;  // v, ~v: mode 1 and any unknown mode
    }
}

void compl_pattern(uint32_t *destination, const uint32_t *source, int32_t n)
{
    for (int32_t i = 0; i < n; i++)
        destination[i] = ~source[i];
}

namespace {

enum : uint32_t {
    SSO_SEED_16 = 0x00010001,    // a 16-bit bus: one walking bit in each half word
    SSO_SEED_32 = 0x00000001,
    SSO_HALF_MASK = 0xFFFF0000,  // the second lane of a 16-bit line
};
enum : int32_t {
    SSO_HALF_BITS = 16,  // half a word: the 16-bit bus and the 16-bit line
    SSO_WORD_BITS = 32,
};
const uint32_t sso_base[2] = {0x00000000, 0xFFFFFFFF};

bool sso_width(int32_t bits)
{
    return bits == 16 || bits == 32 || bits == 64 || bits == 128 || bits == 256 || bits == 512;
}

}  // namespace

int getSSOPattern(uint32_t *block, int32_t n, int32_t bus_width, int32_t line_width)
{
    if (n != PATTERN_WORDS || !sso_width(bus_width))
        return -1;
    // The walking-bit seeds exist for 16- and 32-bit buses only: for a wider
    // bus no seed says which lanes switch, and no caller asks for one, so
    // such a bus is refused rather than driven with an invented pattern.
    if (bus_width > SSO_WORD_BITS)
        return -1;
    if (line_width < bus_width || !sso_width(line_width))
        return -1;

    uint32_t position = l2_get32random(static_cast<uint32_t>(bus_width));
    uint32_t seed = bus_width == SSO_HALF_BITS ? SSO_SEED_16 : SSO_SEED_32;
    uint32_t walking = seed << (position % SSO_WORD_BITS);
    uint32_t base = sso_base[l2_get32random(2)];
    for (int32_t i = 0; i < n; i++)
        block[i] = base;
    uint32_t mode = l2_get32random(2);

    // A bus of at most one word puts its walking bit into every word.
    for (int32_t i = 0; i < n; i++)
        block[i] ^= walking;

    if (line_width == SSO_HALF_BITS) {
        for (int32_t i = 0; i < n; i++)
            block[i] = mode == 0 ? block[i] ^ SSO_HALF_MASK : (block[i] ^ SSO_HALF_MASK) | (SSO_HALF_MASK ^ base);
        return 0;
    }
    // Every odd group of line_width bits is inverted (mode 0) or driven to
    // the inverted base (mode 1); even groups keep base and walking bit.
    int32_t group = line_width / SSO_WORD_BITS;
    for (int32_t first = group; first < n; first += 2 * group)
        for (int32_t i = first; i < first + group; i++)
            block[i] = mode == 0 ? ~block[i] : ~base;
    return 0;
}
