// End to end: the real tarneltest binary, run as a person would run it, with
// its exit status and its standard output and error looked at. Runs are kept
// short (one pass, or no subtest at all with test_mask=0).
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "json_check.h"

namespace {

const char debug_line[] = "Cache Access stress for cache_size 100000 line_size 40 num_loops 8";
const char options_text[] = "dev=tarnel,count=[1..1024],cpc=[Enabled,Disabled]";

struct run_options {
    const cpu_set_t *cpus = nullptr;  // the affinity to start the binary with
    int signal = 0;                   // sent once the output holds signal_after
    const char *signal_after = nullptr;
};

struct run_result {
    int status = -1;  // exit status; -1 when it did not exit
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
    std::vector<std::string> lines_with(const std::string &needle) const
    {
        std::vector<std::string> result;
        for (const std::string &line : lines())
            if (line.find(needle) != std::string::npos)
                result.push_back(line);
        return result;
    }
};

std::string file_text(FILE *file)
{
    std::string text;
    char buffer[4096];
    ssize_t n;
    for (off_t at = 0; (n = pread(fileno(file), buffer, sizeof buffer, at)) > 0; at += n)
        text.append(buffer, static_cast<size_t>(n));
    return text;
}

void sleep_ms(long ms)
{
    timespec pause{ms / 1000, (ms % 1000) * 1000000};
    nanosleep(&pause, nullptr);
}

run_result run(std::vector<std::string> args, const run_options &options = {})
{
    FILE *out = tmpfile();
    FILE *err = tmpfile();
    args.insert(args.begin(), TARNELTEST_PATH);
    std::vector<char *> argv;
    for (std::string &s : args)
        argv.push_back(s.data());
    argv.push_back(nullptr);

    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fileno(out), STDOUT_FILENO);
        dup2(fileno(err), STDERR_FILENO);
        if (options.cpus != nullptr && sched_setaffinity(0, sizeof *options.cpus, options.cpus) != 0)
            _exit(126);
        execv(argv[0], argv.data());
        _exit(127);
    }

    run_result result;
    int wstatus = 0;
    bool signalled = options.signal == 0;
    // Every run here ends within seconds; 50 s means the binary hangs.
    for (int waited = 0; waitpid(pid, &wstatus, WNOHANG) == 0; waited += 10) {
        if (waited > 50000) {
            kill(pid, SIGKILL);
            waitpid(pid, &wstatus, 0);
            break;
        }
        if (!signalled && file_text(out).find(options.signal_after) != std::string::npos) {
            kill(pid, options.signal);
            signalled = true;
        }
        sleep_ms(10);
    }
    result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
    result.out = file_text(out);
    result.err = file_text(err);
    fclose(out);
    fclose(err);
    return result;
}

cpu_set_t own_affinity()
{
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    sched_getaffinity(0, sizeof cpus, &cpus);
    return cpus;
}

// The processor a line was written on ("... cpu3 ...").
int cpu_of(const std::string &line)
{
    std::smatch m;
    if (!std::regex_search(line, m, std::regex(" cpu([0-9]+) ")))
        return -1;
    return std::stoi(m[1]);
}

TEST(EndToEnd, OnePassPasses)
{
    run_result r = run({"-o", "count=1"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.lines_with(" #1 ").size(), 1u) << r.out;
    EXPECT_EQ(r.lines_with(" #2 Passes per subtest: 1").size(), 1u) << r.out;
    EXPECT_EQ(r.lines_with(" #4 ").size(), 1u) << r.out;
    ASSERT_FALSE(r.lines().empty());
    EXPECT_TRUE(std::regex_search(r.lines().back(), std::regex(" VERDICT cpu[0-9]+ PASS: tarneltest passed in ")))
        << r.lines().back();
    EXPECT_EQ(r.err, "");
}

TEST(EndToEnd, RejectedCountExitsTwoNamingIt)
{
    run_result r = run({"-o", "count=5x"});
    EXPECT_EQ(r.status, 2);
    std::vector<std::string> rejected = r.lines_with(" #8000 ");
    ASSERT_EQ(rejected.size(), 1u) << r.out;
    EXPECT_NE(rejected[0].find("\"count\""), std::string::npos) << rejected[0];
    EXPECT_NE(r.err.find("count=5x"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("usage: tarneltest"), std::string::npos) << r.err;
    EXPECT_TRUE(r.lines_with(" #1 ").empty()) << "a run started: " << r.out;
}

TEST(EndToEnd, UnknownSuboptionExitsTwo)
{
    run_result r = run({"-o", "bogus"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("\"bogus\" were not all accepted"), std::string::npos) << r.err;
    EXPECT_TRUE(r.lines_with(" #1 ").empty()) << r.out;
}

TEST(EndToEnd, HelpShowsTheUsage)
{
    run_result r = run({"-h"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.out.starts_with("usage: tarneltest [-o SUBOPTIONS] [-v | -q] [-d] [--json] [-h] [--version]\n"))
        << r.out;
    EXPECT_NE(r.out.find(options_text), std::string::npos) << r.out;
    EXPECT_EQ(r.err, "");
}

TEST(EndToEnd, VersionShowsTheVersion)
{
    run_result r = run({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(std::regex_match(r.out, std::regex("tarneltest version [0-9.]+ [0-9]{4}/[0-9]{2}/[0-9]{2} \\(.+\\)\n")))
        << r.out;
}

TEST(EndToEnd, UnknownOptionOrArgumentExitsTwo)
{
    for (const char *arg : {"--frobnicate", "-x", "stray"}) {
        run_result r = run({arg});
        EXPECT_EQ(r.status, 2) << arg;
        EXPECT_TRUE(r.err.starts_with("tarneltest: ")) << r.err;
        EXPECT_NE(r.err.find(arg), std::string::npos) << r.err;
        EXPECT_NE(r.err.find("usage: tarneltest"), std::string::npos) << r.err;
        EXPECT_EQ(r.out, "") << arg;
    }
}

TEST(EndToEnd, JsonLinesAreObjectsWithTheDocumentedKeys)
{
    run_result r = run({"--json", "-o", "count=1,test_mask=0"});
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<std::string> lines = r.lines();
    ASSERT_GE(lines.size(), 4u) << r.out;  // 1, 2, 4 and the verdict at least
    const std::set<std::string> message_keys{"time", "level", "severity", "cpu", "tag", "number", "exit_flag", "text"};
    const std::set<std::string> verdict_keys{"time", "verdict", "exit_status", "cpu", "text"};
    const std::regex iso_time("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z");
    using json_check::kind;
    for (size_t i = 0; i < lines.size(); i++) {
        auto object = json_check::parse_object_line(lines[i]);
        ASSERT_TRUE(object.has_value()) << "not a JSON object: " << lines[i];
        std::set<std::string> keys;
        for (const auto &[key, value] : *object)
            keys.insert(key);
        EXPECT_TRUE(std::regex_match(object->at("time").text, iso_time)) << lines[i];
        EXPECT_TRUE(object->at("cpu").type == kind::number || object->at("cpu").text == "null") << lines[i];
        EXPECT_EQ(object->at("text").type, kind::string);
        if (i + 1 < lines.size()) {
            EXPECT_EQ(keys, message_keys) << lines[i];
            EXPECT_EQ(object->at("level").type, kind::number);
            EXPECT_EQ(object->at("severity").type, kind::string);
            EXPECT_TRUE(object->at("tag").type == kind::string || object->at("tag").text == "null") << lines[i];
            EXPECT_EQ(object->at("number").type, kind::number);
            EXPECT_EQ(object->at("exit_flag").type, kind::number);
        } else {
            EXPECT_EQ(keys, verdict_keys) << lines[i];
            EXPECT_EQ(object->at("verdict").text, "PASS");
            EXPECT_EQ(object->at("exit_status").text, "0");
        }
    }
    EXPECT_EQ(r.err, "");
}

TEST(EndToEnd, QuietShowsOnlyTheVerdictOfAPassingRun)
{
    run_result r = run({"-q", "-o", "count=1,test_mask=0"});
    EXPECT_EQ(r.status, 0);
    ASSERT_EQ(r.lines().size(), 1u) << r.out;
    EXPECT_NE(r.out.find(" VERDICT "), std::string::npos) << r.out;
}

TEST(EndToEnd, DebugLineOncePerProcessor)
{
    cpu_set_t cpus = own_affinity();
    run_result r = run({"-d", "-o", "test_mask=0"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    std::vector<std::string> found = r.lines_with(debug_line);
    EXPECT_EQ(found.size(), static_cast<size_t>(CPU_COUNT(&cpus))) << r.out;
    // Each worker writes it bound to its own processor.
    std::set<int> seen;
    for (const std::string &line : found) {
        int cpu = cpu_of(line);
        EXPECT_TRUE(cpu >= 0 && CPU_ISSET(cpu, &cpus)) << line;
        seen.insert(cpu);
    }
    EXPECT_EQ(seen.size(), found.size()) << r.out;
}

TEST(EndToEnd, DebugLineOnceOnProcessorOneAlone)
{
    cpu_set_t cpus = own_affinity();
    if (!CPU_ISSET(1, &cpus))
        GTEST_SKIP() << "this process may not run on processor 1";
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(1, &one);
    run_result r = run({"-d", "-o", "test_mask=0"}, {.cpus = &one});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    std::vector<std::string> found = r.lines_with(debug_line);
    ASSERT_EQ(found.size(), 1u) << r.out;
    EXPECT_EQ(cpu_of(found[0]), 1) << found[0];
}

TEST(EndToEnd, SigtermEndsTheRunWith143)
{
    run_result r = run({"-o", "count=1,test_mask=0"}, {.signal = SIGTERM, .signal_after = " #1 "});
    EXPECT_EQ(r.status, 143) << r.out;
    ASSERT_FALSE(r.lines().empty());
    EXPECT_NE(r.lines().back().find("INTERRUPTED: interrupted by SIGTERM (exit status 143)"), std::string::npos)
        << r.out;
    EXPECT_TRUE(r.lines_with(" #4 ").empty()) << r.out;
}

}  // namespace
