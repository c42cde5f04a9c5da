// The live progress line (progress_line.h).
#include "progress_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "output.h"
#include "subtests.h"

namespace dxt {

namespace {

constexpr std::string_view clear_line = "\r\033[K";

}  // namespace

bool progress_wanted(display_mode mode)
{
    // A dumb terminal cannot move back to the start of a line.
    const char *term = getenv("TERM");
    return mode.quiet && !mode.json && isatty(STDOUT_FILENO) == 1 && !(term != nullptr && strcmp(term, "dumb") == 0);
}

void start_progress_line(progress_line &p, display_mode mode, int fd)
{
    p.on = progress_wanted(mode);
    winsize size;
    if (p.on && ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        p.columns = size.ws_col;
}

void put_progress_text(text_buffer &out, int subtest, int started, int finished, int processors)
{
    if (subtest < 0) {
        put(out, "starting on ", processors, processors == 1 ? " cpu" : " cpus");
        return;
    }
    put(out, subtest_name(subtest), ": ", started, "/", processors, " cpus started, ");
    put(out, finished, "/", processors, " finished");
}

void clear_progress(progress_line &p, int fd)
{
    if (p.shown.exchange(false))
        write_all(fd, clear_line.data(), clear_line.size());
}

void show_progress(progress_line &p, int fd, const text_buffer &text)
{
    if (!p.on)
        return;
    // One screen line, or the next \r would not reach its start.
    size_t width = p.columns > 1 ? static_cast<size_t>(p.columns - 1) : 1;
    write_all(fd, clear_line.data(), clear_line.size());
    write_text(fd, {text.data, text.capacity, std::min(text.length, width)});
    p.shown = true;
}

void draw_progress(progress_line &p, int fd, int subtest, int started, int finished, int processors)
{
    if (!p.on)
        return;
    line_buffer text;
    put_progress_text(text, subtest, started, finished, processors);
    show_progress(p, fd, text);
}

}  // namespace dxt
