// The localisation of a fault and its reproducibility, in words and in
// the record (localised.h).
#include "localised.h"

#include "message_line.h"
#include "subtests.h"

namespace dxt {

namespace {

void put_miss_json(text_buffer &out, const loc::miss &m)
{
    put(out, "{");
    put_text_member(out, "kernel", loc::kernel_name(m.kernel));
    put_int_member(out, "pass", m.pass);
    put_int_member(out, "offset", static_cast<long long>(m.offset));
    put_hex_member(out, "address", m.address, true);
    put_hex_member(out, "physical", m.physical, m.physical_known);
    put_text_member(out, "physical_why", m.physical_why, !m.physical_known);
    put_int_member(out, "l2_set", m.set, m.set >= 0);
    put_hex_member(out, "expected", m.expected, true);
    put_hex_member(out, "actual", m.actual, true);
    put_hex_member(out, "xor", m.expected ^ m.actual, true);
    put(out, ",\"bits\":[");
    for (uint64_t x = m.expected ^ m.actual; x != 0; x &= x - 1) {
        put_comma(out);
        put_int(out, __builtin_ctzll(x));
    }
    put(out, "]");
    put_hex_member(out, "reread", m.reread, true);
    put_text_member(out, "class", m.stored() ? "stored" : "read");
    put(out, "}");
}


}  // namespace

void put_localisation_json(text_buffer &out, const loc::finding &l)
{
    put(out, "{");
    put(out, l.ran ? "\"ran\":true" : "\"ran\":false");
    put_text_member(out, "why_not", l.why_not, !l.ran);
    put_hex_member(out, "seed", l.seed, true);
    put_int_member(out, "passes", l.passes);
    put_key(out, "elapsed_seconds");
    put_seconds(out, l.elapsed_ms);
    put_int_member(out, "miscompares", l.misses);
    loc::pattern p = loc::common_pattern(l.kept_records());
    put_text_member(out, "pattern", p.text, l.kept > 0);
    put(out, ",\"set_indexing\":\"linear, assumed\",\"records\":[");
    for (const loc::miss &m : l.kept_records()) {
        put_comma(out);
        put_miss_json(out, m);
    }
    put(out, "]}");
}

// What the sweep after the fault found on one processor, at a glance: the
// pattern, where, and whether the cell or the read was wrong.
void put_localisation_words(text_buffer &out, const loc::finding &l)
{
    if (!l.ran) {
        put(out, "not run: ", l.why_not);
        return;
    }
    if (l.kept == 0) {
        put(out, "not reproduced in ");
        put_elapsed(out, l.elapsed_ms);
        if (l.passes == 0)
            put(out, " (before one pass of every kernel ended)");
        else
            put(out, " (", l.passes, l.passes == 1 ? " pass" : " passes", " of every kernel)");
        return;
    }
    const loc::miss &first = l.records[0];
    put(out, loc::common_pattern(l.kept_records()).text, " at ");
    if (first.physical_known) {
        put(out, "physical ");
        put_hex(out, first.physical);
        put(out, " (L2 set ", first.set, ")");
    } else {
        put(out, "offset ", first.offset, " of the sweep's buffer (physical address not known: ", first.physical_why,
            ")");
    }
    bool stored = false, read = false;
    for (const loc::miss &m : l.kept_records())
        (m.stored() ? stored : read) = true;
    put(out, stored && read ? ", stored and read" : stored ? ", stored" : ", read");
    put(out, "; ", l.misses, l.misses == 1 ? " miscompare" : " miscompares", ", first in ",
        loc::kernel_name(first.kernel), "; seed ");
    put_hex(out, l.seed);
}

void put_localisation_line(text_buffer &out, long long time, const loc::finding &l)
{
    put_summary_start(out, time);
    put(out, "localisation on cpu", l.cpu, ": ");
    put_localisation_words(out, l);
    put(out, "\n");
}

void put_reproducibility_text(text_buffer &out, long long time, std::span<const reproduction> found)
{
    for (const reproduction &r : found) {
        put_summary_start(out, time);
        put(out, "reproducibility of cpu", r.cpu, ": failed ", r.failed, " of ", r.runs, ", ", r.verdict);
        for (size_t i = 0; i < r.sharers.size(); i++) {
            const retest_result &t = *r.sharers[i];
            put(out, i == 0 ? " (" : "; ", "cpu", t.cpu, ", which shares its L2, ", t.failed > 0 ? "failed " : "passed ",
                t.failed > 0 ? t.failed : t.passed, " of ", t.runs);
        }
        put(out, r.sharers.empty() ? "" : ")");
        if (!r.localisation.empty())
            put(out, "; localisation: ", r.localisation[0]);
        put(out, "\n");
    }
}

void put_reproducibility_json(text_buffer &out, std::span<const reproduction> found)
{
    put(out, ",\"reproducibility\":[");
    for (const reproduction &r : found) {
        put_comma(out);
        put(out, "{");
        put_int_member(out, "cpu", r.cpu);
        put_int_member(out, "failed", r.failed);
        put_int_member(out, "runs", r.runs);
        put_text_member(out, "verdict", r.verdict);
        put(out, ",\"sharers\":[");
        for (const retest_result *t : r.sharers) {
            put_comma(out);
            put(out, "{");
            put_int_member(out, "cpu", t->cpu);
            put_int_member(out, "failed", t->failed);
            put_int_member(out, "runs", t->runs);
            put(out, "}");
        }
        put(out, "],\"localisation\":[");
        for (const std::string &l : r.localisation) {
            put_comma(out);
            put_json_string(out, l);
        }
        put(out, "]}");
    }
    put(out, "]");
}

}  // namespace dxt
