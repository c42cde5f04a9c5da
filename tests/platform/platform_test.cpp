// The platform calls on Linux: the kernel's processor lists, p_online and
// binding. (Threads and their statuses show in every whole run.)
#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
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

}  // namespace
