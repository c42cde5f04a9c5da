// One L2 at a time: which L2's processors ran in which run, when, and how
// each turn ended, in the text summary and in the JSON record.
#ifndef TARNEL_DXTTEST_L2_TURNS_H
#define TARNEL_DXTTEST_L2_TURNS_H

#include "run_record.h"
#include "text.h"

namespace dxt {

// "SUMMARY L2 turns: run 1 cpus 0-1 PASS at 21:30:01Z in 2.0 s, ...", and
// the L2s no turn reached; nothing outside the mode.
void put_l2_turns_text(text_buffer &out, const burn_in_record &r);
// ,"l2_domains":[...],"l2_turns":[...]; nothing outside the mode.
void put_l2_turns_json(text_buffer &out, const burn_in_record &r);
size_t l2_turns_room(const burn_in_record &r);

}  // namespace dxt

#endif
