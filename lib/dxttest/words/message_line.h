// One line of a run's output: a message of the program (the time, the
// severity, the processor, the tag, the number and the text, as plain text
// or as one JSON object) and the closing verdict line of a text run; and
// which messages a run shows. Async-signal-safe, as text.h is.
#ifndef TARNEL_DXTTEST_MESSAGE_LINE_H
#define TARNEL_DXTTEST_MESSAGE_LINE_H

#include <string_view>

#include "text.h"

namespace dxt {

// Which messages a run shows: levels 1 to 7 by default, 1 to 3 with quiet,
// level 8 (and anything above it) only with debug; json switches the form.
struct display_mode {
    bool quiet = false;
    bool debug = false;
    bool json = false;
};

bool level_shown(display_mode mode, int level, int number);

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
// The start of a line of the text summary before it: "<time> SUMMARY ".
void put_summary_start(text_buffer &line, long long time);

}  // namespace dxt

#endif
