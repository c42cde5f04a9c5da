#include "fault_model.h"

#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "fakes.h"
#include "util/l2_util.h"

namespace fault {
namespace {

enum kind { STUCK, LOST, ALIAS, COUPLING, STALL, FLIP_ONCE };

struct planted {
    kind what;
    uintptr_t word;
    int bit;
    int value;
    uintptr_t other;
    int cpu = -1;  // a fault in one processor's cache shows only there; -1: everywhere
    int used = 0;  // a flip_once that happened
};

// The processor whose allocation is being planted in (in_allocation with a
// processor), for the faults planted meanwhile.
thread_local int planting_for = -1;

// In a whole run one worker plants while the others access memory: an entry
// is written in full under plant_lock before the count that publishes it.
constexpr int max_faults = 64;
planted planted_faults[max_faults];
std::atomic<int> fault_count{0};
std::mutex plant_lock;

std::span<const planted> faults() { return {planted_faults, static_cast<size_t>(fault_count.load())}; }

// Whether a fault shows to the calling thread: a freed block can be handed
// to another processor's worker at the same address, where this processor's
// fault does not reach.
bool shows(const planted &f) { return f.cpu < 0 || f.cpu == sched_getcpu(); }

void plant(const planted &f)
{
    std::lock_guard<std::mutex> hold(plant_lock);
    int n = fault_count.load();
    if (n < max_faults) {
        planted_faults[n] = f;
        planted_faults[n].cpu = planting_for;
        fault_count.store(n + 1);
    }
}

access_watch watcher;

bool in_word(uintptr_t byte, uintptr_t word) { return byte >= word && byte < word + 4; }

uintptr_t physical(uintptr_t byte)
{
    for (const planted &f : faults())
        if (f.what == ALIAS && in_word(byte, f.word) && shows(f))
            return f.other + (byte - f.word);
    return byte;
}

uint8_t with_stuck_bits(uintptr_t cell, uint8_t value)
{
    for (const planted &f : faults()) {
        if (f.what != STUCK || cell != f.word + static_cast<unsigned>(f.bit) / 8 || !shows(f))
            continue;
        uint8_t mask = static_cast<uint8_t>(1u << (f.bit % 8));
        value = f.value != 0 ? (value | mask) : (value & ~mask);
    }
    return value;
}

bool store_lost(uintptr_t cell)
{
    for (const planted &f : faults())
        if (f.what == LOST && in_word(cell, f.word) && shows(f))
            return true;
    return false;
}

volatile uint8_t &cell_at(uintptr_t cell) { return *reinterpret_cast<volatile uint8_t *>(cell); }

}  // namespace

// Every planting asked for, each with its own count of blocks seen.
std::vector<std::function<void(void *, size_t)>> plantings;
// And those in the localisation sweep's buffer, by processor.
std::vector<std::pair<int, std::function<void(char *, size_t)>>> sweep_plantings;

void reset()
{
    fault_count = 0;
    watcher = nullptr;
    plantings.clear();
    sweep_plantings.clear();
    fake::on_memalign(nullptr);
}

void stuck_at(void *word, int bit, int value)
{
    plant({STUCK, reinterpret_cast<uintptr_t>(word), bit, value, 0});
}

void lost_write(void *word) { plant({LOST, reinterpret_cast<uintptr_t>(word), 0, 0, 0}); }

void alias(void *word, void *other)
{
    plant({ALIAS, reinterpret_cast<uintptr_t>(word), 0, 0, reinterpret_cast<uintptr_t>(other)});
}

void coupling(void *aggressor, void *victim, int bit)
{
    plant({COUPLING, reinterpret_cast<uintptr_t>(aggressor), bit, 0, reinterpret_cast<uintptr_t>(victim)});
}

void stall(void *word) { plant({STALL, reinterpret_cast<uintptr_t>(word), 0, 0, 0}); }

void flip_once(void *word, int bit) { plant({FLIP_ONCE, reinterpret_cast<uintptr_t>(word), bit, 0, 0}); }

void in_sweep(int cpu, std::function<void(char *, size_t)> plant) { sweep_plantings.emplace_back(cpu, plant); }

void in_allocation(int nth, std::function<void(char *, size_t)> plant, int cpu)
{
    auto seen = std::make_shared<std::atomic<int>>(0);
    plantings.push_back([nth, seen, plant, cpu](void *block, size_t length) {
        if ((cpu < 0 || sched_getcpu() == cpu) && (*seen)++ == nth) {
            planting_for = cpu;
            plant(static_cast<char *>(block), length);
            planting_for = -1;
        }
    });
    fake::on_memalign([](void *block, size_t length) {
        for (const auto &planting : plantings)
            planting(block, length);
    });
}

void on_access(access_watch watch) { watcher = std::move(watch); }

}  // namespace fault

using namespace fault;

// A stalled word holds its accessor for ever.
void stall_if_stalled(const void *addr, unsigned width)
{
    auto first = reinterpret_cast<uintptr_t>(addr);
    for (const planted &f : faults())
        if (f.what == STALL && first < f.word + 4 && first + width > f.word && shows(f))
            for (;;)
                pause();
}

uint64_t l2_fault_load(const void *addr, unsigned width)
{
    stall_if_stalled(addr, width);
    uint64_t value = 0;
    for (unsigned i = 0; i < width; i++) {
        uintptr_t cell = physical(reinterpret_cast<uintptr_t>(addr) + i);
        value |= static_cast<uint64_t>(with_stuck_bits(cell, cell_at(cell))) << (8 * i);
    }
    auto first = reinterpret_cast<uintptr_t>(addr);
    for (int i = 0; i < fault_count.load(); i++) {
        planted &f = planted_faults[i];
        uintptr_t cell = f.word + static_cast<unsigned>(f.bit) / 8;
        if (f.what == FLIP_ONCE && cell >= first && cell < first + width && shows(f) &&
            __atomic_exchange_n(&f.used, 1, __ATOMIC_RELAXED) == 0)
            value ^= uint64_t{1} << (8 * (cell - first) + static_cast<unsigned>(f.bit) % 8);
    }
    if (watcher)
        watcher(addr, width, false, value);
    return value;
}

void l2_fault_store(void *addr, unsigned width, uint64_t value)
{
    stall_if_stalled(addr, width);
    if (watcher)
        watcher(addr, width, true, value);
    std::vector<const planted *> disturbed;
    for (unsigned i = 0; i < width; i++) {
        uintptr_t cell = physical(reinterpret_cast<uintptr_t>(addr) + i);
        if (store_lost(cell))
            continue;
        cell_at(cell) = with_stuck_bits(cell, static_cast<uint8_t>(value >> (8 * i)));
        for (const planted &f : faults())
            if (f.what == COUPLING && in_word(cell, f.word) && shows(f))
                disturbed.push_back(&f);
    }
    // One flip per store, however many of its bytes hit the aggressor.
    const planted *last = nullptr;
    for (const planted *f : disturbed) {
        if (f == last)
            continue;
        last = f;
        uintptr_t cell = f->other + static_cast<unsigned>(f->bit) / 8;
        cell_at(cell) = cell_at(cell) ^ static_cast<uint8_t>(1u << (f->bit % 8));
    }
}

// The harness's localisation sweep tells the fault model where its buffer is.
void l2_fault_sweep_buffer(void *block, size_t length, int cpu)
{
    for (const auto &[on, plant] : sweep_plantings)
        if (on == cpu) {
            planting_for = cpu;
            plant(static_cast<char *>(block), length);
            planting_for = -1;
        }
}
