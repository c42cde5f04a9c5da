// The harness as a process sees it: each case starts it in a child process
// and looks at the exit status and the lines written.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>

#include <latch>
#include <regex>

#include "child_run.h"
#include "harness/testinfo.h"
#include "dxtsysinfo_ext.h"
#include "platform.h"  // processor_bind

// What the program defines for the harness to read.
const char dxt_test_version[] = "9.9 2026/01/02 (harness test)";
int32_t test_mask = 0xFFFFF;

namespace {

// What a child's body returns when it comes back: tells "returned" apart
// from every status the harness exits with.
constexpr int returned = 40;

// The harness started as the program starts it, without an option parser.
void start(std::vector<std::string> args)
{
    test_name = "tarneltest";
    args.insert(args.begin(), "tarneltest");
    std::vector<char *> argv;
    for (std::string &s : args)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    test_init(static_cast<int>(args.size()), argv.data(), nullptr, nullptr, "");
}

// The highest processor this process may run on, so not always 0.
int allowed_processor()
{
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof allowed, &allowed);
    int cpu = CPU_SETSIZE - 1;
    while (cpu > 0 && !CPU_ISSET(cpu, &allowed))
        cpu--;
    return cpu;
}

TEST(HarnessProcess, AnUnknownNumberIsShownAsSuchOnTheCallersProcessor)
{
    int cpu = allowed_processor();
    outcome o = in_child([cpu] {
        start({"-d"});
        std::thread worker([cpu] {
            processor_bind(P_LWPID, P_MYID, cpu, nullptr);
            dxt_message(DXT_RETURN, LVL_STEP_ERROR, nullptr, 9999);  // and no argument to read
            dxt_message(DXT_RETURN, LVL_INFO, "l2cache", MSG_WRRDVR_START);
        });
        worker.join();
        func_name = "clean_up";
        trace_before(0);
        return returned;
    });
    EXPECT_EQ(o.status, returned);
    std::string at = " cpu" + std::to_string(cpu) + " ";
    EXPECT_EQ(o.count(" ERROR" + at + "#9999 unknown message number 9999\n"), 1) << o.out;
    EXPECT_EQ(o.count(" INFO" + at + "[l2cache] #3 Write/Read/Verify test started\n"), 1) << o.out;
    // The main thread runs no subtest: its lines say "main".
    EXPECT_EQ(o.count(" DEBUG main #0 entering clean_up\n"), 1) << o.out;
}

TEST(HarnessProcess, AnEndingMessageEndsTheRunWithItsStatusAndVerdictRecord)
{
    struct row {
        int exit_flag, number;
        const char *status, *verdict, *subtest;
    };
    // The main thread runs no subtest, but the Write/Read/Verify test's own
    // messages name it.
    for (const row &r : {row{DXT_STEP_FAIL, MSG_MISCOMPARE, "1", "fault", "\"Write/Read/Verify\""},
                         row{DXT_FATAL, MSG_SYSCALL_FAILED, "3", "could-not-test", "null"}}) {
        outcome o = in_child([&] {
            start({"--json"});
            dxt_message(r.exit_flag, LVL_FATAL, nullptr, r.number, "sysconf", "Invalid argument");
            dxt_message(DXT_RETURN, LVL_FATAL, nullptr, MSG_FREE_TEXT, "after the end");
            return returned;
        });
        EXPECT_EQ(std::to_string(o.status), r.status) << r.number;
        ASSERT_EQ(o.lines().size(), 2u) << o.out;  // the message and the verdict
        EXPECT_EQ(json_check::parse_object_line(o.lines()[0]).value_or(json_check::object{})["number"],
                  std::to_string(r.number));
        json_check::object verdict = o.record();
        EXPECT_EQ(verdict["verdict"], r.verdict);
        EXPECT_EQ(verdict["exit_status"], r.status);
        std::string failure = "\\[\\{\"cpu\":null,\"message\":" + std::to_string(r.number) +
                              ",\"worker_status\":null,\"subtest\":" + r.subtest + ",.*\\]";
        EXPECT_TRUE(std::regex_match(verdict["failures"], std::regex(failure))) << verdict["failures"];
    }
}

// A run passes only when it tested what it was meant to: a worker that was
// never created (4006, naming its table entry) or never bound (4003, naming
// its processor) leaves its processor untested.
TEST(HarnessProcess, TestEndPassesOnlyWhenEveryProcessorWasTested)
{
    int cpu = allowed_processor();
    struct row {
        int number, argument;
        const char *status, *verdict, *left_out;
    };
    for (const row &r : {row{0, 0, "0", "pass", "[]"},
                         row{MSG_THREAD_CREATE_FAILED, 0, "3", "could-not-test", "thread-not-created\",\"entry\":0}]"},
                         row{MSG_BIND_FAILED, cpu, "3", "could-not-test", "not-bound\"}]"}}) {
        outcome o = in_child([&] {
            start({"--json", "-q", "-o", "count=1"});
            if (r.number != 0)
                dxt_message(DXT_RETURN, LVL_STEP_ERROR, nullptr, r.number, r.argument, "Invalid argument");
            test_end();
            return returned;
        });
        json_check::object v = o.record();
        EXPECT_EQ(std::to_string(o.status), r.number == 0 ? std::to_string(returned) : r.status) << o.out;
        EXPECT_EQ(v["verdict"], r.verdict) << o.out;
        EXPECT_EQ(v["options"], "count=1");
        EXPECT_TRUE(v["left_out_cpus"].ends_with(r.left_out)) << v["left_out_cpus"];
    }
}

// The geometry in the record is the one each worker announced, recorded
// whether or not its debug line is shown; a size no descriptor of its
// processor holds came from the defaults.
TEST(HarnessProcess, TheRecordTakesTheGeometryEachWorkerAnnounced)
{
    int cpu = allowed_processor();
    outcome o = in_child([cpu] {
        start({"--json", "-q"});
        std::thread worker([cpu] {
            processor_bind(P_LWPID, P_MYID, cpu, nullptr);
            dxt_message(DXT_RETURN, LVL_DEBUG, "l2cache", MSG_FREE_TEXT,
                        "Cache Access stress for cache_size %x line_size %x num_loops %d\n", 0x2345000u, 32u, 1);
        });
        worker.join();
        test_end();
        return returned;
    });
    EXPECT_EQ(o.status, returned) << o.err;
    EXPECT_EQ(o.record()["l2"], "[{\"cpu\":" + std::to_string(cpu) +
                                    ",\"size\":36982784,\"line\":32,\"ways\":4,\"source\":\"defaults\",\"sources\":{"
                                    "\"size\":\"defaults\",\"line\":\"defaults\",\"ways\":\"defaults\"},"
                                    "\"shared_cpus\":\"" +
                                    dxt_tlib_get_l2_shared_cpus(cpu) + "\"}]");
}

TEST(HarnessProcess, ConcurrentEndsGiveOneVerdict)
{
    outcome o = in_child([] {
        start({});
        std::latch go(8);
        std::vector<std::thread> workers;
        for (int i = 0; i < 8; i++)
            workers.emplace_back([&go, i] {
                go.arrive_and_wait();
                dxt_message(DXT_FATAL, LVL_FATAL, nullptr, i % 2 ? MSG_WORKERS_FAILED : MSG_UNKNOWN_VENDOR);
            });
        for (std::thread &t : workers)
            t.join();
        return returned;
    });
    EXPECT_TRUE(o.status == 1 || o.status == 3) << o.status;
    EXPECT_EQ(o.count(" VERDICT "), 1) << o.out;
    EXPECT_EQ(o.count(" FATAL "), 1) << o.out;
    EXPECT_EQ(o.count("(exit status " + std::to_string(o.status) + ")"), 1) << o.out;
}

TEST(HarnessProcess, LinesFromManyThreadsStayWhole)
{
    constexpr int threads = 4, messages = 300;
    auto text_of = [](int t, int i) {
        return "thread " + std::to_string(t) + " message " + std::to_string(i) + " " +
               std::string(200 + 37 * t, static_cast<char>('a' + t));
    };
    outcome o = in_child([&] {
        start({"--json"});
        std::latch go(threads);
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; t++)
            workers.emplace_back([&, t] {
                go.arrive_and_wait();
                for (int i = 0; i < messages; i++)
                    dxt_message(DXT_RETURN, LVL_INFO, "l2cache", MSG_FREE_TEXT, "%s", text_of(t, i).c_str());
            });
        for (std::thread &w : workers)
            w.join();
        return returned;
    });
    EXPECT_EQ(o.status, returned);
    ASSERT_EQ(o.lines().size(), static_cast<size_t>(threads * messages));
    std::vector<int> next(threads, 0);
    for (const std::string &line : o.lines()) {
        auto parsed = json_check::parse_object_line(line);
        ASSERT_TRUE(parsed.has_value()) << line;
        int t = (*parsed)["text"][7] - '0';
        ASSERT_TRUE(t >= 0 && t < threads) << line;
        EXPECT_EQ((*parsed)["text"], text_of(t, next[t]++));  // each thread's lines whole, in its order
    }
}

TEST(HarnessProcess, BusErrorIsAHardwareFaultWithProcessorAndAddress)
{
    outcome o = in_child([] {
        start({});
        dxt_test_async_handler(0);
        // A read past the end of a file mapping is a bus error. The
        // mapping goes where the kernel puts it: a fixed address may lie
        // outside what a sanitizer lets the program map.
        int fd = fileno(tmpfile());
        if (ftruncate(fd, 4096) != 0)
            return 99;
        void *where = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
        if (where == MAP_FAILED || ftruncate(fd, 0) != 0)
            return 99;
        return static_cast<volatile char *>(where)[64] + returned;
    });
    EXPECT_EQ(o.status, 1) << o.out;
    // Byte 64 of a page-aligned mapping: the address ends in 040.
    EXPECT_TRUE(std::regex_search(o.out, std::regex(" FATAL main #0 hardware fault: bus error \\(SIGBUS\\) on "
                                                    "cpu([0-9]+) at address (0x[0-9a-f]*040)\n(.*\n)*.* SUMMARY failure "
                                                    "on cpu\\1: .*\\(signal, address \\2\\)\n(.*\n)*.* VERDICT FAIL: "
                                                    "a fault was found on cpu\\1 \\(exit status 1\\)\n$")))
        << o.out;
}

}  // namespace
