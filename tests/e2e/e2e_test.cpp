// End to end: the real tarneltest binary run as a person would run it, its
// exit status, its output and the verdict record of every kind of real run.
// Runs are kept short (one pass, or no subtest with test_mask=0). A failing
// worker comes from tarneltest_faulty, the same program with a fault planted
// from the environment.
#include <fcntl.h>
#include <pty.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <regex>
#include <set>

#include "child_run.h"

namespace {

struct run_options {
    const cpu_set_t *cpus = nullptr;     // the affinity to start the binary with
    const char *signal_after = nullptr;  // `signal` once the output holds this
    int signal = SIGTERM;
    int ignored = 0;                     // a signal the binary starts with ignored
    const char *binary = TARNELTEST_PATH;
    const char *environment = nullptr;  // one NAME=VALUE for the binary
    const char *stdout_to = nullptr;    // a file for standard output; "-": closed
};

outcome run(std::vector<std::string> args, const run_options &options = {})
{
    args.insert(args.begin(), options.binary);
    std::vector<char *> argv;
    for (std::string &s : args)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    auto exec = [&] {
        if (options.cpus != nullptr && sched_setaffinity(0, sizeof *options.cpus, options.cpus) != 0)
            return 126;
        if (options.environment != nullptr)
            putenv(const_cast<char *>(options.environment));
        if (options.ignored != 0)
            signal(options.ignored, SIG_IGN);  // kept across exec, as nohup does
        if (options.stdout_to != nullptr && std::string(options.stdout_to) == "-")
            close(STDOUT_FILENO);
        else if (options.stdout_to != nullptr && dup2(open(options.stdout_to, O_WRONLY), STDOUT_FILENO) < 0)
            return 126;
        execv(argv[0], argv.data());
        return 127;
    };
    return in_child(exec, options.signal_after, options.signal);
}

cpu_set_t affinity(int only = -1)
{
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    if (only >= 0)
        CPU_SET(only, &cpus);
    else
        sched_getaffinity(0, sizeof cpus, &cpus);
    return cpus;
}

TEST(EndToEnd, OnePassPasses)
{
    outcome r = run({"-o", "count=1"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    for (const char *once : {" #1 ", " #2 Passes per subtest: 1\n", " #4 "})
        EXPECT_EQ(r.count(once), 1) << once << " in " << r.out;
    EXPECT_TRUE(std::regex_search(r.out, std::regex(" VERDICT PASS: tarneltest passed in [0-9.]+ s\n$")))
        << r.out;
    EXPECT_EQ(r.err, "");
}

TEST(EndToEnd, CommandLinesThatEndBeforeTheRun)
{
    struct row {
        std::vector<std::string> args;
        int status;
        const char *out_has, *err_has;
    };
    const row rows[] = {
        {{"-o", "count=5x"}, 2, " #8000 Sub-option \"count\" rejected",
         "tarneltest: the sub-options \"count=5x\" were not all accepted\nusage: tarneltest [-o SUBOPTIONS]"},
        // Items the parser refuses without a message of its own are named.
        {{"-o", "count=1,tset_mask=8,,em=1"}, 2, "",
         "were not all accepted; not sub-options of this test: \"tset_mask\", \"em\"; 1 empty item\n"},
        // The usage record on standard output, the rest on standard error.
        {{"--json", "-o", "count=5x"}, 2, "\"verdict\":\"usage\"", "\"number\":2005"},
        {{"--json", "--frobnicate"}, 2, "\"verdict\":\"usage\"", "tarneltest: unrecognised option '--frobnicate'\n"},
        {{"-q", "--help"}, 0, "usage: tarneltest [-o SUBOPTIONS] [-v | -q] [-d] [--json] [-h] [--version]\n", ""},
        {{"--version"}, 0, "tarneltest version ", ""},
    };
    for (const row &r : rows) {
        outcome got = run(r.args);
        std::string name = r.args[0] + " " + r.args.back();
        EXPECT_EQ(got.status, r.status) << name;
        EXPECT_NE(got.out.find(r.out_has), std::string::npos) << name << ": " << got.out;
        EXPECT_NE(got.err.find(r.err_has), std::string::npos) << name << ": " << got.err;
        EXPECT_EQ(got.count(" #1 ") + got.count("\"number\":1,"), 0) << name << ": a run started";
        if (r.args[0] != "--json")
            continue;
        json_check::object v = got.record();
        EXPECT_EQ(v["exit_status"], "2") << name;
        EXPECT_EQ(v["tested_cpus"], "[]") << name;
        EXPECT_NE(v["text"].find(r.args.back()), std::string::npos) << v["text"];
    }
}

// Every line one JSON object with the documented keys (their forms are
// pinned by the unit tests), the last one the pass record naming every
// processor of the affinity with its geometry.
TEST(EndToEnd, JsonLinesAreObjectsWithTheDocumentedKeys)
{
    cpu_set_t cpus = affinity();
    outcome r = run({"--json", "-d", "-o", "count=1,test_mask=8"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const std::set<std::string> message_keys{"time", "level", "severity", "cpu", "thread", "tag", "number", "exit_flag", "text"};
    const std::set<std::string> verdict_keys{
        "time", "host", "schema_version", "verdict", "exit_status", "elapsed_seconds", "text", "cpu", "thread",
        "options", "version", "tested_cpus", "left_out_cpus", "failed_cpus", "l2", "failures", "corrected_errors",
        "warnings"};
    std::vector<std::string> lines = r.lines();
    ASSERT_GE(lines.size(), 4u) << r.out;  // 1, 2, 4 and the verdict at least
    int note = 0;
    for (size_t i = 0; i < lines.size(); i++) {
        auto object = json_check::parse_object_line(lines[i]);
        ASSERT_TRUE(object.has_value()) << "not a JSON object: " << lines[i];
        std::set<std::string> keys;
        for (const auto &[key, value] : *object)
            keys.insert(key);
        EXPECT_EQ(keys, i + 1 < lines.size() ? message_keys : verdict_keys) << lines[i];
        note += (*object)["text"].starts_with("corrected hardware errors are not checked");
    }

    json_check::object v = r.record();
    EXPECT_EQ(v["verdict"], "pass");
    EXPECT_EQ(v["exit_status"], "0");
    EXPECT_EQ(v["failures"], "[]");
    EXPECT_EQ(v["options"], "count=1,test_mask=8");  // what ran, and which build
    EXPECT_TRUE(v["version"].starts_with("1.0 ")) << v["version"];
    EXPECT_GE(std::stod(v["elapsed_seconds"]), 1.9);  // the two one-second pauses
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    EXPECT_EQ(v["host"], host);
    std::string tested;
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++)
        if (CPU_ISSET(cpu, &cpus))
            tested.append(tested.empty() ? "" : ",").append(std::to_string(cpu));
    EXPECT_EQ(v["tested_cpus"], "[" + tested + "]");
    EXPECT_EQ(occurrences(v["l2"], "{\"cpu\":"), CPU_COUNT(&cpus)) << v["l2"];  // each one's geometry
    // Said once exactly when no corrected-error counter can be read.
    bool counted = v["corrected_errors"].starts_with("{\"checked\":true,\"available\":true,");
    EXPECT_TRUE(counted || v["corrected_errors"].starts_with("{\"checked\":true,\"available\":false,"))
        << v["corrected_errors"];
    EXPECT_EQ(note, counted ? 0 : 1) << r.out;
}

TEST(EndToEnd, DebugLineOncePerProcessorOfTheAffinity)
{
    cpu_set_t all = affinity();
    int last = CPU_SETSIZE - 1;
    while (last > 0 && !CPU_ISSET(last, &all))
        last--;  // on two processors, processor 1 alone
    cpu_set_t one = affinity(last);
    for (const cpu_set_t *cpus : {&all, &one}) {
        // A geometry listing: it tests nothing, so it is no pass.
        outcome r = run({"-d", "-o", "test_mask=0"}, {.cpus = cpus});
        EXPECT_EQ(r.status, 3) << r.out << r.err;
        EXPECT_EQ(r.count(" VERDICT COULD NOT TEST: test_mask 0 selects no subtest: nothing was tested"), 1);
        EXPECT_EQ(r.count("Cache Access stress for cache_size 100000 line_size 40 num_loops 8\n"), CPU_COUNT(cpus))
            << r.out;
        // -d: the harness shows each processor's geometry, the one its worker
        // sized its buffers from.
        EXPECT_EQ(r.count(" [dxttest] #0 L2 of cpu"), CPU_COUNT(cpus)) << r.out;
        EXPECT_EQ(r.count(": 1048576 bytes ("), CPU_COUNT(cpus)) << r.out;  // 0x100000
        // Each worker writes it bound to its own processor.
        std::regex debug_line(" DEBUG cpu([0-9]+) [^\n]*Cache Access stress for cache_size 100000 line_size 40 "
                              "num_loops 8\n");
        std::set<int> seen;
        for (std::sregex_iterator m(r.out.begin(), r.out.end(), debug_line); m != std::sregex_iterator(); ++m)
            EXPECT_TRUE(CPU_ISSET(std::stoi((*m)[1]), cpus) && seen.insert(std::stoi((*m)[1])).second) << m->str();
        EXPECT_EQ(seen.size(), static_cast<size_t>(CPU_COUNT(cpus))) << r.out;
    }
}

// Output that cannot be written is said once on standard error, and the
// run cannot pass; a fault found still says so.
TEST(EndToEnd, LostOutputIsNeverAPass)
{
    const std::string said = "tarneltest: cannot write standard output";
    for (const char *to : {"/dev/full", "-"})
        for (const char *form : {"-q", "--json"}) {
            outcome r = run({form, "-o", "count=1,test_mask=8"}, {.stdout_to = to});
            EXPECT_EQ(r.status, 3) << to << " " << form << ": " << r.err;
            EXPECT_EQ(occurrences(r.err, said), 1) << r.err;
        }
#ifdef TARNELTEST_FAULTY_PATH
    outcome r = run({"-q", "-o", "count=1,test_mask=8"}, {.binary = TARNELTEST_FAULTY_PATH,
                                                          .environment = "TARNEL_FAULT=lost,0,0,24",
                                                          .stdout_to = "/dev/full"});
    EXPECT_EQ(r.status, 1) << r.err;
#endif
}

// The live progress line (-q on a terminal) moves back to the start of its
// line, which a dumb terminal cannot do: there it is never drawn.
TEST(EndToEnd, NoProgressLineOnADumbTerminal)
{
    for (const char *term : {"TERM=xterm", "TERM=dumb"}) {
        int master = -1, slave = -1;
        char name[256] = {};
        ASSERT_EQ(openpty(&master, &slave, name, nullptr, nullptr), 0);
        outcome r = run({"-q", "-o", "count=1,test_mask=8"}, {.environment = term, .stdout_to = name});
        close(slave);
        std::string screen;
        char buffer[4096];
        for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;)
            screen.append(buffer, static_cast<size_t>(n));
        close(master);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(screen.find("\r\033[K") != std::string::npos, std::string(term) == "TERM=xterm") << term;
    }
}

// A signal ignored when the run started (nohup, a script's background
// job) stays ignored; the same signal otherwise ends the run.
TEST(EndToEnd, InheritedIgnoredInterruptsStayIgnored)
{
    for (int sig : {SIGHUP, SIGINT}) {
        outcome kept = run({"-o", "count=1,test_mask=8"}, {.signal_after = " #1 ", .signal = sig, .ignored = sig});
        EXPECT_EQ(kept.status, 0) << sig << ": " << kept.out;
        outcome ended = run({"-o", "count=1,test_mask=8"}, {.signal_after = " #1 ", .signal = sig});
        EXPECT_EQ(ended.status, 128 + sig) << ended.out;
    }
}

TEST(EndToEnd, SigtermEndsTheRunWith143AndAnInterruptedRecord)
{
    outcome r = run({"--json", "-o", "count=1,test_mask=0"}, {.signal_after = "\"number\":1,"});
    EXPECT_EQ(r.status, 143) << r.out;
    EXPECT_EQ(r.count("\"number\":4,"), 0) << "the run went on: " << r.out;
    json_check::object v = r.record();
    EXPECT_EQ(v["verdict"], "interrupted") << r.out;
    EXPECT_EQ(v["exit_status"], "143");
    EXPECT_EQ(v["text"], "interrupted by SIGTERM (exit status 143)");
}

#ifdef TARNELTEST_FAULTY_PATH
// On every processor in turn, a stuck bit in the first buffer that
// processor's worker allocates: the Write/Read/Verify test's miscompare ends
// the run at once; the Cache Hit test fails its worker, found when the
// workers are joined. The record names that processor and that subtest.
TEST(EndToEnd, AFaultNamesProcessorAndSubtestInTheRecord)
{
    struct row {
        const char *test_mask, *message, *worker_status, *subtest;
    };
    cpu_set_t all = affinity();
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++) {
        if (!CPU_ISSET(cpu, &all))
            continue;
        // Built by appending: GCC 12 at -O3 raises a false -Werror=restrict
        // on a literal joined to a temporary string.
        const std::string at = std::to_string(cpu);
        const std::string fault = "TARNEL_FAULT=stuck1," + at + ",0,64,3";
        for (const row &f :
             {row{"8", "6000", "null", "Write/Read/Verify"}, row{"16", "8011", "-1", "Cache Hit Stress"}}) {
            outcome r = run({"--json", "-o", std::string("count=1,test_mask=") + f.test_mask},
                            {.binary = TARNELTEST_FAULTY_PATH, .environment = fault.c_str()});
            EXPECT_EQ(r.status, 1) << r.out << r.err;
            EXPECT_EQ(r.count(std::string("\"number\":") + f.message + ","), 1) << r.out;
            json_check::object v = r.record();
            EXPECT_EQ(v["verdict"], "fault") << r.out;
            EXPECT_EQ(v["failed_cpus"], "[" + at + "]");
            EXPECT_EQ(v["failures"], "[{\"cpu\":" + at + ",\"message\":" + f.message +
                                         ",\"worker_status\":" + f.worker_status + ",\"subtest\":\"" + f.subtest +
                                         "\",\"possible_subtests\":[\"" + f.subtest + "\"],\"address\":null}]");
        }
    }
}
#endif

}  // namespace
