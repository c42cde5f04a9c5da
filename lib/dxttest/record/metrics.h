// The result of a run or a burn-in for a monitoring system: the Prometheus
// text format that node_exporter's textfile collector serves, written to a
// file of its own with a rename so that a scrape never reads half of it.
// The run's form is assembled and written without allocating, so that a
// signal handler's ending can write it too.
#ifndef TARNEL_DXTTEST_METRICS_H
#define TARNEL_DXTTEST_METRICS_H

#include <span>
#include <string>

#include "run_record.h"
#include "text.h"

namespace dxt {

// Bytes enough for either form of the metrics.
size_t run_metrics_room(const verdict_record &record);
size_t burn_in_metrics_room(const burn_in_record &record, std::span<const int> tested, std::span<const int> untested);

// A run's: when it ended, how long it took, its exit status and verdict,
// each processor tested or left out and whether it failed, and what the
// hardware's own reporting counted meanwhile.
void put_run_metrics(text_buffer &out, const verdict_record &record);
// A burn-in's: the same for the burn-in as a whole, its runs by verdict,
// and the processors its runs test (`tested`) and those they failed on;
// one L2 at a time, those whose L2 had no turn are `untested`.
void put_burn_in_metrics(text_buffer &out, const burn_in_record &record, std::span<const int> tested,
                         std::span<const int> untested);

// Where the metrics go, and the temporary file beside it (PATH.<pid>.tmp,
// which the textfile collector ignores for not ending in .prom) that is
// renamed to it.
struct metrics_file {
    std::string path;
    std::string temporary;
};

metrics_file metrics_file_at(const std::string &path);
// Writes text through the temporary file; 0, or the error that stopped it,
// said on standard error after the program's name. Async-signal-safe.
int write_metrics_file(const metrics_file &file, const text_buffer &text, const char *program);
// "the metrics could not be written to PATH (why)", for a verdict's text.
void put_metrics_lost(text_buffer &text, std::string_view path, int error);

}  // namespace dxt

#endif
