// The harness's own rules, where no whole run can show them: the catalogue
// against what the program passes, which subtest a failed worker was in, the
// corrected-error warning, and the harness as a process sees it (each case in
// a child process: its exit status and its lines).
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <latch>
#include <map>
#include <regex>
#include <sstream>
#include <thread>
#include <string>
#include <vector>

#include "dxtsysinfo_ext.h"
#include "dxttest_internal.h"
#include "harness/testinfo.h"
#include "message_args.h"
#include "platform.h"  // processor_bind
#include "verdict.h"

// What the program defines for the harness to read.
const char dxt_test_version[] = "9.9 2026/01/02 (harness test)";
int32_t test_mask = 0xFFFFF;

namespace {

// The argument types a printf format consumes, in order: d int, u unsigned,
// s text, '*' a width, '?' anything the program never passes.
std::string conversions(const char *format)
{
    std::string types;
    for (const char *p = format; *p != '\0'; p++) {
        if (*p != '%' || *++p == '%')
            continue;
        for (; *p != '\0' && std::string_view("-+ #0123456789.*hlLqjzt").find(*p) != std::string_view::npos; p++)
            if (*p == '*')
                types += '*';
        size_t kind = std::string_view("diuxXos").find(*p);
        types += kind == std::string_view::npos ? '?' : "dduuuus"[kind];
        if (*p == '\0')
            break;
    }
    return types;
}

TEST(Catalogue, ExactlyTheProgramsNumbersEachTakingItsArguments)
{
    std::map<int, std::string> program;
    for (const message_args &m : program_messages)
        program.emplace(m.number, m.args);
    std::map<int, std::string> catalogue;
    for (const dxt::catalogue_entry &entry : dxt::catalogue())
        EXPECT_TRUE(catalogue.emplace(entry.number, conversions(entry.format)).second) << entry.number << " twice";
    EXPECT_EQ(catalogue, program);
    EXPECT_EQ(dxt::catalogue_format(0), nullptr);
    EXPECT_EQ(dxt::catalogue_format(4242), nullptr);
}

// The subtests' indexes in the worker's order.
enum { wrrdvr, cache_hit, cache_miss, random_swap, march_column = 8, random_offset };

TEST(FailedWorker, TheSubtestItWasIn)
{
    struct row {
        const char *name;
        int32_t mask;
        int last_started;
        bool ended, status_known;
        intptr_t status;
        std::vector<int> expected;
    };
    const int32_t all = dxt::all_subtests;
    const row rows[] = {
        {"started, not ended", all, random_swap, false, true, -1, {random_swap}},
        {"none started", 16 | 32 | 64, -1, false, false, 0, {cache_hit, cache_miss}},
        {"after Write/Read/Verify", all, wrrdvr, false, false, 0, {cache_hit, cache_miss}},
        {"miscompare status", all, wrrdvr, false, true, -1, {cache_hit}},
        {"no-memory status", all, wrrdvr, false, true, 12, {cache_miss}},
        {"status no candidate gives", 8 | 32, wrrdvr, false, true, -1, {cache_miss}},
        {"after the last march", all, march_column, true, false, 0, {random_offset}},
        {"ended, next announces itself", all, random_swap, true, false, 0, {}},
    };
    for (const row &r : rows) {
        dxt::subtest_set set = dxt::possible_subtests(r.mask, r.last_started, r.ended, r.status_known, r.status);
        EXPECT_EQ(std::vector<int>(set.index, set.index + set.count), r.expected) << r.name;
    }
}

TEST(CorrectedErrors, AnIncreaseWarnsAndNeverFails)
{
    dxt::machine_description m;
    m.tested = {0};
    dxt::corrected_check rising = dxt::compare_corrected_errors(true, {1, 10, 1, 2, 12}, true, {1, 13, 1, 2, 15});
    dxt::verdict_record record{0, 0, 0, "passed", 0, &m, {}, rising};
    std::vector<char> storage(dxt::verdict_room(record));
    dxt::text_buffer out{storage.data(), storage.size()};
    dxt::put_verdict_record(out, record);
    std::string line(out.data, out.length);
    EXPECT_NE(line.find(",\"verdict\":\"pass\","), std::string::npos) << line;
    EXPECT_NE(line.find("\"before\":12,\"after\":15,\"increase\":3},\"warnings\":[\"3 corrected hardware errors"),
              std::string::npos) << line;
    dxt::corrected_check none = dxt::compare_corrected_errors(false, {}, false, {});
    EXPECT_FALSE(none.available);
    EXPECT_NE(dxt::corrected_errors_note(false), nullptr);
    EXPECT_EQ(dxt::corrected_errors_note(true), nullptr);
}

// What a child's body returns when it comes back: tells "returned" apart
// from every status the harness exits with.
constexpr int returned = 40;

struct outcome {
    int status;  // exit status, or -1 when it did not exit
    std::string out, err;

    std::vector<std::string> lines() const
    {
        std::vector<std::string> result;
        std::istringstream in(out);
        for (std::string line; std::getline(in, line);)
            result.push_back(line);
        return result;
    }
};

std::string read_all(FILE *file)
{
    std::string text;
    char buffer[4096];
    rewind(file);
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, file)) > 0;)
        text.append(buffer, n);
    fclose(file);
    return text;
}

// Runs body in a child process (the harness exits, installs signal handlers
// and keeps run-wide state; no gtest assertion may run there): its exit
// status and what it wrote. A child still running after 50 s is ended.
outcome in_child(const std::function<int()> &body)
{
    FILE *out = tmpfile(), *err = tmpfile();
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        alarm(50);
        dup2(fileno(out), STDOUT_FILENO);
        dup2(fileno(err), STDERR_FILENO);
        int status = body();
        fflush(nullptr);
        _exit(status);
    }
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    return {WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1, read_all(out), read_all(err)};
}

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
        EXPECT_NE(o.lines()[0].find(",\"number\":" + std::to_string(r.number) + ","), std::string::npos);
        std::string verdict = std::string(",\"verdict\":\"") + r.verdict + "\",\"exit_status\":" + r.status + ",";
        EXPECT_NE(o.lines()[1].find(verdict), std::string::npos) << o.lines()[1];
        std::string failure = "\"failures\":[{\"cpu\":null,\"message\":" + std::to_string(r.number) +
                              ",\"worker_status\":null,\"subtest\":" + r.subtest + ",";
        EXPECT_NE(o.lines()[1].find(failure), std::string::npos) << o.lines()[1];
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
    EXPECT_NE(o.out.find("\"l2\":[{\"cpu\":" + std::to_string(cpu) +
                                    ",\"size\":36982784,\"line\":32,\"ways\":4,\"source\":\"defaults\",\"sources\":{"
                                    "\"size\":\"defaults\",\"line\":\"defaults\",\"ways\":\"defaults\"},"
                                    "\"shared_cpus\":\"" +
                                    dxt_tlib_get_l2_shared_cpus(cpu) + "\"}],"), std::string::npos) << o.out;
}

TEST(HarnessProcess, LinesFromManyThreadsStayWhole)
{
    constexpr int threads = 4, messages = 300;
    auto text_of = [](int t, int i) {
        return "thread " + std::to_string(t) + " message " + std::to_string(i) + " " +
               std::string(200 + 37 * t, static_cast<char>('a' + t));
    };
    outcome o = in_child([&] {
        start({});
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
        size_t at = line.find(" thread ");
        ASSERT_NE(at, std::string::npos) << line;
        int t = line[at + 8] - '0';
        ASSERT_TRUE(t >= 0 && t < threads) << line;
        EXPECT_EQ(line.substr(at + 1), text_of(t, next[t]++));  // each thread's lines whole, in its order
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
