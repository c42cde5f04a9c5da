// The platform calls on the machine the tests run on: online processors,
// binding, and threads that carry their exit status to the join.
#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <cstdint>
#include <thread>
#include <vector>

#include "platform.h"

namespace {

cpu_set_t process_mask()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    EXPECT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
    return set;
}

std::vector<int> allowed_processors()
{
    cpu_set_t set = process_mask();
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++)
        if (CPU_ISSET(cpu, &set))
            cpus.push_back(cpu);
    return cpus;
}

TEST(p_online_here, agrees_with_the_processor_mask)
{
    cpu_set_t allowed = process_mask();
    int listed = 0;
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++) {
        int state = p_online(cpu, P_STATUS);
        if (state == -1) {
            EXPECT_EQ(errno, EINVAL);
            EXPECT_FALSE(CPU_ISSET(cpu, &allowed)) << "processor " << cpu;
            continue;
        }
        EXPECT_EQ(state, CPU_ISSET(cpu, &allowed) ? P_ONLINE : P_OFFLINE) << "processor " << cpu;
        listed += state == P_ONLINE;
    }
    EXPECT_EQ(listed, CPU_COUNT(&allowed));
}

TEST(processor_bind_here, each_allowed_processor_runs_the_bound_thread)
{
    std::vector<int> cpus = allowed_processors();
    for (int cpu : cpus) {
        // A thread of its own, so the test's thread keeps its mask.
        std::thread([&] {
            int old_binding = 12345;
            ASSERT_EQ(processor_bind(P_LWPID, P_MYID, cpu, &old_binding), 0) << "processor " << cpu;
            EXPECT_EQ(sched_getcpu(), cpu);
            EXPECT_EQ(old_binding, cpus.size() == 1 ? cpus[0] : -1);
            ASSERT_EQ(processor_bind(P_LWPID, P_MYID, cpu, &old_binding), 0);
            EXPECT_EQ(old_binding, cpu);
        }).join();
    }
}

TEST(processor_bind_here, impossible_requests_fail_with_errno)
{
    std::thread([] {
        cpu_set_t before = process_mask();
        struct {
            int idtype, id, cpu;
        } requests[] = {
            {P_LWPID, P_MYID, (1 << 20) - 1},  // no such processor: the kernel refuses
            {P_LWPID, P_MYID, -1},
            {P_LWPID, P_MYID, 1 << 30},
            {0, P_MYID, 0},                    // not a thread id type
            {P_LWPID, 1, 0},                   // another thread
        };
        for (auto r : requests) {
            errno = 0;
            EXPECT_EQ(processor_bind(r.idtype, r.id, r.cpu, nullptr), -1) << r.idtype << " " << r.id << " " << r.cpu;
            EXPECT_EQ(errno, EINVAL);
        }
        cpu_set_t after;
        ASSERT_EQ(sched_getaffinity(0, sizeof after, &after), 0);
        EXPECT_TRUE(CPU_EQUAL(&before, &after));
    }).join();
}

void *exit_with(void *status)
{
    thr_exit(status);
    return nullptr;
}

void *return_with(void *status)
{
    return status;
}

TEST(threads, exit_status_travels_to_the_join)
{
    unsigned int failing = 0;
    unsigned int passing = 0;
    ASSERT_EQ(thr_create(nullptr, 0, exit_with, (void *)(intptr_t)-1, THR_BOUND, &failing), 0);
    ASSERT_EQ(thr_create(nullptr, 0, return_with, (void *)(intptr_t)0, THR_BOUND, &passing), 0);
    EXPECT_NE(failing, 0u);
    EXPECT_NE(passing, 0u);
    EXPECT_NE(failing, passing);

    unsigned int departed = 0;
    void *status = nullptr;
    ASSERT_EQ(thr_join(failing, &departed, &status), 0);
    EXPECT_EQ(departed, failing);
    EXPECT_EQ((intptr_t)status, -1);
    status = (void *)(intptr_t)99;
    ASSERT_EQ(thr_join(passing, &departed, &status), 0);
    EXPECT_EQ(departed, passing);
    EXPECT_EQ((intptr_t)status, 0);
}

TEST(threads, join_of_an_unknown_or_joined_thread_fails)
{
    unsigned int thread = 0;
    ASSERT_EQ(thr_create(nullptr, 0, return_with, (void *)(intptr_t)12, THR_BOUND, &thread), 0);
    ASSERT_EQ(thr_join(thread, nullptr, nullptr), 0);
    EXPECT_EQ(thr_join(thread, nullptr, nullptr), ESRCH);
    EXPECT_EQ(thr_join(0, nullptr, nullptr), ESRCH);
    EXPECT_EQ(thr_join(0xFFFFFF, nullptr, nullptr), ESRCH);
}

TEST(threads, stack_size_and_flags)
{
    unsigned int thread = 0;
    ASSERT_EQ(thr_create(nullptr, 1 << 20, return_with, (void *)(intptr_t)7, THR_BOUND, &thread), 0);
    void *status = nullptr;
    ASSERT_EQ(thr_join(thread, nullptr, &status), 0);
    EXPECT_EQ((intptr_t)status, 7);
    EXPECT_EQ(thr_create(nullptr, 1, return_with, nullptr, THR_BOUND, &thread), EINVAL);  // below the minimum
    EXPECT_EQ(thr_create(nullptr, 0, return_with, nullptr, 0x40, &thread), EINVAL);      // detached: not offered
    EXPECT_EQ(thr_create(nullptr, 0, nullptr, nullptr, THR_BOUND, &thread), EINVAL);
}

}  // namespace
