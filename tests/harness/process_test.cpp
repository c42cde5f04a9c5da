// The harness as a process sees it: each case runs in a child process (the
// harness exits, installs signal handlers and keeps run-wide state), with
// its standard output and error caught in files (or a terminal), and looks
// at the exit status and the lines written.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <latch>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "harness/testinfo.h"
#include "json_check.h"
#include "platform.h"

const char dxt_test_version[] = "9.9 2026/01/02 (harness test)";

namespace {

const char options_text[] = "dev=tarnel,count=[1..1024],cpc=[Enabled,Disabled]";
// What a child's body returns when it comes back: tells "returned" apart
// from every status the harness exits with.
constexpr int returned = 40;

struct outcome {
    int status = -1;  // exit status, or -1 when killed by a signal
    std::string out;
    std::string err;

    std::vector<std::string> lines() const
    {
        std::vector<std::string> result;
        std::istringstream in(out);
        for (std::string line; std::getline(in, line);)
            result.push_back(line);
        return result;
    }
    int count(const std::string &needle) const
    {
        int n = 0;
        for (size_t at = out.find(needle); at != std::string::npos; at = out.find(needle, at + 1))
            n++;
        return n;
    }
};

std::string contents(FILE *file)
{
    std::string text;
    rewind(file);
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, file)) > 0)
        text.append(buffer, n);
    fclose(file);
    return text;
}

// Runs body in a child; no gtest assertion may run there.
outcome in_child(const std::function<int()> &body)
{
    FILE *out = tmpfile();
    FILE *err = tmpfile();
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        alarm(30);  // a hung harness fails the case instead of the suite
        dup2(fileno(out), STDOUT_FILENO);
        dup2(fileno(err), STDERR_FILENO);
        int status = body();
        fflush(nullptr);
        _exit(status);
    }
    outcome result;
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
    result.out = contents(out);
    result.err = contents(err);
    return result;
}

int parser_answer = 1;

// The test's parser as the harness sees it: it shows what it was given.
int recording_parser(char *subopts)
{
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_FREE_TEXT, "parser got [%s]", subopts);
    return parser_answer;
}

int usage_routine(void)
{
    dxt_message(DXT_RETURN, LVL_USAGE, nullptr, MSG_USAGE, test_name);
    return 0;
}

void start(std::vector<std::string> args)
{
    test_name = "tarneltest";
    device_name = "tarnel";
    test_modes = 16;
    args.insert(args.begin(), "tarneltest");
    std::vector<char *> argv;
    for (std::string &s : args)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    test_init(static_cast<int>(args.size()), argv.data(), recording_parser, usage_routine, options_text);
}

class HarnessProcess : public ::testing::Test {
protected:
    void SetUp() override { parser_answer = 1; }
};

TEST_F(HarnessProcess, ParserGetsTheSuboptionsOnceUnchanged)
{
    outcome r = in_child([] {
        start({"-o", "count=5x,bogus"});
        return returned;
    });
    EXPECT_EQ(r.status, returned);
    EXPECT_EQ(r.count("parser got [count=5x,bogus]"), 1) << r.out;
    EXPECT_EQ(r.count("parser got"), 1);
}

TEST_F(HarnessProcess, ParserGetsAnEmptyTextWithoutMinusO)
{
    outcome r = in_child([] {
        start({});
        return returned;
    });
    EXPECT_EQ(r.status, returned);
    EXPECT_EQ(r.count("parser got []"), 1) << r.out;
}

TEST_F(HarnessProcess, RejectedSuboptionsExitTwoWithTheUsage)
{
    parser_answer = 0;
    outcome r = in_child([] {
        start({"-o", "count=5x"});
        return returned;
    });
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("\"count=5x\" were not all accepted"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("usage: tarneltest [-o SUBOPTIONS]"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(options_text), std::string::npos);
    EXPECT_EQ(r.count("VERDICT"), 0);
}

TEST_F(HarnessProcess, UnknownOptionExitsTwoWithoutParsing)
{
    for (std::vector<std::string> args : {std::vector<std::string>{"--bogus"}, {"-o", "count=1", "stray"}}) {
        outcome r = in_child([&] {
            start(args);
            return returned;
        });
        EXPECT_EQ(r.status, 2) << args[0];
        EXPECT_EQ(r.count("parser got"), 0) << r.out;
        EXPECT_TRUE(r.err.starts_with("tarneltest: ")) << r.err;
        EXPECT_NE(r.err.find("usage: tarneltest"), std::string::npos) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

TEST_F(HarnessProcess, HelpShowsTheUsageAndExitsZero)
{
    for (std::vector<std::string> args : {std::vector<std::string>{"-h"}, {"-q", "--help"}}) {
        outcome r = in_child([&] {
            start(args);
            return returned;
        });
        EXPECT_EQ(r.status, 0);
        EXPECT_TRUE(r.out.starts_with("usage: tarneltest [-o SUBOPTIONS] [-v | -q] [-d] [--json] [-h] [--version]\n"))
            << r.out;
        EXPECT_EQ(r.count(options_text), 1);
        EXPECT_EQ(r.count("parser got"), 0);
    }
}

TEST_F(HarnessProcess, VersionShowsTheProgramsVersion)
{
    outcome r = in_child([] {
        start({"--version"});
        return returned;
    });
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "tarneltest version 9.9 2026/01/02 (harness test)\n");

    r = in_child([] {
        start({"--json", "--version"});
        return returned;
    });
    EXPECT_EQ(r.status, 0);
    auto parsed = json_check::parse_object_line(r.lines().at(0));
    ASSERT_TRUE(parsed.has_value()) << r.out;
    EXPECT_EQ(parsed->at("version").text, dxt_test_version);
}

struct ending_case {
    int exit_flag;
    int number;
    int status;
    const char *verdict;
};

TEST_F(HarnessProcess, AnEndingMessageEndsWithItsStatusAndAVerdict)
{
    for (ending_case c : {ending_case{DXT_FATAL, MSG_WORKERS_FAILED, 1, "FAIL: a fault was found (exit status 1)"},
                          ending_case{DXT_STEP_FAIL, MSG_MISCOMPARE, 1, "FAIL: a fault was found (exit status 1)"},
                          ending_case{DXT_FATAL, MSG_UNKNOWN_VENDOR, 3, "COULD NOT TEST: "},
                          ending_case{DXT_STEP_FAIL, MSG_WRRDVR_NO_MEMORY, 3, "(exit status 3)"}}) {
        outcome r = in_child([&] {
            start({"-q"});
            dxt_message(c.exit_flag, LVL_FATAL, nullptr, c.number);
            dxt_message(DXT_RETURN, LVL_FATAL, nullptr, MSG_FREE_TEXT, "after the end");
            return returned;
        });
        EXPECT_EQ(r.status, c.status) << c.number;
        std::vector<std::string> lines = r.lines();
        ASSERT_EQ(lines.size(), 3u) << r.out;
        EXPECT_NE(lines[0].find("#" + std::to_string(c.number) + " "), std::string::npos) << lines[0];
        // The main thread is bound to no processor and runs no subtest; the
        // Write/Read/Verify test's own messages name it anyway.
        EXPECT_NE(lines[1].find(" SUMMARY failure on an unknown processor: "), std::string::npos) << lines[1];
        bool named = c.number == MSG_MISCOMPARE || c.number == MSG_WRRDVR_NO_MEMORY;
        EXPECT_NE(lines[1].find(named ? ": Write/Read/Verify (message " : ": subtest unknown (message "),
                  std::string::npos)
            << lines[1];
        EXPECT_NE(lines[2].find(" VERDICT "), std::string::npos) << lines[2];
        EXPECT_NE(lines[2].find(c.verdict), std::string::npos) << lines[2];
    }
}

TEST_F(HarnessProcess, SystemCallFailureInJson)
{
    outcome r = in_child([] {
        start({"--json"});
        dxt_message(DXT_FATAL, LVL_FATAL, nullptr, MSG_SYSCALL_FAILED, "sysconf", "Invalid argument");
        return returned;
    });
    EXPECT_EQ(r.status, 3);
    std::vector<std::string> lines = r.lines();
    ASSERT_EQ(lines.size(), 3u) << r.out;  // the parser's line, the message, the verdict
    auto message = json_check::parse_object_line(lines[1]);
    auto verdict = json_check::parse_object_line(lines[2]);
    ASSERT_TRUE(message && verdict) << r.out;
    EXPECT_EQ(message->at("number").text, "8012");
    EXPECT_EQ(message->at("exit_flag").text, "-1");
    EXPECT_NE(message->at("text").text.find("sysconf"), std::string::npos);
    EXPECT_EQ(verdict->at("verdict").text, "could-not-test");
    EXPECT_EQ(verdict->at("exit_status").text, "3");
    EXPECT_EQ(verdict->at("schema_version").text, "1");
}

TEST_F(HarnessProcess, ConcurrentEndsGiveOneVerdict)
{
    outcome r = in_child([] {
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
    EXPECT_TRUE(r.status == 1 || r.status == 3) << r.status;
    EXPECT_EQ(r.count(" VERDICT "), 1) << r.out;
    EXPECT_EQ(r.count(" FATAL "), 1) << r.out;
    EXPECT_NE(r.count("(exit status " + std::to_string(r.status) + ")"), 0) << r.out;
}

TEST_F(HarnessProcess, LinesFromManyThreadsStayWhole)
{
    constexpr int threads = 4, messages = 300;
    outcome r = in_child([] {
        start({"--json"});
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; t++)
            workers.emplace_back([t] {
                std::string filler(200 + 37 * t, static_cast<char>('a' + t));
                for (int i = 0; i < messages; i++)
                    dxt_message(DXT_RETURN, LVL_INFO, "l2cache", MSG_FREE_TEXT, "thread %d message %d %s", t, i,
                                filler.c_str());
            });
        for (std::thread &w : workers)
            w.join();
        return returned;
    });
    EXPECT_EQ(r.status, returned);
    std::vector<std::string> lines = r.lines();
    ASSERT_EQ(lines.size(), 1u + threads * messages);
    std::vector<int> next(threads, 0);
    for (size_t i = 1; i < lines.size(); i++) {
        auto parsed = json_check::parse_object_line(lines[i]);
        ASSERT_TRUE(parsed.has_value()) << lines[i];
        int t = -1, n = -1;
        ASSERT_EQ(sscanf(parsed->at("text").text.c_str(), "thread %d message %d", &t, &n), 2);
        ASSERT_TRUE(t >= 0 && t < threads);
        EXPECT_EQ(n, next[t]++);  // each thread's lines in its own order
        EXPECT_EQ(parsed->at("text").text.size(), std::string("thread 0 message ").size() + std::to_string(n).size() +
                                                      1 + 200 + 37 * t);
    }
}

TEST_F(HarnessProcess, EachModeShowsItsLevels)
{
    auto shown = [](std::vector<std::string> args) {
        return in_child([&] {
            start(args);
            dxt_message(DXT_RETURN, LVL_STEP_ERROR, nullptr, MSG_FREE_TEXT, "level three");
            dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_FREE_TEXT, "level seven");
            dxt_message(DXT_RETURN, LVL_DEBUG, nullptr, MSG_FREE_TEXT, "level eight");
            return returned;
        });
    };
    outcome normal = shown({}), quiet = shown({"-q"}), debug = shown({"-d"}), verbose = shown({"-v"});
    EXPECT_EQ(normal.count("level three") + normal.count("level seven") + normal.count("level eight"), 2);
    EXPECT_EQ(normal.count("level eight"), 0);
    for (const char *text : {"level three", "level seven", "level eight", "parser got"})
        EXPECT_EQ(verbose.count(text), normal.count(text)) << text;
    EXPECT_EQ(quiet.count("level three"), 1);
    EXPECT_EQ(quiet.count("level seven"), 0);
    EXPECT_EQ(quiet.count("parser got"), 0);
    EXPECT_EQ(debug.count("level eight"), 1);
    EXPECT_EQ(debug.count("level seven"), 1);
}

TEST_F(HarnessProcess, TheLineNamesTheProcessorOfTheCallingThread)
{
    cpu_set_t allowed;
    ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
    int cpu = -1;
    for (int c = 0; c < CPU_SETSIZE; c++)
        if (CPU_ISSET(c, &allowed))
            cpu = c;  // the highest, so not always 0
    outcome r = in_child([cpu] {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        sched_setaffinity(0, sizeof one, &one);
        start({});
        dxt_message(DXT_RETURN, LVL_INFO, "l2cache", MSG_WRRDVR_START);
        return returned;
    });
    EXPECT_NE(r.out.find(" INFO cpu" + std::to_string(cpu) + " [l2cache] #3 "), std::string::npos) << r.out;
}

TEST_F(HarnessProcess, TestEndGivesAPassVerdictAndReturnsZero)
{
    outcome r = in_child([] {
        start({"-q"});
        return returned + test_end();
    });
    EXPECT_EQ(r.status, returned);
    std::regex pass("VERDICT cpu[0-9]+ PASS: tarneltest passed in [0-9]+\\.[0-9] s\n$");
    EXPECT_TRUE(std::regex_search(r.out, pass)) << r.out;

    r = in_child([] {
        start({"--json"});
        return returned + test_end();
    });
    auto verdict = json_check::parse_object_line(r.lines().back());
    ASSERT_TRUE(verdict.has_value()) << r.out;
    EXPECT_EQ(verdict->at("verdict").text, "pass");
    EXPECT_EQ(verdict->at("exit_status").text, "0");
    EXPECT_EQ(verdict->at("failures").text, "[]");
}

TEST_F(HarnessProcess, TracingOnlyAtDebugLevel)
{
    auto traced = [](std::vector<std::string> args) {
        return in_child([&] {
            start(args);
            func_name = "clean_up";
            trace_before(0);
            trace_after(0);
            return returned;
        });
    };
    outcome debug = traced({"-d"});
    EXPECT_EQ(debug.count(" DEBUG cpu"), debug.count(" [dxttest] ") + 2) << debug.out;
    EXPECT_EQ(debug.count("entering clean_up"), 1);
    EXPECT_EQ(debug.count("leaving clean_up"), 1);
    EXPECT_EQ(traced({}).count("clean_up"), 0);
}

TEST_F(HarnessProcess, InterruptsEndWith128PlusTheSignal)
{
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        outcome r = in_child([sig] {
            start({});
            dxt_test_async_handler(0);
            // As a scheduler or a terminal sends it: to the process. The
            // verdict is written by the harness's own thread.
            kill(getpid(), sig);
            for (;;)
                pause();
            return returned;
        });
        EXPECT_EQ(r.status, 128 + sig);
        EXPECT_NE(r.out.find("VERDICT cpu"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("INTERRUPTED: interrupted by SIG"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("(exit status " + std::to_string(128 + sig) + ")"), std::string::npos) << r.out;
    }
}

// A read past the end of a file mapping is a bus error with the address.
void *bus_error_page()
{
    FILE *file = tmpfile();
    int fd = fileno(file);
    if (ftruncate(fd, 4096) != 0)
        return nullptr;
    void *page = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    if (page == MAP_FAILED || ftruncate(fd, 0) != 0)
        return nullptr;
    return page;
}

TEST_F(HarnessProcess, BusErrorIsAHardwareFaultWithProcessorAndAddress)
{
    FILE *address_file = tmpfile();
    outcome r = in_child([address_file] {
        start({});
        dxt_test_async_handler(0);
        volatile char *page = static_cast<volatile char *>(bus_error_page());
        if (page == nullptr)
            return 99;
        fprintf(address_file, "%p", static_cast<void *>(const_cast<char *>(page + 64)));
        fflush(address_file);
        return page[64] + returned;
    });
    std::string address = contents(address_file);
    ASSERT_EQ(r.status, 1) << r.out;
    std::vector<std::string> lines = r.lines();
    ASSERT_GE(lines.size(), 4u) << r.out;
    EXPECT_TRUE(std::regex_search(lines[1], std::regex(" FATAL cpu[0-9]+ #0 hardware fault: bus error \\(SIGBUS\\) on "
                                                       "cpu[0-9]+ at address 0x[0-9a-f]+$")))
        << lines[1];
    EXPECT_TRUE(lines[1].ends_with(" at address " + address)) << lines[1] << " vs " << address;
    EXPECT_EQ(r.count(" SUMMARY failure on cpu"), 1) << r.out;
    EXPECT_NE(r.out.find("(signal, address " + address + ")"), std::string::npos) << r.out;
    EXPECT_NE(lines.back().find("VERDICT cpu"), std::string::npos);
    EXPECT_NE(lines.back().find("FAIL: a fault was found (exit status 1)"), std::string::npos);
}

TEST_F(HarnessProcess, UnknownNumberDoesNotCrash)
{
    outcome r = in_child([] {
        start({"-q"});
        dxt_message(DXT_RETURN, LVL_STEP_ERROR, nullptr, 9999);
        return returned;
    });
    EXPECT_EQ(r.status, returned);
    EXPECT_EQ(r.count("#9999 unknown message number 9999"), 1) << r.out;
}

// Workers as the program makes them: threads of the platform, each bound to
// a processor, announcing their subtests and ending with a status.
struct worker_script {
    int cpu;
    int start_message;  // 0: none
    intptr_t status;
};

void *scripted_worker(void *argument)
{
    const worker_script *script = static_cast<const worker_script *>(argument);
    processor_bind(P_LWPID, P_MYID, script->cpu, nullptr);
    if (script->start_message != 0)
        dxt_message(DXT_RETURN, LVL_INFO, nullptr, script->start_message);
    thr_exit(reinterpret_cast<void *>(script->status));
    return nullptr;
}

int first_allowed_processor()
{
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof allowed, &allowed);
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++)
        if (CPU_ISSET(cpu, &allowed))
            return cpu;
    return 0;
}

std::vector<json_check::object> failures_in(const std::string &record_line)
{
    std::vector<json_check::object> result;
    auto record = json_check::parse_object_line(record_line);
    if (!record)
        return result;
    for (const json_check::member &m : json_check::parse_array(record->at("failures").text).value_or(
             std::vector<json_check::member>{}))
        result.push_back(json_check::parse_object_line(m.text).value_or(json_check::object{}));
    return result;
}

TEST_F(HarnessProcess, FailedWorkersFoundAtTheJoinAreNamedWithProcessorAndSubtest)
{
    int cpu = first_allowed_processor();
    outcome r = in_child([cpu] {
        start({"--json", "-o", "count=1,test_mask=80"});  // Cache Hit and Random Swap
        worker_script scripts[] = {{cpu, MSG_SWAP_START, 12}, {cpu, MSG_WRRDVR_START, 0}, {cpu, 0, -1}};
        unsigned int threads[3];
        for (int i = 0; i < 3; i++)
            if (thr_create(nullptr, 0, scripted_worker, &scripts[i], THR_BOUND, &threads[i]) != 0)
                return 99;
        for (unsigned int thread : threads)
            thr_join(thread, nullptr, nullptr);
        dxt_message(DXT_FATAL, LVL_FATAL, nullptr, MSG_WORKERS_FAILED);
        return returned;
    });
    EXPECT_EQ(r.status, 1) << r.out;
    std::vector<json_check::object> failures = failures_in(r.lines().back());
    ASSERT_EQ(failures.size(), 2u) << r.out;
    EXPECT_EQ(failures[0].at("cpu").text, std::to_string(cpu));
    EXPECT_EQ(failures[0].at("message").text, "8011");
    EXPECT_EQ(failures[0].at("worker_status").text, "12");
    EXPECT_EQ(failures[0].at("subtest").text, "Random Swap");
    // Announced nothing: the only selected subtest without a start message.
    EXPECT_EQ(failures[1].at("cpu").text, std::to_string(cpu));
    EXPECT_EQ(failures[1].at("worker_status").text, "-1");
    EXPECT_EQ(failures[1].at("subtest").text, "Cache Hit Stress");
}

void *miscomparing_worker(void *argument)
{
    processor_bind(P_LWPID, P_MYID, *static_cast<int *>(argument), nullptr);
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_WRRDVR_START);
    dxt_message(DXT_STEP_FAIL, LVL_TEST_ERROR, nullptr, MSG_MISCOMPARE);
    return nullptr;
}

TEST_F(HarnessProcess, AMiscompareInAWorkerNamesItsProcessor)
{
    int cpu = first_allowed_processor();
    for (bool json : {true, false}) {
        outcome r = in_child([cpu, json] {
            start({json ? "--json" : "-q"});
            unsigned int thread = 0;
            int bound_to = cpu;
            thr_create(nullptr, 0, miscomparing_worker, &bound_to, THR_BOUND, &thread);
            thr_join(thread, nullptr, nullptr);
            return returned;
        });
        EXPECT_EQ(r.status, 1) << r.out;
        if (json) {
            std::vector<json_check::object> failures = failures_in(r.lines().back());
            ASSERT_EQ(failures.size(), 1u) << r.out;
            EXPECT_EQ(failures[0].at("cpu").text, std::to_string(cpu));
            EXPECT_EQ(failures[0].at("message").text, "6000");
            EXPECT_EQ(failures[0].at("subtest").text, "Write/Read/Verify");
        } else {
            EXPECT_EQ(r.count(" SUMMARY failure on cpu" + std::to_string(cpu) + ": Write/Read/Verify (message 6000)"),
                      1)
                << r.out;
        }
    }
}

TEST_F(HarnessProcess, DebugShowsEachProcessorsGeometryWithItsSources)
{
    outcome r = in_child([] {
        start({"-d", "--json"});
        return returned;
    });
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof allowed, &allowed);
    int geometry_lines = 0;
    for (const std::string &line : r.lines()) {
        auto m = json_check::parse_object_line(line);
        ASSERT_TRUE(m.has_value()) << line;
        if (m->at("tag").text != "dxttest" || !m->at("text").text.starts_with("L2 of cpu"))
            continue;
        geometry_lines++;
        EXPECT_EQ(m->at("level").text, "8");
        // Every value with its source: "1048576 bytes (sysfs), 64-byte lines (sysfs), 16 ways (sysfs), ".
        const std::string &text = m->at("text").text;
        for (const char *value : {" bytes (", "-byte lines (", " ways ("})
            EXPECT_NE(text.find(value), std::string::npos) << value << " in " << text;
        EXPECT_EQ(std::count(text.begin(), text.end(), ')'), 3) << text;
    }
    EXPECT_EQ(geometry_lines, CPU_COUNT(&allowed)) << r.out;
    EXPECT_EQ(in_child([] {
                  start({});
                  return returned;
              }).count("L2 of cpu"),
              0);
}

// Runs body in a child whose standard output is a terminal; returns what the
// terminal showed.
outcome in_terminal(const std::function<int()> &body)
{
    int master = -1, slave = -1;
    outcome result;
    winsize size{24, 80, 0, 0};
    if (openpty(&master, &slave, nullptr, nullptr, &size) != 0)
        return result;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        alarm(30);
        close(master);
        dup2(slave, STDOUT_FILENO);
        close(slave);
        int status = body();
        fflush(nullptr);
        _exit(status);
    }
    close(slave);
    char buffer[4096];
    ssize_t n;
    // EIO once the child's side is closed.
    while ((n = read(master, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0)
            result.out.append(buffer, static_cast<size_t>(n));
    close(master);
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
    return result;
}

void *announcing_worker(void *)
{
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_SWAP_START);
    dxt_message(DXT_RETURN, LVL_INFO, nullptr, MSG_SWAP_END);
    return nullptr;
}

int announce_then_pass(const char *mode)
{
    start({mode});
    unsigned int thread = 0;
    thr_create(nullptr, 0, announcing_worker, nullptr, THR_BOUND, &thread);
    thr_join(thread, nullptr, nullptr);
    dxt_message(DXT_RETURN, LVL_STEP_ERROR, nullptr, MSG_FREE_TEXT, "a real line");
    return returned + test_end();
}

TEST_F(HarnessProcess, ProgressOnATerminalWhenQuiet)
{
    outcome r = in_terminal([] { return announce_then_pass("-q"); });
    EXPECT_EQ(r.status, returned);
    const std::string clear = "\r\033[K";
    EXPECT_NE(r.out.find(clear + "Random Swap: 1/"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(" cpus started, 1/"), std::string::npos) << r.out;
    // Cleared before every real line, so no line starts in the middle of it.
    size_t real_line = r.out.find(" ERROR cpu");
    ASSERT_NE(real_line, std::string::npos) << r.out;
    size_t line_start = r.out.rfind('\n', real_line);
    size_t last_clear = r.out.rfind(clear, real_line);
    EXPECT_TRUE(last_clear != std::string::npos && (line_start == std::string::npos || last_clear > line_start))
        << r.out;
    // Cleared at the end: the verdict is the last thing shown, whole.
    size_t verdict = r.out.rfind(" VERDICT ");
    ASSERT_NE(verdict, std::string::npos) << r.out;
    EXPECT_EQ(r.out.find(clear, verdict), std::string::npos) << r.out;
    EXPECT_EQ(r.out.rfind('\r', verdict), r.out.rfind(clear, verdict)) << r.out;
}

TEST_F(HarnessProcess, NoProgressUnlessQuietOnATerminal)
{
    outcome json = in_terminal([] { return announce_then_pass("--json"); });
    outcome normal = in_terminal([] { return announce_then_pass("-v"); });
    outcome file = in_child([] { return announce_then_pass("-q"); });
    for (const outcome *r : {&json, &normal, &file}) {
        EXPECT_EQ(r->status, returned);
        EXPECT_EQ(r->out.find("\033[K"), std::string::npos) << r->out;
        EXPECT_EQ(r->out.find("cpus started"), std::string::npos) << r->out;
    }
    EXPECT_NE(normal.out.find(" #6 "), std::string::npos) << normal.out;
}

}  // namespace
