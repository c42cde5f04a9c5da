// The turns of a run one L2 at a time (l2_turns.h).
#include <algorithm>

#include "l2_turns.h"
#include "message_line.h"
#include "statuses.h"

namespace dxt {

namespace {

bool had_turn(const burn_in_record &r, const std::string &cpus)
{
    return std::any_of(r.l2_turns.begin(), r.l2_turns.end(), [&](const l2_turn &t) { return t.cpus == cpus; });
}

}  // namespace

void put_l2_turns_text(text_buffer &out, const burn_in_record &r)
{
    if (r.l2_domains.empty())
        return;
    put_summary_start(out, r.time);
    put(out, "L2 turns:");
    for (const l2_turn &t : r.l2_turns) {
        put(out, &t == r.l2_turns.data() ? " run " : ", run ", t.run, " cpus ", t.cpus, " ", verdict_word(t.status),
            " from ");
        put_utc_time(out, t.start);
        put(out, " in ");
        put_elapsed(out, t.elapsed_ms);
    }
    bool first = true;
    for (const std::string &cpus : r.l2_domains)
        if (!had_turn(r, cpus)) {
            put(out, first ? "; no turn: cpus " : ", cpus ", cpus);
            first = false;
        }
    put(out, "\n");
}

void put_l2_turns_json(text_buffer &out, const burn_in_record &r)
{
    if (r.l2_domains.empty())
        return;
    put(out, ",\"burn_in\":", r.burn_in ? "true" : "false", ",\"l2_domains\":[");
    for (const std::string &cpus : r.l2_domains) {
        put_comma(out);
        put_json_string(out, cpus);
    }
    put(out, "],\"l2_turns\":[");
    for (const l2_turn &t : r.l2_turns) {
        put_comma(out);
        put(out, "{");
        put_int_member(out, "run", t.run);
        put_text_member(out, "cpus", t.cpus);
        put(out, ",\"started\":\"");
        put_utc_time(out, t.start);
        put(out, "\"");
        put_key(out, "elapsed_seconds");
        put_seconds(out, t.elapsed_ms);
        put_text_member(out, "verdict", verdict_name(t.status));
        put_int_member(out, "exit_status", t.status);
        put(out, "}");
    }
    put(out, "]");
}

size_t l2_turns_room(const burn_in_record &r)
{
    size_t room = 64;
    for (const std::string &cpus : r.l2_domains)
        room += 8 + 2 * cpus.size();
    for (const l2_turn &t : r.l2_turns)
        room += 160 + 2 * t.cpus.size();
    return room;
}

}  // namespace dxt
