// Patterns and random sources shared by the tests: the locked draws from the
// process-wide lrand48/drand48 generator, random pattern words and offset
// lists, the 16-word pattern block primitives, the simultaneous-switching
// pattern generator, and the access helpers through which every kernel
// touches test memory.
#ifndef TARNEL_UTIL_L2_UTIL_H
#define TARNEL_UTIL_L2_UTIL_H

#include <cstddef>
#include <cstdint>
#include <cstring>

// ---- Access helpers -------------------------------------------------------
// Each helper makes exactly one memory access of its width at any alignment:
// volatile, so a load whose value is unused still happens and a read-back
// after a store comes from memory, not from the value held for the store.
// The packed wrapper lets the compiler emit a plain unaligned move for the
// packed record's fields instead of assuming natural alignment.
//
// A fault-model build (L2_FAULT_MODEL) routes every access to a simulated
// faulty memory instead; the shipped program is never built that way.

template <typename T>
struct __attribute__((packed)) l2_cell {
    T value;
};

#ifdef L2_FAULT_MODEL
uint64_t l2_fault_load(const void *addr, unsigned width);
void l2_fault_store(void *addr, unsigned width, uint64_t value);

template <typename T>
inline T l2_load(const void *addr)
{
    uint64_t bits = l2_fault_load(addr, sizeof(T));
    T value;
    std::memcpy(&value, &bits, sizeof(T));
    return value;
}

template <typename T>
inline void l2_store(void *addr, T value)
{
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof(T));
    l2_fault_store(addr, sizeof(T), bits);
}
#else
template <typename T>
inline T l2_load(const void *addr)
{
    return static_cast<const volatile l2_cell<T> *>(addr)->value;
}

template <typename T>
inline void l2_store(void *addr, T value)
{
    static_cast<volatile l2_cell<T> *>(addr)->value = value;
}
#endif

inline uint8_t l2_ld8(const void *addr) { return l2_load<uint8_t>(addr); }
inline uint16_t l2_ld16(const void *addr) { return l2_load<uint16_t>(addr); }
inline uint32_t l2_ld32(const void *addr) { return l2_load<uint32_t>(addr); }
inline uint64_t l2_ld64(const void *addr) { return l2_load<uint64_t>(addr); }
inline double l2_ldf64(const void *addr) { return l2_load<double>(addr); }

inline void l2_st8(void *addr, uint8_t v) { l2_store<uint8_t>(addr, v); }
inline void l2_st16(void *addr, uint16_t v) { l2_store<uint16_t>(addr, v); }
inline void l2_st32(void *addr, uint32_t v) { l2_store<uint32_t>(addr, v); }
inline void l2_st64(void *addr, uint64_t v) { l2_store<uint64_t>(addr, v); }
inline void l2_stf64(void *addr, double v) { l2_store<double>(addr, v); }

// Byte address `offset` bytes into a test buffer.
inline void *l2_at(void *base, uintptr_t offset)
{
    return static_cast<char *>(base) + offset;
}

// ---- Test buffers ---------------------------------------------------------
// A page-aligned test buffer that releases itself on every way out of its
// owner, unwinding included: unlocked first when its lock succeeded (the
// owner's debug text when the unlock fails), then freed. Each test keeps its
// own lock and unlock texts and tag, so they are arguments here.
class l2_buffer {
public:
    l2_buffer() = default;
    l2_buffer(const l2_buffer &) = delete;
    l2_buffer &operator=(const l2_buffer &) = delete;
    ~l2_buffer() { release(); }

    // memalign(alignment, length), tried up to `attempts` times in a row.
    bool allocate(size_t alignment, size_t length, int attempts = 1);
    // mlock over the whole buffer. A failure emits `lock_fail` (debug level,
    // `tag`) unless it is null, and the buffer stays unlocked; `unlock_fail`
    // is what release() emits if munlock fails later.
    void lock(const char *tag, const char *lock_fail, const char *unlock_fail);
    // Unlock, only if locked.
    void unlock();
    // Unlock (only if locked) and free; nothing when there is no buffer.
    void release();

    void *get() const { return base_; }

private:
    void *base_ = nullptr;
    size_t length_ = 0;
    bool locked_ = false;
    const char *tag_ = nullptr;
    const char *unlock_fail_ = nullptr;
};

// ---- Random sources -------------------------------------------------------
// lrand48 and drand48 share one generator state that is not safe for
// concurrent callers: every draw of the program goes through these two,
// which hold one process-wide lock around each single call.
long l2_lrand48(void);
double l2_drand48(void);

// (r << 16) | r of one draw r reduced modulo `modulus` (non-zero).
uint32_t l2_getrandom(uint32_t modulus);
// One draw modulo `modulus`; 0 stands for 0xFFFFFFFF.
uint32_t l2_get32random(uint32_t modulus);
// A malloc'd list of 0 to 512 word offsets below `modulus`; `entries` is
// set even when the allocation then fails (null result).
uint32_t *l2_get_randbuf(uint32_t modulus, uint32_t *entries);

// ---- Pattern block primitives --------------------------------------------
enum {
    PATTERN_WORDS = 16,  // every caller's pattern block: 64 bytes
};

void update_pattern(uint32_t value, uint32_t *block, int32_t n, int32_t mode);
void compl_pattern(uint32_t *destination, const uint32_t *source, int32_t n);

// Defined here so that the marches' per-block calls inline into their
// loops: one 32-bit store or load per word, lowest address first.
inline void st_pattern(const uint32_t *source, uint32_t *destination, int32_t n)
{
#pragma GCC unroll 16
    for (int32_t i = 0; i < n; i++)
        l2_st32(destination + i, source[i]);
}

inline uint32_t ld_pattern(const uint32_t *source, int32_t n)
{
    uint32_t last = 0;
#pragma GCC unroll 16
    for (int32_t i = 0; i < n; i++)
        last = l2_ld32(source + i);
    return last;
}

// ---- Simultaneous-switching patterns -------------------------------------
// 0, or -1 (nothing drawn, nothing written) when an argument is refused.
int getSSOPattern(uint32_t *block, int32_t n, int32_t bus_width, int32_t line_width);

#endif
