// The message catalogue: the text of every numbered message the test emits,
// as a printf format taking exactly the arguments that come with its number.
#include "catalogue.h"

#include <cstdio>
#include <cstring>

#include "suboptions.h"
#include "testinfo.h"

namespace dxt {

namespace {

// number, format, then one sample argument of each type the number takes.
// The samples never reach a text: they only let the compiler check each
// format against its argument list (check_arguments below).
#define DXT_CATALOGUE(X)                                                                                              \
    X(MSG_RUN_START, "Second-level cache test started")                                                               \
    X(MSG_PASS_COUNT, "Passes per subtest: %u", 0u)                                                                   \
    X(MSG_WRRDVR_START, "Write/Read/Verify test started")                                                             \
    X(MSG_RUN_END, "Second-level cache test finished: no worker failed")                                        \
    X(MSG_SWAP_START, "Random Swap test started")                                                                     \
    X(MSG_SWAP_END, "Random Swap test finished")                                                                      \
    X(MSG_ROW_MARCH_START, "March with row striding started")                                                         \
    X(MSG_ROW_MARCH_END, "March with row striding finished")                                                          \
    X(MSG_COL_MARCH_START, "March with column striding started")                                                      \
    X(MSG_COL_MARCH_END, "March with column striding finished")                                                       \
    X(MSG_MARCH_LINE_START, "30N March with line-length striding started")                                            \
    X(MSG_MARCH_LINE_END, "30N March with line-length striding finished")                                             \
    X(MSG_MARCH_VAR_START, "30N March with variable stride length started")                                           \
    X(MSG_MARCH_VAR_END, "30N March with variable stride length finished")                                            \
    X(MSG_INTERCONNECT_START, "CPU-cache interconnect test started")                                                  \
    X(MSG_INTERCONNECT_END, "CPU-cache interconnect test finished")                                                   \
    X(MSG_DEFAULT_TAKEN, "Value outside 1..1024, taking the default %d instead", 0)                                   \
    X(MSG_CPC_ENABLED, "Performance counters asked for (cpc=Enabled); they stay off on this platform")                \
    X(MSG_GEOMETRY_DEFAULTS, "%s failed on cpu %d (return code %d); testing with default geometry. %s", "", 0, 0, "") \
    X(MSG_USAGE, "usage: %s [-o SUBOPTIONS] [-v | -q] [-d] [--json] [--duration TIME] [--runs N] "                    \
                 "[--keep-going] [--one-l2-at-a-time] [--timeout TIME] [--retest N] [--localise TIME] [--seed N] "      \
                 "[--sensors-from DIR] [--ras-db PATH] [--metrics FILE] "                                               \
                 "[--describe [--sysroot DIR]] [-h] [--version]", "")                                                               \
    X(MSG_WRRDVR_NO_MEMORY, "Write/Read/Verify test could not allocate its buffer")                                   \
    X(MSG_NO_MEMORY, "Could not allocate a test buffer")                                                              \
    X(MSG_BIND_FAILED, "Could not bind the worker thread to cpu %d: %s", 0, "")                                       \
    X(MSG_THREAD_CREATE_FAILED, "Could not create the worker thread of worker table entry %d", 0)                     \
    X(MSG_MISCOMPARE, "Write/Read/Verify test: a word read back differs from the word written")                       \
    X(MSG_BAD_SUBOPTION, "Sub-option \"%s\" rejected: its value is missing or malformed", "")                         \
    X(MSG_WORKERS_FAILED, "At least one processor's worker failed its cache test")                                    \
    X(MSG_SYSCALL_FAILED, "The system call %s failed: %s", "", "")                                                    \
    X(MSG_UNKNOWN_VENDOR, "This processor's vendor is neither Intel nor AMD: the test cannot run on it")

#define DXT_NUMBER(number, ...) number,
constexpr int numbers[] = {DXT_CATALOGUE(DXT_NUMBER)};
#undef DXT_NUMBER

[[gnu::format(printf, 1, 2)]] void check_format(const char *, ...) {}

// Never called: compiled only so that -Wformat (an error here) proves every
// format consumes exactly its number's arguments, of the right types.
[[maybe_unused]] void check_arguments()
{
#define DXT_CHECK(number, format, ...) check_format(format __VA_OPT__(, ) __VA_ARGS__);
    DXT_CATALOGUE(DXT_CHECK)
#undef DXT_CHECK
}

// Drops one trailing newline, then trailing blanks (an empty last argument
// must not leave a dangling space).
void trim_end(char *text)
{
    size_t n = strlen(text);
    if (n > 0 && text[n - 1] == '\n')
        text[--n] = '\0';
    while (n > 0 && (text[n - 1] == ' ' || text[n - 1] == '\t'))
        text[--n] = '\0';
}

}  // namespace

std::span<const int> catalogue_numbers() { return numbers; }

const char *catalogue_format(int number)
{
    // A switch rather than a table of pointers: nothing here is data the
    // loader has to relocate.
    switch (number) {
#define DXT_CASE(number, format, ...) \
    case number:                      \
        return format;
        DXT_CATALOGUE(DXT_CASE)
#undef DXT_CASE
    default:
        return nullptr;
    }
}

void format_message_text(char *text, size_t size, int number, const char *options_text, va_list args)
{
    if (size == 0)
        return;
    if (number == 0) {
        const char *format = va_arg(args, const char *);
        if (format == nullptr)
            snprintf(text, size, "(free text without a format)");
        else
            vsnprintf(text, size, format, args);
    } else if (const char *format = catalogue_format(number)) {
        vsnprintf(text, size, format, args);
        if (number == MSG_USAGE) {
            size_t used = strlen(text);
            snprintf(text + used, size - used, "%s", usage_details(options_text).c_str());
        }
    } else {
        // Its arguments are unknown too: none is read.
        snprintf(text, size, "unknown message number %d", number);
    }
    trim_end(text);
}

}  // namespace dxt
