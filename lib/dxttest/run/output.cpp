// The run's output and the process's end (output.h).
#include "output.h"

#include <sys/syscall.h>

#include <cstdio>

#include "statuses.h"
#include "testinfo.h"

namespace dxt {

namespace {

// Standard output is the process's, so is its loss: a signal handler and a
// burn-in, which has no run of its own, both need to know of it.
std::atomic<bool> output_lost{false};

}  // namespace

void note_lost_output(int error)
{
    if (output_lost.exchange(true))
        return;
    line_buffer text;
    put(text, test_name != nullptr ? test_name : "the test", ": cannot write standard output (", error_text(error));
    put(text, "): the run's output is lost, so it cannot pass (exit status 3 unless a fault is found)\n");
    write_all(STDERR_FILENO, text.data, text.length);
}

bool output_was_lost() { return output_lost.load(); }

void write_text(int fd, const text_buffer &text)
{
    if (int error = write_all(fd, text.data, text.length))
        note_lost_output(error);
}

void end_with(int status)
{
    std::fflush(nullptr);
    exit_now(status);
}

void exit_now(int status)
{
    if (status == exit_passed && output_lost.load())
        status = exit_could_not_test;
    for (;;)
        syscall(SYS_exit_group, status);
}

void hang()
{
    for (;;)
        pause();
}

}  // namespace dxt
