// The localisation of a fault (the sweep after it, localise.h) and how it
// reproduced, in the words of the summary and in the record: one room, so
// that the text and the JSON say the same finding.
#ifndef TARNEL_DXTTEST_LOCALISED_H
#define TARNEL_DXTTEST_LOCALISED_H

#include <span>

#include "localise.h"
#include "run_record.h"
#include "text.h"

namespace dxt {

// "bit 35 stuck at 1 at physical 0x207d52000 (L2 set 1152), stored; 67
// miscompares, first in moving inversions; seed 0x..", or "not reproduced
// in 5.0 s (3 passes of every kernel)".
void put_localisation_words(text_buffer &out, const loc::finding &l);
// The summary's line of it: "<time> SUMMARY localisation on cpu1: ...".
void put_localisation_line(text_buffer &out, long long time, const loc::finding &l);
// The record's: {"ran":...,"records":[...]}.
void put_localisation_json(text_buffer &out, const loc::finding &l);
// A line per failing processor: how often it failed, its sharers, its sweeps.
void put_reproducibility_text(text_buffer &out, long long time, std::span<const reproduction> found);
// ,"reproducibility":[...]
void put_reproducibility_json(text_buffer &out, std::span<const reproduction> found);

}  // namespace dxt

#endif
