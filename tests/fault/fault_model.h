// A simulated faulty memory for the fault-model build: with L2_FAULT_MODEL
// every access helper of the program comes here, and the faults planted
// below change what the access does. Cells are bytes of real memory; a
// fault names a 32-bit word by its address (little-endian bit numbers).
#ifndef TARNEL_TESTS_FAULT_MODEL_H
#define TARNEL_TESTS_FAULT_MODEL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

namespace fault {

// No faults: every access reaches memory unchanged.
void reset();
// A bit of the word stuck at `value`: loads see it so and stores cannot
// change it.
void stuck_at(void *word, int bit, int value);
// Every store to the word is lost (its bytes keep what they held).
void lost_write(void *word);
// Accesses to the word reach the word at `other` instead.
void alias(void *word, void *other);
// A store to the aggressor word flips a bit of the victim word.
void coupling(void *aggressor, void *victim, int bit);
// An access to the word never ends, as on a processor that stopped.
void stall(void *word);
// The next load of the word reads the bit flipped; the word itself, and
// every later load, keep the right value (a read that went wrong once).
void flip_once(void *word, int bit);
// Calls `plant` with the nth block (0 = the next) that memalign hands out
// from now on, so a test can place a fault in a buffer a subtest allocates;
// with a processor, only blocks allocated by threads running on it count
// (a bound worker's). Each call adds a planting of its own.
void in_allocation(int nth, std::function<void(char *block, size_t length)> plant, int cpu = -1);
// Calls `watch` with the address (as the program named it, before any
// alias), the width, the direction and the value (stored, or loaded) of
// every access from now on, until reset(); for measuring which words a
// subtest touches and recording what it writes.
// Calls `plant` with the buffer of the harness's localisation sweep on that
// processor, when the sweep allocates it.
void in_sweep(int cpu, std::function<void(char *block, size_t length)> plant);
using access_watch = std::function<void(const void *address, unsigned width, bool store, uint64_t value)>;
void on_access(access_watch watch);

}  // namespace fault

#endif
