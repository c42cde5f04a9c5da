// The harness's own rules, where no whole run can show them: the catalogue
// against what the program passes, and the report of a real bus error (in a
// child process: its exit status and its lines). Whole lines from many
// threads show in every JSON run of tests/e2e.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "dxttest_internal.h"
#include "harness/testinfo.h"
#include "message_args.h"

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

// What a child's body returns when it comes back: tells "returned" apart
// from every status the harness exits with.
constexpr int returned = 40;

struct outcome {
    int status;  // exit status, or -1 when it did not exit
    std::string out, err;
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
