// Concurrent draws through the locked helpers lose no update of the shared
// generator: two threads together receive exactly the values one thread
// draws alone from the same seed. Linked with the C library's own lrand48
// (no fakes), whose state has no lock of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <thread>
#include <vector>

#include "util/l2_util.h"

extern "C" int dxt_message(int, int, const char *, int, ...) { return 0; }

namespace {

constexpr int draws_per_thread = 200000;

TEST(random_lock, concurrent_draws_are_indivisible)
{
    srand48(11);
    std::vector<long> alone(2 * draws_per_thread);
    for (long &draw : alone)
        draw = lrand48();

    srand48(11);
    std::vector<long> first(draws_per_thread), second(draws_per_thread);
    auto worker = [](std::vector<long> *out) {
        for (long &draw : *out)
            draw = l2_lrand48();
    };
    std::thread a(worker, &first), b(worker, &second);
    a.join();
    b.join();

    std::vector<long> together(first);
    together.insert(together.end(), second.begin(), second.end());
    std::sort(alone.begin(), alone.end());
    std::sort(together.begin(), together.end());
    EXPECT_TRUE(together == alone);
}

}  // namespace
