// Concurrent draws through the locked helpers lose no update of the shared
// generator: two threads together receive exactly the values one thread
// draws alone from the same seed. Linked with the C library's own lrand48
// (no fakes), whose state has no lock of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "util/l2_util.h"

extern "C" int dxt_message(int, int, const char *, int, ...) { return 0; }

TEST(random_lock, concurrent_draws_are_indivisible)
{
    const size_t per_thread = 1000000;
    srand48(11);
    std::vector<long> alone(2 * per_thread);
    for (long &draw : alone)
        draw = lrand48();

    srand48(11);
    std::vector<long> together(2 * per_thread);
    std::atomic<int> ready = 0;  // both threads draw at the same time
    auto worker = [&](size_t first) {
        for (ready++; ready < 2;)
            ;
        for (size_t i = first; i < first + per_thread; i++)
            together[i] = l2_lrand48();
    };
    std::thread a(worker, 0), b(worker, per_thread);
    a.join();
    b.join();
    std::sort(alone.begin(), alone.end());
    std::sort(together.begin(), together.end());
    EXPECT_TRUE(together == alone);
}
