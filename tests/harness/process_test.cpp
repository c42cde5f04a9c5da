// The harness as a process sees it: each case runs in a child process (the
// harness exits, installs signal handlers and keeps run-wide state), with
// its standard output and error caught in files, and looks at the exit
// status and the lines written.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

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
        ASSERT_EQ(lines.size(), 2u) << r.out;
        EXPECT_NE(lines[0].find("#" + std::to_string(c.number) + " "), std::string::npos) << lines[0];
        EXPECT_NE(lines[1].find(" VERDICT "), std::string::npos) << lines[1];
        EXPECT_NE(lines[1].find(c.verdict), std::string::npos) << lines[1];
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
    EXPECT_EQ(verdict->at("verdict").text, "COULD NOT TEST");
    EXPECT_EQ(verdict->at("exit_status").text, "3");
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
    EXPECT_EQ(verdict->at("verdict").text, "PASS");
    EXPECT_EQ(verdict->at("exit_status").text, "0");
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
    EXPECT_EQ(debug.count(" DEBUG cpu"), 2) << debug.out;
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
            raise(sig);
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
    ASSERT_EQ(lines.size(), 3u) << r.out;
    EXPECT_TRUE(std::regex_search(lines[1], std::regex(" FATAL cpu[0-9]+ #0 hardware fault: bus error \\(SIGBUS\\) on "
                                                       "cpu[0-9]+ at address 0x[0-9a-f]+$")))
        << lines[1];
    EXPECT_TRUE(lines[1].ends_with(" at address " + address)) << lines[1] << " vs " << address;
    EXPECT_NE(lines[2].find("VERDICT cpu"), std::string::npos);
    EXPECT_NE(lines[2].find("FAIL: a fault was found (exit status 1)"), std::string::npos);
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

}  // namespace
