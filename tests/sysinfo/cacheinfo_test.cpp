// The information library's public calls on the machine the tests run on.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "cacheinfo_sources.h"
#include "dxtsysinfo_ext.h"
#include "harness/testinfo.h"

namespace {

// The processors this process may run on.
std::vector<int> allowed_processors()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    EXPECT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++)
        if (CPU_ISSET(cpu, &set))
            cpus.push_back(cpu);
    return cpus;
}

const uint32_t *descriptor(const uint32_t *record, int index)
{
    return record + CACHEINFO_FIRST_WORD + CACHEINFO_DESC_WORDS * index;
}

// The L2 the per-CPU sequence takes: descriptor 4, else descriptor 2.
const uint32_t *chosen_l2(const uint32_t *record)
{
    const uint32_t *desc = descriptor(record, 4);
    return desc[CACHEINFO_SIZE] != 0 ? desc : descriptor(record, 2);
}

std::vector<uint32_t> words_of(const uint32_t *record)
{
    return std::vector<uint32_t>(record, record + RECORD_WORDS);
}

TEST(record_layout, own_l2_in_4_c_library_l2_in_2_own_l1_in_0)
{
    cache_pair own = {{CACHE_SOURCE_SYSFS, 32768, 64, 8}, {CACHE_SOURCE_SYSFS, 2097152, 64, 16}};
    cache_pair libc = {{CACHE_SOURCE_SYSCONF, 49152, 64, 12}, {CACHE_SOURCE_SYSCONF, 1048576, 64, 8}};
    uint32_t record[RECORD_WORDS];
    ASSERT_EQ(fill_record(3, own, libc, record), 0);
    std::vector<uint32_t> expected = {
        3, 5,
        CACHE_SOURCE_SYSFS, 32768, 64, 8,
        0, 0, 0, 0,
        CACHE_SOURCE_SYSCONF, 1048576, 64, 8,
        0, 0, 0, 0,
        CACHE_SOURCE_SYSFS, 2097152, 64, 16,
    };
    EXPECT_EQ(words_of(record), expected);
}

TEST(cacheinfo_here, every_processor_reports_the_c_librarys_l2)
{
    long size = sysconf(_SC_LEVEL2_CACHE_SIZE);
    long line_size = sysconf(_SC_LEVEL2_CACHE_LINESIZE);
    long ways = sysconf(_SC_LEVEL2_CACHE_ASSOC);
    if (size <= 0)
        GTEST_SKIP() << "the C library knows no L2 cache here";
    for (int cpu : allowed_processors()) {
        SCOPED_TRACE("processor " + std::to_string(cpu));
        uint32_t *record = nullptr;
        ASSERT_EQ(dxt_tlib_get_cpu_cacheinfo(cpu, &record), 0);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record[0], uint32_t(cpu));
        for (const uint32_t *desc : {chosen_l2(record), descriptor(record, 2)}) {
            EXPECT_EQ(desc[CACHEINFO_SIZE], uint32_t(size));
            EXPECT_EQ(desc[CACHEINFO_LINE], uint32_t(line_size));
            EXPECT_EQ(desc[CACHEINFO_WAYS], uint32_t(ways));
        }
        EXPECT_EQ(descriptor(record, 2)[0], CACHE_SOURCE_SYSCONF);
        EXPECT_NE(descriptor(record, 0)[CACHEINFO_SIZE], 0u);  // the L1 data cache
    }
}

TEST(cacheinfo_here, cpuid_on_each_processor_agrees_and_restores_the_mask)
{
    if (access(SYSFS_CPU_ROOT "/cpu0/cache", F_OK) == 0)
        GTEST_SKIP() << "the kernel describes the caches: CPUID is not consulted";
    long size = sysconf(_SC_LEVEL2_CACHE_SIZE);
    cpu_set_t before;
    ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof before, &before), 0);
    for (int cpu : allowed_processors()) {
        SCOPED_TRACE("processor " + std::to_string(cpu));
        cpuid_answer answer;
        ASSERT_TRUE(cpuid_caches(cpu, &answer));
        EXPECT_EQ(long(answer.caches.l2.size), size);
        EXPECT_EQ(long(answer.caches.l2.line_size), sysconf(_SC_LEVEL2_CACHE_LINESIZE));
        EXPECT_EQ(long(answer.caches.l2.ways), sysconf(_SC_LEVEL2_CACHE_ASSOC));
        cpu_set_t after;
        ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof after, &after), 0);
        EXPECT_TRUE(CPU_EQUAL(&before, &after));
    }
}

TEST(cacheinfo_here, every_filled_descriptor_names_its_source)
{
    for (int cpu : allowed_processors()) {
        SCOPED_TRACE("processor " + std::to_string(cpu));
        uint32_t *record = nullptr;
        ASSERT_EQ(dxt_tlib_get_cpu_cacheinfo(cpu, &record), 0);
        for (int i = 0; i < CACHEINFO_DESCRIPTORS; i++) {
            std::string text = dxt_tlib_get_cache_source(cpu, i);
            EXPECT_EQ(text, dxt_tlib_cache_source_text(descriptor(record, i)[0]));
            EXPECT_EQ(text == "none", descriptor(record, i)[CACHEINFO_SIZE] == 0) << "descriptor " << i;
        }
        // Whatever the machine, a sharing list names the processor itself.
        std::string shared = dxt_tlib_get_l2_shared_cpus(cpu);
        std::vector<int> sharers;
        if (shared != "unknown") {
            ASSERT_TRUE(parse_cpu_list(shared, &sharers)) << shared;
            EXPECT_NE(std::find(sharers.begin(), sharers.end(), cpu), sharers.end()) << shared;
        }
    }
}

TEST(cacheinfo_here, record_is_built_once_and_shared_by_concurrent_callers)
{
    std::vector<int> cpus = allowed_processors();
    constexpr int callers = 8;
    std::vector<std::vector<uint32_t *>> seen(callers, std::vector<uint32_t *>(cpus.size()));
    std::vector<std::thread> threads;
    for (int t = 0; t < callers; t++)
        threads.emplace_back([&, t] {
            for (size_t i = 0; i < cpus.size(); i++)
                dxt_tlib_get_cpu_cacheinfo(cpus[i], &seen[t][i]);
        });
    for (std::thread &thread : threads)
        thread.join();
    for (size_t i = 0; i < cpus.size(); i++) {
        uint32_t *record = nullptr;
        ASSERT_EQ(dxt_tlib_get_cpu_cacheinfo(cpus[i], &record), 0);
        for (int t = 0; t < callers; t++)
            EXPECT_EQ(seen[t][i], record);
    }
}

TEST(cacheinfo_here, processor_that_does_not_exist_is_refused)
{
    for (int cpu : {-1, 1 << 20}) {
        uint32_t *record = nullptr;
        int result = dxt_tlib_get_cpu_cacheinfo(cpu, &record);
        EXPECT_NE(result, 0);
        EXPECT_NE(result, -1);  // the library works; only this processor is unknown
        EXPECT_EQ(record, nullptr);
        EXPECT_EQ(dxt_tlib_get_x86_vendor(cpu), 0);
    }
}

TEST(cacheinfo_here, vendor_matches_the_kernels_vendor_id)
{
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line;
    std::string vendor;
    while (vendor.empty() && std::getline(cpuinfo, line))
        if (line.rfind("vendor_id", 0) == 0)
            vendor = line.substr(line.find(':') + 2);
    if (vendor.empty())
        GTEST_SKIP() << "no vendor_id in /proc/cpuinfo";
    int expected = vendor == "GenuineIntel" ? VENDOR_INTEL : vendor == "AuthenticAMD" ? VENDOR_AMD : 0;
    for (int cpu : allowed_processors())
        EXPECT_EQ(dxt_tlib_get_x86_vendor(cpu), expected) << "processor " << cpu;
}

}  // namespace
