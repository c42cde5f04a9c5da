// The live progress line of a quiet text run on a terminal: the subtest
// announced last, and on how many of the tested processors it started and
// finished (a burn-in's: its run, and the time left), redrawn in place on
// one screen line.
#ifndef TARNEL_DXTTEST_PROGRESS_LINE_H
#define TARNEL_DXTTEST_PROGRESS_LINE_H

#include <atomic>

#include "message_line.h"
#include "text.h"

namespace dxt {

struct progress_line {
    bool on = false;
    std::atomic<bool> shown{false};  // a progress line is on the screen
    int columns = 80;
};

// -q, text, on a terminal that can redraw a line.
bool progress_wanted(display_mode mode);
// On when wanted, as wide as the terminal on fd.
void start_progress_line(progress_line &p, display_mode mode, int fd);
// The line's text (no newline), within 80 columns.
void put_progress_text(text_buffer &out, int subtest, int started, int finished, int processors);
// Under the output's lock (or in a signal handler, the run ending): the
// line taken off the screen, before other output; drawn anew after it,
// within one screen line. A burn-in draws its own text.
void clear_progress(progress_line &p, int fd);
void show_progress(progress_line &p, int fd, const text_buffer &text);
void draw_progress(progress_line &p, int fd, int subtest, int started, int finished, int processors);

}  // namespace dxt

#endif
