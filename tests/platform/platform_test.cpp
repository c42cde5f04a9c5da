// The platform's calls against the reviewed table calls.txt: every answer
// and every error number the interface fixes, so that a call answering 0
// where it must say -1 and EINVAL shows.
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "platform.h"
#include "processor_state.h"
#include "table.h"

namespace {

const std::map<std::string, int> names = {
    {"P_STATUS", P_STATUS}, {"P_ONLINE", P_ONLINE}, {"P_OFFLINE", P_OFFLINE}, {"P_LWPID", P_LWPID},
    {"P_MYID", P_MYID},     {"THR_BOUND", THR_BOUND}, {"EINVAL", EINVAL},   {"ESRCH", ESRCH},
    {"EDEADLK", EDEADLK},   {"-", 0}};

int value_of(const std::string &word)
{
    auto named = names.find(word);
    return named != names.end() ? named->second : std::atoi(word.c_str());
}

void *nothing(void *) { return nullptr; }

// A thread that joins itself, as "self" asks, before anyone joins it.
std::atomic<int> self_joined{-1};
void *join_self(void *id)
{
    self_joined = thr_join(*static_cast<unsigned *>(id), nullptr, nullptr);
    return nullptr;
}

// One call as a row names it: what it returned, and errno after it (0 when
// it says nothing through errno).
std::pair<int, int> call(const std::string &name, const std::vector<std::string> &a, const std::string &dir)
{
    errno = 0;
    if (name == "p_online")
        return {processor_state(dir.c_str(), value_of(a[0]), value_of(a[1])), errno};
    if (name == "processor_bind")
        return {processor_bind(value_of(a[0]), value_of(a[1]), value_of(a[2]), nullptr), errno};
    unsigned id = 0;
    if (name == "thr_create") {
        int got = thr_create(nullptr, 0, a[0] == "null" ? nullptr : nothing, nullptr, value_of(a[1]), &id);
        if (got == 0)
            thr_join(id, nullptr, nullptr);
        return {got, 0};
    }
    if (a[0] == "self") {
        static unsigned own = 0;
        thr_create(nullptr, 0, join_self, &own, THR_BOUND, &own);
        while (self_joined.load() < 0)
            sched_yield();
        thr_join(own, nullptr, nullptr);
        return {self_joined.load(), 0};
    }
    if (a[0] == "gone") {
        thr_create(nullptr, 0, nothing, nullptr, THR_BOUND, &id);
        thr_join(id, nullptr, nullptr);
    } else {
        id = static_cast<unsigned>(value_of(a[0]));
    }
    return {thr_join(id, nullptr, nullptr), 0};
}

TEST(platform_calls, every_answer_and_error_of_the_table)
{
    // The process's CPU set is its first thread's: this one, allowed
    // processor 0 alone.
    cpu_set_t only_0;
    CPU_ZERO(&only_0);
    CPU_SET(0, &only_0);
    ASSERT_EQ(sched_setaffinity(0, sizeof only_0, &only_0), 0);
    std::string dir = std::filesystem::temp_directory_path() / ("platform_test." + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    std::ofstream(dir + "/possible") << "0-3\n";
    std::ofstream(dir + "/online") << "0-2\n";
    for (const auto &row : table_rows(TARNEL_TEST_DATA "/calls.txt", 4)) {
        std::istringstream words(row[1]);
        std::vector<std::string> args{std::istream_iterator<std::string>(words), {}};
        EXPECT_EQ(call(row[0], args, dir), std::make_pair(value_of(row[2]), value_of(row[3])))
            << row[0] << "(" << row[1] << ")";
    }
    std::filesystem::remove_all(dir);
}

}  // namespace
