// The platform calls on Linux: the kernel's processor lists, p_online,
// binding, and threads that carry their exit status to the join.
#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "processor_state.h"
#include "platform.h"

namespace {

namespace fs = std::filesystem;

cpu_set_t process_mask()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    EXPECT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
    return set;
}

TEST(p_online, online_needs_the_kernel_list_and_the_process_mask)
{
    std::string dir = (fs::temp_directory_path() / "platform_cpus.XXXXXX").string();
    ASSERT_NE(mkdtemp(dir.data()), nullptr);
    std::ofstream(dir + "/possible") << "0-3\n";
    std::ofstream(dir + "/online") << "1-3\n";
    cpu_set_t allowed = process_mask();
    EXPECT_EQ(processor_state(dir.c_str(), 0, P_STATUS), P_OFFLINE);
    EXPECT_EQ(processor_state(dir.c_str(), 1, P_STATUS), CPU_ISSET(1, &allowed) ? P_ONLINE : P_OFFLINE);
    errno = 0;
    EXPECT_EQ(processor_state(dir.c_str(), 4, P_STATUS), -1);  // not a possible processor
    EXPECT_EQ(errno, EINVAL);
    fs::remove_all(dir);
}

TEST(p_online, this_machine_agrees_with_the_process_mask)
{
    cpu_set_t allowed = process_mask();
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++)
        EXPECT_EQ(p_online(cpu, P_STATUS) == P_ONLINE, CPU_ISSET(cpu, &allowed) != 0) << "processor " << cpu;
}

TEST(processor_bind, moves_the_thread_or_fails_with_errno)
{
    cpu_set_t allowed = process_mask();
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++) {
        if (!CPU_ISSET(cpu, &allowed))
            continue;
        std::thread([cpu] {  // a thread of its own: the test's thread keeps its mask
            ASSERT_EQ(processor_bind(P_LWPID, P_MYID, cpu, nullptr), 0) << "processor " << cpu;
            EXPECT_EQ(sched_getcpu(), cpu);
        }).join();
    }
    std::thread([] {
        for (int cpu : {(1 << 20) - 1, -1}) {  // one the kernel refuses, one the call refuses
            errno = 0;
            EXPECT_EQ(processor_bind(P_LWPID, P_MYID, cpu, nullptr), -1) << "processor " << cpu;
            EXPECT_EQ(errno, EINVAL) << "processor " << cpu;
        }
    }).join();
}

void *exit_with(void *status)
{
    thr_exit(status);
    return nullptr;
}

TEST(threads, thr_exit_status_travels_to_the_join)
{
    unsigned int failing = 0;
    unsigned int passing = 0;
    ASSERT_EQ(thr_create(nullptr, 0, exit_with, (void *)(intptr_t)-1, THR_BOUND, &failing), 0);
    ASSERT_EQ(thr_create(nullptr, 0, exit_with, (void *)(intptr_t)5, THR_BOUND, &passing), 0);
    for (auto [thread, expected] : {std::pair{passing, intptr_t(5)}, std::pair{failing, intptr_t(-1)}}) {
        unsigned int departed = 0;
        void *status = nullptr;
        ASSERT_EQ(thr_join(thread, &departed, &status), 0);
        EXPECT_EQ(departed, thread);
        EXPECT_EQ((intptr_t)status, expected);
    }
    EXPECT_EQ(thr_join(failing, nullptr, nullptr), ESRCH);  // joined already
}

}  // namespace
