// The harness's pure pieces, shared by its source files and open to its unit
// tests: the message catalogue, the assembly of one output line (text or
// JSON), which levels a run shows, the exit status of an ending message, and
// the command line. Nothing here writes, exits or keeps state of its own.
#ifndef TARNEL_DXTTEST_INTERNAL_H
#define TARNEL_DXTTEST_INTERNAL_H

#include <cstdarg>
#include <cstddef>
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
// The word shown for a level, or nullptr for a level with no word.
const char *severity_word(int level);

// One output line, assembled in place before it is written with one call.
// Fixed storage, so the signal handlers can build their lines with it too;
// a text too long for it is cut and marked "[cut]", never the line's end.
enum {
    line_capacity = 8192,
    text_capacity = 4096,  // a message's formatted text, before escaping
};
struct line_buffer {
    char data[line_capacity];
    size_t length = 0;
};

// Async-signal-safe: no allocation, no locale, no stdio.
void put(line_buffer &line, std::string_view s);
void put_int(line_buffer &line, long long value);
void put_hex(line_buffer &line, unsigned long long value);  // 0x..., lower case
void put_utc_time(line_buffer &line, long long seconds_since_epoch);  // 2026-11-23T05:40:18Z
void put_json_string(line_buffer &line, std::string_view text);      // quoted, escaped
void put_elapsed(line_buffer &line, long long milliseconds);         // "3.2 s"

struct message_fields {
    long long time;      // seconds since the epoch
    int level;
    int cpu;             // -1: unknown
    const char *tag;     // nullptr: none
    int number;
    int exit_flag;
    std::string_view text;
};
void put_message_line(line_buffer &line, const message_fields &m, bool json);

struct verdict_fields {
    long long time;
    int cpu;
    const char *verdict;  // "PASS", "FAIL", ...
    int exit_status;
    std::string_view text;
};
void put_verdict_line(line_buffer &line, const verdict_fields &v, bool json);

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
std::string usage_details(const char *options_text);

// The exit status a message with a non-zero exit flag ends the run with, and
// the verdict word and sentence for an exit status.
int exit_status_of(int number, int exit_flag);
const char *verdict_word(int status);
const char *verdict_reason(int status);

enum class command_action { run, help, version, error };
struct command_line {
    command_action action = command_action::run;
    display_mode display;
    bool subopts_given = false;
    std::string subopts;  // the -o texts, joined by commas when repeated
    std::string error;    // what was wrong, for action == error
};
// Parses with getopt_long (resetting its state first); argv is not changed.
command_line parse_command_line(int argc, char **argv);

}  // namespace dxt

#endif
