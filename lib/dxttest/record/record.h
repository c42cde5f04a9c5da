// The JSON record that closes a run or a burn-in: one line, the last of its
// output, for fleets that collect them. A run's is assembled without
// allocating when it carries no hardware reports, which is what a signal
// handler assembles, in room reckoned before the run.
#ifndef TARNEL_DXTTEST_RECORD_H
#define TARNEL_DXTTEST_RECORD_H

#include <span>

#include "run_record.h"
#include "text.h"

namespace dxt {

// Bytes enough for either form of the record (the text summary's too).
size_t verdict_room(const verdict_record &record);
// The JSON record: one line.
void put_verdict_record(text_buffer &out, const verdict_record &record);
size_t burn_in_room(const burn_in_record &record);
void put_burn_in_record(text_buffer &out, const burn_in_record &record);
// ,"retests":[...]
void put_retests_json(text_buffer &out, std::span<const retest_result> results);
// --describe's: {"schema_version":...,"processors":[...],"machine":{...}}
void put_describe_record(text_buffer &out, std::span<const processor_entry> processors, const machine_entry &machine,
                         const sensors::sensor_report &readable);

}  // namespace dxt

#endif
