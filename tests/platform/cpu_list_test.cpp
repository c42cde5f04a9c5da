// The kernel's processor lists, and p_online over a processor directory
// laid out by the test.
#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "cpu_list.h"
#include "platform.h"

namespace {

namespace fs = std::filesystem;

std::set<int> parsed(const char *text)
{
    std::set<int> ids = {99};
    EXPECT_TRUE(parse_cpu_list(text, &ids)) << '"' << text << '"';
    return ids;
}

TEST(cpu_list, forms_the_kernel_writes)
{
    EXPECT_EQ(parsed("0"), (std::set<int>{0}));
    EXPECT_EQ(parsed("0-3"), (std::set<int>{0, 1, 2, 3}));
    EXPECT_EQ(parsed("0,2,4"), (std::set<int>{0, 2, 4}));
    EXPECT_EQ(parsed("0-1,4-5"), (std::set<int>{0, 1, 4, 5}));
    EXPECT_EQ(parsed("0-3,5\n"), (std::set<int>{0, 1, 2, 3, 5}));
    EXPECT_EQ(parsed("7-7"), (std::set<int>{7}));
    EXPECT_EQ(parsed("1022-1025").size(), 4u);
}

TEST(cpu_list, malformed_texts_give_nothing)
{
    for (const char *text : {"", "\n", "abc", "0-", "-1", "3-1", "0,,1", "0 1", "1,", "0-3\nx", "0x1",
                             "0-99999999"}) {
        std::set<int> ids = {99};
        EXPECT_FALSE(parse_cpu_list(text, &ids)) << '"' << text << '"';
        EXPECT_TRUE(ids.empty()) << '"' << text << '"';
    }
}

class processor_dir : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "platform_cpus.XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir = pattern;
        cpu_set_t set;
        ASSERT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
        allowed = set;
    }
    void TearDown() override { fs::remove_all(dir); }

    void write(const char *name, const char *text) { std::ofstream(dir / name) << text; }
    int state(int cpu, int flag = P_STATUS) { return processor_state(dir.c_str(), cpu, flag); }
    int expected_online(int cpu) { return CPU_ISSET(cpu, &allowed) ? P_ONLINE : P_OFFLINE; }

    fs::path dir;
    cpu_set_t allowed;
};

TEST_F(processor_dir, online_needs_the_kernel_list_and_the_processors_mask)
{
    write("possible", "0-3\n");
    write("online", "1\n");
    EXPECT_EQ(state(0), P_OFFLINE);
    EXPECT_EQ(state(1), expected_online(1));
    EXPECT_EQ(state(2), P_OFFLINE);
    EXPECT_EQ(state(3), P_OFFLINE);
}

TEST_F(processor_dir, without_an_online_list_the_mask_decides)
{
    write("possible", "0-3\n");
    for (int cpu = 0; cpu < 4; cpu++)
        EXPECT_EQ(state(cpu), expected_online(cpu)) << "processor " << cpu;
}

TEST_F(processor_dir, bad_requests_fail_with_einval)
{
    write("possible", "0-3\n");
    write("online", "0-3\n");
    for (int cpu : {4, -1, 1 << 30}) {
        errno = 0;
        EXPECT_EQ(state(cpu), -1) << "processor " << cpu;
        EXPECT_EQ(errno, EINVAL);
    }
    errno = 0;
    EXPECT_EQ(state(0, P_ONLINE), -1);
    EXPECT_EQ(errno, EINVAL);
}

}  // namespace
