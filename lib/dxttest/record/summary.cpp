// The text summary that closes a run or a burn-in, and the other texts a
// person reads of one (summary.h).
#include "summary.h"

#include <cstdlib>
#include <cstring>

#include "cpuset.h"
#include "l2_turns.h"
#include "localised.h"
#include "sensors_record.h"
#include "message_line.h"
#include "statuses.h"

namespace dxt {

namespace {

// Ascending processor ids as a kernel list, one at a time, into the output.
cpu_list_writer list_into(text_buffer &out) { return {out.data, out.capacity, out.length}; }
bool same_text(const char *a, const char *b) { return strcmp(a, b) == 0; }
bool same_geometry(const l2_geometry &a, const l2_geometry &b)
{
    return a.size == b.size && a.line == b.line && a.ways == b.ways && same_text(a.size_source, b.size_source) &&
           same_text(a.line_source, b.line_source) && same_text(a.ways_source, b.ways_source);
}
bool one_source(const l2_geometry &g)
{
    return same_text(g.size_source, g.line_source) && same_text(g.size_source, g.ways_source);
}
// A list of more than one processor ("0-1", "0,4"), as opposed to "2" or
// "unknown".
bool names_several(const char *list) { return strpbrk(list, ",-") != nullptr; }
void put_subtest_names(text_buffer &out, const subtest_set &set, const char *separator)
{
    for (int i = 0; i < set.count; i++) {
        if (i > 0)
            put(out, separator);
        put(out, subtests()[static_cast<size_t>(set.index[i])].name);
    }
}
constexpr char left_out_reasons[][20] = {"offline", "not-allowed", "thread-not-created", "not-bound",
                                            "cut-short"};

const char *reason_text(const char *reason)
{
    if (same_text(reason, "offline"))
        return " (offline)";
    if (same_text(reason, "not-allowed"))
        return " (outside the allowed CPU set)";
    if (same_text(reason, "not-bound"))
        return " (its worker could not be bound to it)";
    if (same_text(reason, "cut-short"))
        return " (cut short: its worker had not finished when the run ended)";
    return " (its worker thread was not created)";
}
void put_processor_lines(text_buffer &out, const verdict_record &r)
{
    put_summary_start(out, r.time);
    if (!r.version.empty())
        put(out, "version ", r.version, ", build ", r.build, ", ");
    if (r.seed >= 0)
        put(out, "seed ", r.seed, ", ");
    put(out, "sub-options \"");
    put_visible(out, r.options);
    put(out, "\"\n");

    put_summary_start(out, r.time);
    put(out, "processors tested: ");
    cpu_list_writer tested = list_into(out);
    for (int cpu : r.machine->tested)
        if (!was_lost(r.lost, cpu))
            tested.add(cpu);
    tested.finish();
    if (!tested.any)
        put(out, "none");
    put(out, "; left out: ");
    if (r.machine->left_out.empty() && r.lost.empty())
        put(out, "none");
    bool first_group = true;
    for (const char *reason : left_out_reasons) {
        cpu_list_writer ids = list_into(out);
        each_left_out(r, [&](const left_out_processor &p) {
            if (!same_text(p.reason, reason))
                return;
            if (ids.first < 0 && !ids.any && !first_group)
                put(out, ", ");
            first_group = false;
            ids.add(p.cpu);
        });
        ids.finish();
        if (ids.any)
            put(out, reason_text(reason));
    }
    put(out, "\n");

    // One line per distinct geometry, naming its processors.
    for (const l2_geometry &g : r.l2) {
        bool seen = false;
        for (const l2_geometry *h = r.l2.data(); h != &g && !seen; h++)
            seen = same_geometry(*h, g);
        if (seen)
            continue;
        put_summary_start(out, r.time);
        put(out, "L2 of cpu ");
        cpu_list_writer ids = list_into(out);
        for (const l2_geometry &h : r.l2)
            if (same_geometry(h, g))
                ids.add(h.cpu);
        ids.finish();
        put(out, ": ", g.size, " bytes, ", g.line, "-byte lines, ", g.ways, " ways, from ");
        if (one_source(g))
            put(out, g.size_source);
        else
            put(out, "size: ", g.size_source, ", line: ", g.line_source, ", ways: ", g.ways_source);
        put(out, "\n");
    }

    if (r.l2.empty())
        return;
    put_summary_start(out, r.time);
    bool shared = false;
    bool unknown = false;
    for (const l2_geometry &g : r.l2) {
        unknown = unknown || same_text(g.shared_cpus, "unknown");
        bool seen = false;
        for (const l2_geometry *h = r.l2.data(); h != &g && !seen; h++)
            seen = same_text(h->shared_cpus, g.shared_cpus);
        if (seen || !names_several(g.shared_cpus))
            continue;
        put(out, shared ? "; " : "L2 shared by cpus ", g.shared_cpus);
        shared = true;
    }
    if (!shared)
        put(out, unknown ? "L2 sharing unknown" : "each tested processor has an L2 of its own");
    else if (unknown)
        put(out, "; sharing unknown for some processors");
    put(out, "\n");
}
void put_failure_line(text_buffer &out, long long time, const failure_site &f,
                      std::span<const processor_entry> processors)
{
    put_summary_start(out, time);
    put(out, f.no_memory ? "not tested for lack of memory on " : "failure on ");
    if (f.cpu >= 0) {
        put(out, "cpu", f.cpu);
        put_part(out, processors, f.cpu);
    } else if (f.stalled != nullptr) {
        put(out, f.stalled);
    } else {
        put(out, "an unknown processor");
    }
    put(out, ": ");
    if (f.stalled != nullptr)
        put(out, "no subtest running");
    else if (f.subtests.count == 0)
        put(out, "subtest unknown");
    else
        put_subtest_names(out, f.subtests, " or ");
    put(out, " (");
    if (f.hung)
        put(out, "hung");
    else if (f.machine_check != nullptr)
        put(out, "machine check: ", f.machine_check);
    else if (f.message != 0)
        put(out, "message ", f.message);
    else if (f.no_memory)
        put(out, "a kernel's buffer could not be allocated, so it was skipped");
    else
        put(out, "signal");
    if (f.status_known)
        put(out, ", worker exit status ", f.status);
    if (f.address_known) {
        put(out, ", address ");
        put_hex(out, f.address);
    }
    put(out, ")\n");
}

const processor_entry *entry_of(std::span<const processor_entry> processors, int cpu)
{
    for (const processor_entry &p : processors)
        if (p.cpu == cpu)
            return &p;
    return nullptr;
}
// Each id of a kernel list ("0,8", "0-1"), without allocating (a signal
// handler names the part that failed); false for a malformed list.
template <typename Visit>
bool each_listed(const char *list, Visit visit)
{
    for (const char *p = list; *p != '\0';) {
        char *end = nullptr;
        long first = strtol(p, &end, 10), last = first;
        if (end == p)
            return false;
        if (*end == '-')
            last = strtol(end + 1, &end, 10);
        for (long id = first; id <= last; id++)
            visit(static_cast<int>(id));
        p = *end == ',' ? end + 1 : end;
        if (*end != ',' && *end != '\0')
            return false;
    }
    return true;
}
// "0,8" less the processor itself: "8".
void put_siblings(text_buffer &out, const char *list, int cpu)
{
    size_t start = out.length;
    cpu_list_writer others = list_into(out);
    if (!each_listed(list, [&](int id) {
            if (id != cpu)
                others.add(id);
        })) {
        out.length = start;
        put(out, "unknown");
        return;
    }
    others.finish();
    if (!others.any)
        put(out, "none");
}

}  // namespace

void put_part(text_buffer &out, std::span<const processor_entry> processors, int cpu)
{
    const processor_entry *p = entry_of(processors, cpu);
    if (p == nullptr || !p->known)
        return;
    put(out, " (package ", p->id.package, ", core ", p->id.core);
    int threads = 0;
    if (each_listed(p->id.smt_siblings, [&](int) { threads++; }) && threads > 1) {
        put(out, threads > 2 ? ", SMT siblings cpu" : ", SMT sibling cpu");
        put_siblings(out, p->id.smt_siblings, cpu);
    }
    if (p->id.ppin_known) {
        put(out, ", PPIN ");
        put_hex(out, p->id.ppin);
    }
    put(out, ")");
}
void put_describe_text(text_buffer &out, std::span<const processor_entry> processors, const machine_entry &machine,
                       const sensors::sensor_report &readable)
{
    for (const processor_entry &p : processors) {
        put(out, "cpu", p.cpu, ": ");
        if (p.reason != nullptr)
            put(out, "left out", reason_text(p.reason), "; ");
        if (p.known) {
            put(out, "package ", p.id.package, ", die ", p.id.die, ", core ", p.id.core, ", SMT siblings ");
            put_siblings(out, p.id.smt_siblings, p.cpu);
            put(out, "; ");
            put_visible(out, *p.id.model != '\0' ? p.id.model : "model unknown");
            put(out, " (family ", p.id.family, ", model ", p.id.model_number, ", stepping ", p.id.stepping, "), microcode ");
            if (p.id.microcode >= 0)
                put_hex(out, static_cast<unsigned long long>(p.id.microcode));
            else
                put(out, "unknown");
            put(out, ", PPIN ");
            if (p.id.ppin_known)
                put_hex(out, p.id.ppin);
            else
                put(out, "unknown");
        } else {
            put(out, "no topology or cpuinfo entry");
        }
        put(out, "\ncpu", p.cpu, ": L2 ", p.l2.size, " bytes, ", p.l2.line, "-byte lines, ", p.l2.ways, " ways, from ");
        put(out, p.l2.size_source);
        put(out, same_text(p.l2.shared_cpus, "unknown") ? "; sharing unknown\n" : "; shared by cpus ");
        if (!same_text(p.l2.shared_cpus, "unknown"))
            put(out, p.l2.shared_cpus, "\n");
    }
    put(out, "machine: kernel ", *machine.id.kernel != '\0' ? machine.id.kernel : "unknown", ", virtualised: ");
    put(out, machine.id.virtualised < 0 ? "unknown" : machine.id.virtualised ? "yes" : "no", "\n");
    put_sensors_described(out, readable);
}
void put_verdict_block(text_buffer &out, const verdict_record &r, bool quiet)
{
    if (r.machine != nullptr && !quiet)
        put_processor_lines(out, r);
    for (const failure_site &f : r.failures)
        put_failure_line(out, r.time, f, r.processors);
    for (const failure_site &f : r.failures) {
        bool said = false;
        for (const failure_site *g = r.failures.data(); g != &f; g++)
            said = said || g->localised == f.localised;
        if (f.localised != nullptr && !said)
            put_localisation_line(out, r.time, *f.localised);
    }
    if (r.sensors != nullptr)
        put_sensors_text(out, r.time, *r.sensors);
    for (const std::string &warning : warnings_of(r)) {
        put_summary_start(out, r.time);
        put(out, "WARNING: ", warning, "\n");
    }
    put_verdict_line(out, {r.time, verdict_word(r.exit_status), r.text});
}
void put_pass_text(text_buffer &out, std::string_view test, const machine_description &m, long long elapsed_ms)
{
    size_t present = m.tested.size() + m.left_out.size();
    put(out, test, " passed on ", m.tested.size(), " of ", present, present == 1 ? " processor in " : " processors in ");
    put_elapsed(out, elapsed_ms);
    if (m.left_out.empty())
        return;
    put(out, "; left out: ");
    bool first = true;
    for (const char *reason : left_out_reasons) {
        std::vector<int> ids;
        for (const left_out_processor &p : m.left_out)
            if (same_text(p.reason, reason))
                ids.push_back(p.cpu);
        if (ids.empty())
            continue;
        put(out, first ? "" : ", ", ids.size() == 1 ? "cpu" : "cpus ");
        put_cpu_list(out, ids);
        put(out, reason_text(reason));
        first = false;
    }
}
void put_failure_brief(text_buffer &out, const failure_site &f)
{
    put(out, f.cpu, "\t", f.subtests.count == 1 ? subtest_name(f.subtests.index[0]) : "", "\t");
    if (f.localised != nullptr)
        put_localisation_words(out, *f.localised);
    put(out, "\n");
}

void put_geometry_text(text_buffer &out, const l2_geometry &g)
{
    put(out, "L2 of cpu", g.cpu, ": ", g.size, " bytes (", g.size_source, "), ", g.line, "-byte lines (");
    put(out, g.line_source, "), ", g.ways, " ways (", g.ways_source, "), ");
    if (same_text(g.shared_cpus, "unknown"))
        put(out, "sharing unknown");
    else
        put(out, "shared by cpus ", g.shared_cpus);
}
void put_retest_text(text_buffer &out, std::span<const retest_result> results)
{
    for (const retest_result &t : results) {
        put(out, &t == results.data() ? "" : "; ", "cpu", t.cpu);
        if (t.cpu != t.failing_cpu)
            put(out, " (shares its L2 with cpu", t.failing_cpu, ")");
        else
            put(out, " ", t.subtest.empty() ? "every selected subtest" : t.subtest);
        put(out, t.failed > 0 ? " failed " : " passed ", t.failed > 0 ? t.failed : t.passed, " of ", t.runs);
        if (t.runs - t.failed - t.passed > 0)
            put(out, " (", t.runs - t.failed - t.passed, " could not test)");
    }
}
void put_burn_in_block(text_buffer &out, const burn_in_record &r)
{
    put_summary_start(out, r.time);
    put(out, r.burn_in ? "burn-in: " : "one L2 at a time: ", r.runs, r.runs == 1 ? " run, " : " runs, ", r.runs_passed, " passed, ", r.runs_failed);
    put(out, " found a fault\n");
    for (const failed_run &f : r.failed_runs) {
        put_summary_start(out, r.time);
        put(out, "run ", f.run, " found a fault");
        if (f.cpu >= 0)
            put(out, " on cpu", f.cpu);
        if (!f.l2.empty())
            put(out, " in the turn of the L2 of cpus ", f.l2);
        if (!f.subtest.empty())
            put(out, " in ", f.subtest);
        if (!f.localisation.empty())
            put(out, "; localisation: ", f.localisation);
        put(out, "\n");
    }
    put_l2_turns_text(out, r);
    for (const unfinished_run &u : r.unfinished) {
        put_summary_start(out, r.time);
        put(out, "run ", u.run, " ", u.how, "\n");
    }
    if (!r.retests.empty()) {
        put_summary_start(out, r.time);
        put(out, "retest: ");
        put_retest_text(out, r.retests);
        put(out, "\n");
    }
    put_reproducibility_text(out, r.time, r.reproducibility);
    for (const std::string &warning : burn_in_warnings(r)) {
        put_summary_start(out, r.time);
        put(out, "WARNING: ", warning, "\n");
    }
    put_summary_start(out, r.time);
    put(out, "elapsed ");
    put_duration(out, r.elapsed_ms);
    put(out, "\n");
    put_verdict_line(out, {r.time, verdict_word(r.exit_status), r.text});
}

}  // namespace dxt
