// The text summary that closes a run or a burn-in: SUMMARY lines of what
// was tested, what failed where and what the machine reported, then the
// VERDICT line; and the other texts a person reads of a run (--describe,
// a pass's sentence, the geometry a worker took). Async-signal-safe where
// a signal handler needs it, as record.h is.
#ifndef TARNEL_DXTTEST_SUMMARY_H
#define TARNEL_DXTTEST_SUMMARY_H

#include <span>
#include <string_view>

#include "run_record.h"
#include "text.h"

namespace dxt {

// The text block: SUMMARY lines (with quiet, only failures and warnings),
// then the VERDICT line.
void put_verdict_block(text_buffer &out, const verdict_record &record, bool quiet);
// The summary lines, then the verdict line.
void put_burn_in_block(text_buffer &out, const burn_in_record &record);
// "cpu5 Cache Hit Stress failed 4 of 5; cpu37 (shares its L2) passed 5 of 5"
void put_retest_text(text_buffer &out, std::span<const retest_result> results);

// What --describe prints: a line of identity and one of L2 per processor,
// one per processor left out, and the machine's.
void put_describe_text(text_buffer &out, std::span<const processor_entry> processors, const machine_entry &machine,
                       const sensors::sensor_report &readable);
// " (package 0, core 3, SMT sibling cpu37, PPIN 0x1c2e)" for a failure line.
void put_part(text_buffer &out, std::span<const processor_entry> processors, int cpu);
// A pass in words, with what it covered: "tarneltest passed on 1 of 2
// processors in 2.0 s; left out: cpu0 (outside the allowed CPU set)".
void put_pass_text(text_buffer &out, std::string_view test, const machine_description &m, long long elapsed_ms);

// One failure for a burn-in's parent: "<cpu>\t<subtest>\t<localisation>\n"
// (-1 and "" when not known).
void put_failure_brief(text_buffer &out, const failure_site &f);


// The debug line of one processor's geometry, every value with its source.
void put_geometry_text(text_buffer &out, const l2_geometry &g);

}  // namespace dxt

#endif
