// End to end: the real tarneltest binary, run as a person would run it, with
// its exit status and its standard output and error looked at, and every
// kind of verdict record produced by a real run. Runs are kept short (one
// pass, or no subtest at all with test_mask=0). A failing worker comes from
// tarneltest_faulty, the same program with a fault planted from the
// environment (built with the fault model).
#include <gtest/gtest.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
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
    const char *binary = TARNELTEST_PATH;
    const char *environment = nullptr;  // one NAME=VALUE for the binary
    bool terminal = false;              // standard output is a terminal (err is not caught)
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

// The binary on a terminal: what the terminal showed, as the run's output.
run_result run_on_terminal(std::vector<char *> &argv, const run_options &options)
{
    run_result result;
    int master = -1;
    winsize size{24, 80, 0, 0};
    fflush(nullptr);
    pid_t pid = forkpty(&master, nullptr, nullptr, &size);
    if (pid == 0) {
        if (options.cpus != nullptr && sched_setaffinity(0, sizeof *options.cpus, options.cpus) != 0)
            _exit(126);
        if (options.environment != nullptr)
            putenv(const_cast<char *>(options.environment));
        execv(argv[0], argv.data());
        _exit(127);
    }
    if (pid < 0)
        return result;
    char buffer[4096];
    ssize_t n;
    // EIO once the binary has ended and its side is closed.
    while ((n = read(master, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0)
            result.out.append(buffer, static_cast<size_t>(n));
    close(master);
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
    return result;
}

run_result run(std::vector<std::string> args, const run_options &options = {})
{
    args.insert(args.begin(), options.binary);
    std::vector<char *> argv;
    for (std::string &s : args)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    if (options.terminal)
        return run_on_terminal(argv, options);

    FILE *out = tmpfile();
    FILE *err = tmpfile();
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fileno(out), STDOUT_FILENO);
        dup2(fileno(err), STDERR_FILENO);
        if (options.cpus != nullptr && sched_setaffinity(0, sizeof *options.cpus, options.cpus) != 0)
            _exit(126);
        if (options.environment != nullptr)
            putenv(const_cast<char *>(options.environment));
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
    const std::set<std::string> verdict_keys{
        "time", "host", "schema_version", "verdict", "exit_status", "elapsed_seconds", "text", "cpu",
        "tested_cpus", "left_out_cpus", "l2", "failures", "corrected_errors", "warnings"};
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
            EXPECT_EQ(object->at("verdict").text, "pass");
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

// The verdict record: the last line of a --json run.
struct verdict {
    json_check::object record;
    bool ok = false;

    explicit verdict(const run_result &r)
    {
        std::vector<std::string> lines = r.lines();
        if (lines.empty())
            return;
        auto parsed = json_check::parse_object_line(lines.back());
        if (!parsed || parsed->count("verdict") == 0)
            return;
        record = *parsed;
        ok = true;
    }
    std::string operator[](const std::string &key) const { return record.at(key).text; }
    std::vector<json_check::object> objects(const std::string &key) const
    {
        std::vector<json_check::object> result;
        for (const json_check::member &m : json_check::parse_array(record.at(key).text).value_or(
                 std::vector<json_check::member>{}))
            result.push_back(json_check::parse_object_line(m.text).value_or(json_check::object{}));
        return result;
    }
};

std::string list_of(const cpu_set_t &cpus)
{
    std::string list = "[";
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++)
        if (CPU_ISSET(cpu, &cpus))
            list += (list.size() > 1 ? "," : "") + std::to_string(cpu);
    return list + "]";
}

cpu_set_t only(int cpu)
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    return one;
}

TEST(EndToEndVerdict, PassNamesEveryTestedProcessorAndItsGeometry)
{
    cpu_set_t cpus = own_affinity();
    run_result r = run({"--json", "-o", "count=1,test_mask=8"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    verdict v(r);
    ASSERT_TRUE(v.ok) << r.out;
    EXPECT_EQ(v["schema_version"], "1");
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    EXPECT_EQ(v["host"], host);
    EXPECT_EQ(v["verdict"], "pass");
    EXPECT_EQ(v["exit_status"], "0");
    EXPECT_GE(std::stod(v["elapsed_seconds"]), 1.9);  // the two one-second pauses
    EXPECT_EQ(v["tested_cpus"], list_of(cpus));
    EXPECT_EQ(v["failures"], "[]");
    std::vector<json_check::object> l2 = v.objects("l2");
    ASSERT_EQ(l2.size(), static_cast<size_t>(CPU_COUNT(&cpus)));
    const std::set<std::string> sources{"sysfs",   "CPUID leaf 4",          "CPUID leaf 0x8000001D",
                                        "sysconf", "CPUID leaf 0x80000006", "defaults"};
    for (const json_check::object &g : l2) {
        EXPECT_TRUE(CPU_ISSET(std::stoi(g.at("cpu").text), &cpus));
        EXPECT_GT(std::stoul(g.at("size").text), 0u);
        EXPECT_GT(std::stoul(g.at("line").text), 0u);
        EXPECT_GT(std::stoul(g.at("ways").text), 0u);
        EXPECT_EQ(sources.count(g.at("source").text), 1u) << g.at("source").text;
        EXPECT_FALSE(g.at("shared_cpus").text.empty());
    }
    // The worker sizes its buffers from the same geometry (its debug line
    // gives the size in hexadecimal).
    run_result d = run({"-d", "-o", "count=1,test_mask=0"});
    char size_hex[32];
    snprintf(size_hex, sizeof size_hex, "cache_size %lx ", std::stoul(l2[0].at("size").text));
    EXPECT_NE(d.out.find(size_hex), std::string::npos) << size_hex << "\n" << d.out;
}

TEST(EndToEndVerdict, ProcessorsOutsideTheAllowedSetAreLeftOut)
{
    cpu_set_t cpus = own_affinity();
    if (!CPU_ISSET(0, &cpus) || CPU_COUNT(&cpus) < 2)
        GTEST_SKIP() << "needs processor 0 and another one";
    cpu_set_t zero = only(0);
    run_result r = run({"--json", "-o", "count=1,test_mask=0"}, {.cpus = &zero});
    verdict v(r);
    ASSERT_TRUE(v.ok) << r.out;
    EXPECT_EQ(v["tested_cpus"], "[0]");
    std::vector<json_check::object> left_out = v.objects("left_out_cpus");
    std::set<int> not_allowed;
    for (const json_check::object &p : left_out)
        if (p.at("reason").text == "not-allowed")
            not_allowed.insert(std::stoi(p.at("cpu").text));
    for (int cpu = 1; cpu < CPU_SETSIZE; cpu++) {
        if (CPU_ISSET(cpu, &cpus)) {
            EXPECT_EQ(not_allowed.count(cpu), 1u) << cpu << " " << r.out;
        }
    }

    run_result text = run({"-o", "count=1,test_mask=0"}, {.cpus = &zero});
    EXPECT_EQ(text.lines_with(" SUMMARY processors tested: 0; left out: ").size(), 1u) << text.out;
    EXPECT_EQ(text.lines_with(" (outside the allowed CPU set)").size(), 1u) << text.out;
}

TEST(EndToEndVerdict, UsageErrorsGiveAUsageRecordOnStandardOutput)
{
    for (std::vector<std::string> args : {std::vector<std::string>{"--json", "-o", "count=5x"},
                                          {"--json", "--frobnicate"}, {"--json", "-o", "bogus"}}) {
        run_result r = run(args);
        EXPECT_EQ(r.status, 2) << args.back();
        verdict v(r);
        ASSERT_TRUE(v.ok) << r.out;
        EXPECT_EQ(v["verdict"], "usage");
        EXPECT_EQ(v["exit_status"], "2");
        EXPECT_EQ(v["tested_cpus"], "[]");
        EXPECT_NE(v["text"].find(args.back()), std::string::npos) << v["text"];
        EXPECT_NE(r.err.find("usage: tarneltest"), std::string::npos) << r.err;
    }
}

TEST(EndToEndVerdict, SigtermGivesAnInterruptedRecord)
{
    run_result r = run({"--json", "-o", "count=1,test_mask=0"}, {.signal = SIGTERM, .signal_after = "\"number\":1,"});
    EXPECT_EQ(r.status, 143) << r.out;
    verdict v(r);
    ASSERT_TRUE(v.ok) << r.out;
    EXPECT_EQ(v["verdict"], "interrupted");
    EXPECT_EQ(v["exit_status"], "143");
    EXPECT_EQ(v["text"], "interrupted by SIGTERM (exit status 143)");
    EXPECT_EQ(v["tested_cpus"], list_of(own_affinity()));
}

TEST(EndToEndVerdict, DebugNamesTheGeometrySourcesAndTheCorrectedErrorCheck)
{
    cpu_set_t cpus = own_affinity();
    run_result r = run({"--json", "-d", "-o", "count=1,test_mask=0"});
    ASSERT_EQ(r.status, 0) << r.out;
    int geometry = 0, note = 0;
    for (const std::string &line : r.lines()) {
        auto m = json_check::parse_object_line(line);
        ASSERT_TRUE(m.has_value()) << line;
        if (m->count("tag") == 0 || m->at("tag").text != "dxttest")
            continue;
        geometry += m->at("text").text.starts_with("L2 of cpu");
        note += m->at("text").text.starts_with("corrected hardware errors are not checked");
    }
    EXPECT_EQ(geometry, CPU_COUNT(&cpus)) << r.out;
    verdict v(r);
    ASSERT_TRUE(v.ok);
    auto corrected = json_check::parse_object_line(v["corrected_errors"]);
    ASSERT_TRUE(corrected.has_value());
    EXPECT_EQ(corrected->at("checked").text, "true");
    // Said once exactly when no counter can be read.
    EXPECT_EQ(note, corrected->at("available").text == "false" ? 1 : 0) << r.out;
}

#ifdef TARNELTEST_FAULTY_PATH
// A stuck bit in the first buffer the one worker allocates (processor 0).
constexpr char planted[] = "TARNEL_FAULT=stuck1,0,64,3";

TEST(EndToEndVerdict, AMiscompareNamesProcessorAndSubtest)
{
    cpu_set_t zero = only(0);
    run_result r = run({"--json", "-o", "count=1,test_mask=8"},
                       {.cpus = &zero, .binary = TARNELTEST_FAULTY_PATH, .environment = planted});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_EQ(r.lines_with("\"number\":6000").size(), 1u) << r.out;
    verdict v(r);
    ASSERT_TRUE(v.ok) << r.out;
    EXPECT_EQ(v["verdict"], "fault");
    EXPECT_EQ(v["exit_status"], "1");
    std::vector<json_check::object> failures = v.objects("failures");
    ASSERT_EQ(failures.size(), 1u) << r.out;
    EXPECT_EQ(failures[0].at("cpu").text, "0");
    EXPECT_EQ(failures[0].at("message").text, "6000");
    EXPECT_EQ(failures[0].at("subtest").text, "Write/Read/Verify");
}

TEST(EndToEndVerdict, AFailedWorkerFoundAtTheJoinNamesProcessorAndSubtest)
{
    cpu_set_t zero = only(0);
    run_result r = run({"--json", "-o", "count=1,test_mask=16"},
                       {.cpus = &zero, .binary = TARNELTEST_FAULTY_PATH, .environment = planted});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    verdict v(r);
    ASSERT_TRUE(v.ok) << r.out;
    EXPECT_EQ(v["verdict"], "fault");
    std::vector<json_check::object> failures = v.objects("failures");
    ASSERT_EQ(failures.size(), 1u) << r.out;
    EXPECT_EQ(failures[0].at("cpu").text, "0");
    EXPECT_EQ(failures[0].at("message").text, "8011");
    EXPECT_EQ(failures[0].at("worker_status").text, "-1");
    EXPECT_EQ(failures[0].at("subtest").text, "Cache Hit Stress");

    run_result text = run({"-o", "count=1,test_mask=16"},
                          {.cpus = &zero, .binary = TARNELTEST_FAULTY_PATH, .environment = planted});
    EXPECT_EQ(text.lines_with(" SUMMARY failure on cpu0: Cache Hit Stress (message 8011, worker exit status -1)")
                  .size(),
              1u)
        << text.out;
    EXPECT_TRUE(text.lines().back().ends_with("FAIL: a fault was found (exit status 1)")) << text.out;
}
#endif

TEST(EndToEndProgress, ALiveLineOnATerminalWhenQuiet)
{
    run_result r = run({"-q", "-o", "count=1,test_mask=64"}, {.terminal = true});
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("\r\033[KRandom Swap: "), std::string::npos) << r.out;
    size_t verdict_at = r.out.find(" VERDICT ");
    ASSERT_NE(verdict_at, std::string::npos) << r.out;
    // Cleared before the verdict, which is then shown whole.
    EXPECT_EQ(r.out.rfind("\033[K", verdict_at), r.out.rfind('\r', verdict_at) + 1) << r.out;
    EXPECT_EQ(r.out.find("\033[K", verdict_at), std::string::npos) << r.out;

    for (const char *mode : {"--json", "-v"}) {
        run_result plain = run({mode, "-o", "count=1,test_mask=64"}, {.terminal = true});
        EXPECT_EQ(plain.status, 0) << plain.out;
        EXPECT_EQ(plain.out.find("\033[K"), std::string::npos) << mode << plain.out;
    }
}

}  // namespace
