// Shared set-up of the stress-test tests: fakes reset, the page size the
// sequence would have recorded, every block memalign hands out pre-filled
// with a known byte (so untouched memory can be told apart), and the
// contents of every such block as it was when the subtest freed it.
#ifndef TARNEL_TESTS_STRESS_FIXTURE_H
#define TARNEL_TESTS_STRESS_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fakes.h"

namespace freed {

// A block of memalign as its owner freed it.
struct block {
    const void *address;
    std::vector<uint8_t> bytes;
    size_t messages_before;  // harness messages recorded before the free

    uint32_t word(size_t i) const
    {
        uint32_t w;
        std::memcpy(&w, bytes.data() + 4 * i, 4);
        return w;
    }
    double f64(size_t i) const
    {
        double d;
        std::memcpy(&d, bytes.data() + 8 * i, 8);
        return d;
    }
};

// Forget the blocks seen so far and record from now on.
void reset();
// The blocks of memalign freed since reset(), in the order they were freed.
const std::vector<block> &blocks();

}  // namespace freed

constexpr uint8_t FILL_BYTE = 0x5A;
constexpr uint32_t FILL_WORD = 0x5A5A5A5A;  // a word that no kernel stored into

class stress_fixture : public ::testing::Test {
protected:
    void SetUp() override;
};

// Every message rendered as "exit level tag: text" (free texts) or
// "exit level tag: #number" (numbered ones), tag "-" when there is none.
std::vector<std::string> message_log();

#endif
