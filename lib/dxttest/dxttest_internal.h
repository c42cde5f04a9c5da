// The harness's pure pieces, shared by its source files and open to its unit
// tests: the message catalogue and the subtests its messages name, the
// assembly of one output line (text or JSON), which levels a run shows, the
// exit status of an ending message, and the command line. Nothing here
// exits or keeps state of its own, and only write_all writes.
#ifndef TARNEL_DXTTEST_INTERNAL_H
#define TARNEL_DXTTEST_INTERNAL_H

#include <cstdarg>
#include <cstddef>
#include <concepts>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace dxt {

// Exit statuses of the process (the table is in dxttest.cpp's header).
enum exit_status {
    exit_passed = 0,
    exit_fault_found = 1,
    exit_usage = 2,
    exit_could_not_test = 3,
    exit_hung = 4,
    exit_signal_base = 128,  // plus the signal number
};

// Which messages a run shows: levels 1 to 7 by default, 1 to 3 with quiet,
// level 8 (and anything above it) only with debug; json switches the form.
struct display_mode {
    bool quiet = false;
    bool debug = false;
    bool json = false;
};

bool level_shown(display_mode mode, int level, int number);

// Output assembled in place before it is written with one call, in storage
// the caller provides, so the signal handlers can build their lines with the
// same code; a text too long for it is cut and marked "[cut]", never the
// line's end.
enum {
    line_capacity = 8192,
    text_capacity = 4096,  // a message's formatted text, before escaping
};
struct text_buffer {
    char *data;
    size_t capacity;
    size_t length = 0;
};
// One line in storage of its own.
struct line_buffer : text_buffer {
    char storage[line_capacity];
    line_buffer() : text_buffer{storage, line_capacity, 0} {}
    line_buffer(const line_buffer &) = delete;
    line_buffer &operator=(const line_buffer &) = delete;
};

// Async-signal-safe: no allocation, no locale, no stdio.
// CLOCK_MONOTONIC milliseconds, for the harness's limits and timings.
long long monotonic_ms();
// The one call here that writes: all of it to fd, through interrupted
// calls; 0, or the error that stopped it.
int write_all(int fd, const char *data, size_t length);
// An errno value's description ("No space left on device"), or "unknown
// error" for a number the C library does not know.
const char *error_text(int error);

void put(text_buffer &line, std::string_view s);
void put_int(text_buffer &line, long long value);
// Texts and whole numbers in a row: put(line, "cpu", 3, ": ") is "cpu3: ".
template <typename T>
concept whole_number = std::integral<T> && !std::same_as<T, char> && !std::same_as<T, bool>;
inline void put_piece(text_buffer &line, std::string_view s) { put(line, s); }
template <whole_number T>
void put_piece(text_buffer &line, T value)
{
    put_int(line, static_cast<long long>(value));
}
template <typename... Pieces>
    requires(sizeof...(Pieces) > 1)
void put(text_buffer &line, const Pieces &...pieces)
{
    (put_piece(line, pieces), ...);
}
void put_hex(text_buffer &line, unsigned long long value);  // 0x..., lower case
// Text for a terminal: a control character (an escape sequence in a
// recorded model name or a -o text) shown as \x1b, never sent as itself.
void put_visible(text_buffer &line, std::string_view s);
void put_utc_time(text_buffer &line, long long seconds_since_epoch);  // 2026-11-23T05:40:18Z
void put_json_string(text_buffer &line, std::string_view text);      // quoted, escaped
void put_elapsed(text_buffer &line, long long milliseconds);         // "3.2 s"
void put_duration(text_buffer &line, long long milliseconds);        // "3.2 s", "12 min 05 s", "2 h 03 min"
void put_seconds(text_buffer &line, long long milliseconds);         // "3.250", a JSON number
// JSON: a comma, unless an object or array has just opened; a member, its
// key after such a comma, then its value, or null when it is not known.
void put_comma(text_buffer &line);
void put_key(text_buffer &line, std::string_view key);
void put_int_member(text_buffer &line, std::string_view key, long long value, bool known = true);
void put_text_member(text_buffer &line, std::string_view key, std::string_view value, bool known = true);
// Processor ids in ascending order as the kernel writes a list: "0-3,5".
void put_cpu_list(text_buffer &line, std::span<const int> ids);

struct message_fields {
    long long time;      // seconds since the epoch
    int level;
    int cpu;             // -1: unknown, or the main thread
    bool main_thread;    // shown as "main" instead of a processor
    const char *tag;     // nullptr: none
    int number;
    int exit_flag;
    std::string_view text;
};
void put_message_line(text_buffer &line, const message_fields &m, bool json);

// The closing line of a text run (the JSON form is the verdict record).
struct verdict_fields {
    long long time;
    const char *verdict;  // "PASS", "FAIL", ...
    std::string_view text;
};
void put_verdict_line(text_buffer &line, const verdict_fields &v);

// The catalogue: one printf format per number, consuming exactly the
// arguments the program passes with that number.
struct catalogue_entry {
    int number;
    const char *format;
};
std::span<const catalogue_entry> catalogue();
const char *catalogue_format(int number);  // nullptr when unknown

// The text of a message into text (at most size bytes with its end): a free
// text (number 0) from its format and arguments, a numbered one from the
// catalogue, an unknown number as such without reading any argument. One
// trailing newline and trailing blanks are dropped; the usage message gets
// the option list, built from the test's options text, appended.
void format_message_text(char *text, size_t size, int number, const char *options_text, va_list args);

// The subtests a worker runs, in their order, with the messages that start
// and end each (0: none) and the statuses it can end a worker with.
struct subtest {
    const char *name;
    int32_t mask_bit;    // its bit of test_mask
    int start_message;
    int end_message;
    bool compares;       // may end a worker with the miscompare status -1
    bool allocates;      // may end a worker with the no-memory status 12
    bool fails_after_end;  // says its end message before it returns its miscompare
    bool skips_without_memory = false;  // carries on past a kernel that could not get its memory
};
std::span<const subtest> subtests();
int subtest_started_by(int number);  // its index, or -1
int subtest_ended_by(int number);    // its index, or -1
// The subtest named by a message that ends the run from a worker (the
// Write/Read/Verify test's miscompare and allocation failure), or -1.
int subtest_ending_with(int number);
// The bits of test_mask that select a subtest.
int32_t subtest_bits();
// What the usage error adds about the items of an unaccepted sub-option
// text that the parser refuses without a message of its own: empty items
// and keywords the test does not take. "" when there are none.
std::string silently_refused(std::string_view subopts);
// A test_mask item whose digits do not fit in 32 bits, which the parser
// would wrap without a word: "" when there is none.
std::string oversized_mask(std::string_view subopts);

// The exit status a message with a non-zero exit flag ends the run with, and
// for an exit status the verdict line's word, the record's name ("pass",
// "fault", "usage", "could-not-test", "interrupted") and the sentence.
int exit_status_of(int number, int exit_flag);
const char *verdict_word(int status);
const char *verdict_name(int status);
const char *verdict_reason(int status);
// Every verdict's record name, the one for a signal included.
std::span<const char *const> verdict_names();

// A run's time limit unless --timeout says otherwise: far beyond the
// longest healthy run (count=1024 over a 2 MiB L2 takes about 20 s).
constexpr long long default_timeout_seconds = 3600;
// The least limit a run can meet: it pauses one second after starting its
// workers and one before its end.
constexpr long long min_timeout_seconds = 3;

enum class command_action { run, help, version, error };
struct command_line {
    command_action action = command_action::run;
    display_mode display;
    bool subopts_given = false;
    std::string subopts;  // the -o texts, joined by commas when repeated
    std::string error;    // what was wrong, for action == error
    // A burn-in: runs until either limit (0: none) is reached.
    long long burn_in_seconds = 0;
    long long burn_in_runs = 0;
    bool keep_going = false;
    long long timeout_seconds = default_timeout_seconds;  // the watchdog's limit for a whole run
    int retests = 0;  // after a fault: the failing subtest again, this often
    bool describe = false;  // say what a run would test, and test nothing
    std::string sysroot;    // a recorded machine to read instead of this one
    std::string ras_database;  // rasdaemon's database, if not where its service keeps it
    std::string metrics;       // where the result goes for Prometheus; "": nowhere
    int failures_fd = 0;       // a burn-in's run: the pipe its failures also go to; 0: none
};
// Parses with getopt_long (resetting its state first); argv is not changed.
command_line parse_command_line(int argc, char **argv);

}  // namespace dxt

#endif
