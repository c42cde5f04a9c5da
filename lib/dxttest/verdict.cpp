// Assembly of the verdict: the JSON record and the text block that close a
// run, the geometry and progress texts, which subtest a failed worker was
// in, and what the machine's own error reporting saw. No allocation in the
// assembly of a record without hardware reports, which is what a signal
// handler assembles.
#include "verdict.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "cpuset.h"
#include "testinfo.h"

namespace dxt {

namespace {

// The statuses a subtest ends a worker with.
constexpr intptr_t miscompare_status = -1;
constexpr intptr_t no_memory_status = 12;

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

const char *subtest_name(int index) { return subtests()[static_cast<size_t>(index)].name; }

// "key":"0x1c2e", or null when not known.
void put_hex_member(text_buffer &out, std::string_view key, unsigned long long value, bool known)
{
    put_key(out, key);
    if (!known) {
        put(out, "null");
        return;
    }
    put(out, "\"");
    put_hex(out, value);
    put(out, "\"");
}

void put_failure_json(text_buffer &out, const failure_site &f)
{
    put(out, "{");
    put_int_member(out, "cpu", f.cpu, f.cpu >= 0);
    put_int_member(out, "message", f.message);
    put_int_member(out, "worker_status", f.status, f.status_known);
    put_text_member(out, "subtest", f.subtests.count == 1 ? subtest_name(f.subtests.index[0]) : "",
                    f.subtests.count == 1);
    put(out, ",\"possible_subtests\":[");
    for (int i = 0; i < f.subtests.count; i++) {
        put_comma(out);
        put_json_string(out, subtest_name(f.subtests.index[i]));
    }
    put(out, "]");
    put(out, f.hung ? ",\"hung\":true" : ",\"hung\":false");
    put(out, f.no_memory ? ",\"no_memory\":true" : ",\"no_memory\":false");
    put_text_member(out, "stalled", f.stalled != nullptr ? f.stalled : "", f.stalled != nullptr);
    put_text_member(out, "machine_check", f.machine_check != nullptr ? f.machine_check : "", f.machine_check != nullptr);
    put_hex_member(out, "address", f.address, f.address_known);
    put(out, "}");
}

// {"time":...,"host":...,"schema_version":...,"verdict":...,"exit_status":...
void put_record_head(text_buffer &out, long long time, std::string_view host, int exit_status)
{
    put(out, "{\"time\":\"");
    put_utc_time(out, time);
    put(out, "\"");
    put_text_member(out, "host", host, !host.empty());
    put_int_member(out, "schema_version", verdict_schema_version);
    put_text_member(out, "verdict", verdict_name(exit_status));
    put_int_member(out, "exit_status", exit_status);
}

void start_summary_line(text_buffer &out, long long time)
{
    put_utc_time(out, time);
    put(out, " SUMMARY ");
}

// Every processor left out, before the run and during it, with its reason.
template <typename F>
void each_left_out(const verdict_record &r, F visit)
{
    for (const left_out_processor &p : r.machine->left_out)
        visit(p);
    for (const left_out_processor &p : r.lost)
        visit(p);
}

constexpr const char *left_out_reasons[] = {"offline", "not-allowed", "thread-not-created", "not-bound",
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
    start_summary_line(out, r.time);
    if (!r.version.empty())
        put(out, "version ", r.version, ", build ", r.build, ", ");
    put(out, "sub-options \"");
    put_visible(out, r.options);
    put(out, "\"\n");

    start_summary_line(out, r.time);
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
        start_summary_line(out, r.time);
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
    start_summary_line(out, r.time);
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
    start_summary_line(out, time);
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

// A burn-in's warnings speak of every processor: its runs failed for
// themselves.
std::vector<int> every_processor(const hardware_report &report)
{
    std::vector<int> all;
    for (const ras::processor_counts &p : report.grew)
        all.push_back(p.cpu);
    return all;
}

// The processors a run tested, for its warnings.
std::vector<std::string> warnings_of(const verdict_record &r)
{
    std::vector<std::string> said;
    if (r.machine != nullptr)
        for (const left_out_processor &p : r.machine->left_out)
            if (same_text(p.reason, "offline"))
                said.push_back("cpu" + std::to_string(p.cpu) +
                               " is offline, so it was not tested (a processor taken offline after errors is one to "
                               "check)");
    if (r.reports == nullptr)
        return said;
    std::vector<int> tested;
    if (r.machine != nullptr)
        for (int cpu : r.machine->tested)
            if (!was_lost(r.lost, cpu))
                tested.push_back(cpu);
    std::vector<std::string> reported = report_warnings(*r.reports, tested);
    said.insert(said.end(), reported.begin(), reported.end());
    return said;
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

// Bytes enough for the processors' identities in a record, escaped.
size_t identity_room(std::span<const processor_entry> processors)
{
    size_t room = 0;
    for (const processor_entry &p : processors)
        room += 1024 + 6 * ((p.known ? strlen(p.id.model) + strlen(p.id.smt_siblings) : 0) + strlen(p.l2.shared_cpus));
    return room;
}

void put_number_member(text_buffer &out, std::string_view key, long long value)
{
    put_int_member(out, key, value, value >= 0);
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

void put_identity_json(text_buffer &out, std::span<const processor_entry> processors, const machine_entry &machine)
{
    put(out, ",\"processors\":[");
    for (const processor_entry &p : processors) {
        put_comma(out);
        put(out, "{");
        put_int_member(out, "cpu", p.cpu);
        put_number_member(out, "package", p.known ? p.id.package : -1);
        put_number_member(out, "die", p.known ? p.id.die : -1);
        put_number_member(out, "core", p.known ? p.id.core : -1);
        put_text_member(out, "smt_siblings", p.known ? p.id.smt_siblings : "",
                        p.known && strcmp(p.id.smt_siblings, "unknown") != 0);
        put_text_member(out, "model", p.known ? p.id.model : "", p.known && *p.id.model != '\0');
        put_number_member(out, "family", p.known ? p.id.family : -1);
        put_number_member(out, "model_number", p.known ? p.id.model_number : -1);
        put_number_member(out, "stepping", p.known ? p.id.stepping : -1);
        put_hex_member(out, "microcode", static_cast<unsigned long long>(p.id.microcode), p.known && p.id.microcode >= 0);
        put_hex_member(out, "ppin", p.id.ppin, p.known && p.id.ppin_known);
        put(out, ",\"l2\":{");
        put_int_member(out, "size", p.l2.size);
        put_int_member(out, "line", p.l2.line);
        put_int_member(out, "ways", p.l2.ways);
        put_text_member(out, "source", p.l2.size_source);
        put_text_member(out, "shared_cpus", p.l2.shared_cpus);
        put(out, "}");
        put_text_member(out, "reason", p.reason != nullptr ? p.reason : "", p.reason != nullptr);
        put(out, "}");
    }
    put(out, "],\"machine\":{");
    put_text_member(out, "host", machine.host, !machine.host.empty());
    put_text_member(out, "kernel", machine.id.kernel, *machine.id.kernel != '\0');
    put_key(out, "virtualised");
    put(out, machine.id.virtualised < 0 ? "null" : machine.id.virtualised ? "true" : "false");
    put_key(out, "start_time");
    put(out, "\"");
    put_utc_time(out, machine.start_time);
    put(out, "\"}");
}

void put_describe_text(text_buffer &out, std::span<const processor_entry> processors, const machine_entry &machine)
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
}

l2_geometry announced_l2(int cpu, uint32_t size, uint32_t line, const char *shared_cpus)
{
    constexpr const char *defaults = "defaults";
    l2_geometry g{cpu, size, line, L2_DEFAULT_WAYS, defaults, defaults, defaults, shared_cpus};
    uint32_t *record = nullptr;
    if (dxt_tlib_get_cpu_cacheinfo(cpu, &record) != 0)
        return g;
    for (int index : {4, 2}) {
        const uint32_t *d = dxt_tlib_cache_descriptor(record, index);
        if (d[CACHEINFO_SIZE] != size)
            continue;
        const char *source = dxt_tlib_get_cache_source(cpu, index);
        g.size_source = source;
        if (d[CACHEINFO_LINE] == line)
            g.line_source = source;
        if (d[CACHEINFO_WAYS] != 0) {
            g.ways = d[CACHEINFO_WAYS];
            g.ways_source = source;
        }
        break;
    }
    return g;
}

const char no_memory_reason[] = "the test could not get the memory it needed";

bool lacks_memory(int number) { return number == MSG_WRRDVR_NO_MEMORY || number == MSG_NO_MEMORY; }

bool lacks_memory_status(intptr_t status) { return status == no_memory_status; }

run_ending ending_of(int status, std::span<const failure_site> failures)
{
    if (!failures.empty() && std::none_of(failures.begin(), failures.end(), is_fault))
        return {exit_could_not_test, no_memory_reason};
    return {status, verdict_reason(status)};
}

bool names_new_cpu(std::span<const failure_site> failures, size_t i)
{
    if (failures[i].cpu < 0)
        return false;
    for (size_t j = 0; j < i; j++)
        if (failures[j].cpu == failures[i].cpu && failures[j].no_memory == failures[i].no_memory)
            return false;
    return true;
}

bool was_lost(std::span<const left_out_processor> lost, int cpu)
{
    for (const left_out_processor &p : lost)
        if (p.cpu == cpu)
            return true;
    return false;
}

subtest_set possible_subtests(int32_t mask, int last_started, bool last_ended, bool status_known, intptr_t status,
                              bool running)
{
    std::span<const subtest> sequence = subtests();
    subtest_set after;
    if (last_started >= 0 && sequence[static_cast<size_t>(last_started)].end_message != 0 && !last_ended) {
        after.index[after.count++] = last_started;
        return after;
    }
    // A march that ends before it returns its miscompare is still a
    // candidate; so is the last one started, for a worker still in it.
    bool ends_first = last_started >= 0 && sequence[static_cast<size_t>(last_started)].fails_after_end;
    if (last_started >= 0 && (last_ended ? ends_first && !running : running))
        after.index[after.count++] = last_started;
    for (size_t i = static_cast<size_t>(last_started + 1); i < sequence.size(); i++) {
        if ((mask & sequence[i].mask_bit) == 0)
            continue;
        if (sequence[i].start_message != 0)
            break;
        after.index[after.count++] = static_cast<int>(i);
    }
    if (!status_known || (status != miscompare_status && status != no_memory_status))
        return after;
    subtest_set fitting;
    for (int k = 0; k < after.count; k++) {
        const subtest &s = sequence[static_cast<size_t>(after.index[k])];
        bool over = after.index[k] == last_started;  // it said its end: only its miscompare is left
        if (status == miscompare_status ? s.compares : s.allocates && !over)
            fitting.index[fitting.count++] = after.index[k];
    }
    return fitting.count > 0 ? fitting : after;
}

size_t verdict_room(const verdict_record &r)
{
    // Escaping makes a character at most six bytes; the fixed keys and
    // numbers fit in the constant parts.
    size_t room = 4096 + 6 * (r.text.size() + r.host.size() + r.options.size() + r.version.size() +
                              r.build.size()) +
                  96 * r.lost.size();
    if (r.machine != nullptr)
        room += 16 * r.machine->tested.size() + 80 * r.machine->left_out.size();
    for (const l2_geometry &g : r.l2)
        room += 512 + 6 * (strlen(g.size_source) + strlen(g.line_source) + strlen(g.ways_source)) +
                12 * strlen(g.shared_cpus);
    size_t names = 0;
    for (const subtest &s : subtests())
        names += 12 * strlen(s.name) + 16;
    room += r.failures.size() * (512 + names);
    if (r.reports != nullptr)
        room += report_room(*r.reports);
    return room + identity_room(r.processors);
}

void put_verdict_record(text_buffer &out, const verdict_record &r)
{
    put_record_head(out, r.time, r.host, r.exit_status);
    put_key(out, "elapsed_seconds");
    put_seconds(out, r.elapsed_ms);
    put_text_member(out, "text", r.text);
    put_int_member(out, "cpu", r.cpu, r.cpu >= 0);
    put_text_member(out, "thread", r.cpu >= 0 ? "worker" : "main");
    put_text_member(out, "options", r.options);
    put_text_member(out, "version", r.version);
    put_text_member(out, "build", r.build);

    put(out, ",\"tested_cpus\":[");
    for (int cpu : r.machine != nullptr ? std::span<const int>(r.machine->tested) : std::span<const int>())
        if (!was_lost(r.lost, cpu)) {
            put_comma(out);
            put_int(out, cpu);
        }
    put(out, "],\"left_out_cpus\":[");
    if (r.machine != nullptr)
        each_left_out(r, [&](const left_out_processor &p) {
            put_comma(out);
            put(out, "{");
            put_int_member(out, "cpu", p.cpu);
            put_text_member(out, "reason", p.reason);
            if (p.entry >= 0)
                put_int_member(out, "entry", p.entry);
            put(out, "}");
        });
    put(out, "],\"failed_cpus\":[");
    for (size_t i = 0; i < r.failures.size(); i++)
        if (is_fault(r.failures[i]) && names_new_cpu(r.failures, i)) {
            put_comma(out);
            put_int(out, r.failures[i].cpu);
        }
    put(out, "],\"l2\":[");
    for (const l2_geometry &g : r.l2) {
        put_comma(out);
        put(out, "{");
        put_int_member(out, "cpu", g.cpu);
        put_int_member(out, "size", g.size);
        put_int_member(out, "line", g.line);
        put_int_member(out, "ways", g.ways);
        put_text_member(out, "source", g.size_source);
        put(out, ",\"sources\":{");
        put_text_member(out, "size", g.size_source);
        put_text_member(out, "line", g.line_source);
        put_text_member(out, "ways", g.ways_source);
        put(out, "}");
        put_text_member(out, "shared_cpus", g.shared_cpus);
        put(out, "}");
    }
    put(out, "],\"failures\":[");
    for (const failure_site &f : r.failures) {
        put_comma(out);
        put_failure_json(out, f);
    }
    put(out, "]");
    if (r.reports != nullptr)
        put_report_json(out, *r.reports);
    if (r.host_identity != nullptr)
        put_identity_json(out, r.processors, *r.host_identity);
    put(out, ",\"warnings\":[");
    for (const std::string &warning : warnings_of(r)) {
        put_comma(out);
        put_json_string(out, warning);
    }
    put(out, "]}\n");
}

void put_verdict_block(text_buffer &out, const verdict_record &r, bool quiet)
{
    if (r.machine != nullptr && !quiet)
        put_processor_lines(out, r);
    for (const failure_site &f : r.failures)
        put_failure_line(out, r.time, f, r.processors);
    for (const std::string &warning : warnings_of(r)) {
        start_summary_line(out, r.time);
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
    put(out, f.cpu, "\t", f.subtests.count == 1 ? subtest_name(f.subtests.index[0]) : "", "\n");
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

void put_progress_text(text_buffer &out, int subtest, int started, int finished, int processors)
{
    if (subtest < 0) {
        put(out, "starting on ", processors, processors == 1 ? " cpu" : " cpus");
        return;
    }
    put(out, subtests()[static_cast<size_t>(subtest)].name, ": ", started, "/", processors, " cpus started, ");
    put(out, finished, "/", processors, " finished");
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

void put_retests_json(text_buffer &out, std::span<const retest_result> results)
{
    put(out, ",\"retests\":[");
    for (const retest_result &t : results) {
        put_comma(out);
        put(out, "{");
        put_int_member(out, "cpu", t.cpu);
        put_int_member(out, "failing_cpu", t.failing_cpu);
        put_text_member(out, "subtest", t.subtest, !t.subtest.empty());
        put_int_member(out, "runs", t.runs);
        put_int_member(out, "failed", t.failed);
        put_int_member(out, "passed", t.passed);
        put_int_member(out, "could_not_test", t.runs - t.failed - t.passed);
        put(out, "}");
    }
    put(out, "]");
}

size_t burn_in_room(const burn_in_record &r)
{
    size_t names = 0;
    for (const failed_run &f : r.failed_runs)
        names += 160 + 6 * f.subtest.size();
    for (const unfinished_run &u : r.unfinished)
        names += 160 + 6 * u.how.size();
    for (const retest_result &t : r.retests)
        names += 320 + 6 * t.subtest.size();
    return 4096 + 6 * (r.text.size() + r.host.size() + r.options.size() + r.version.size() + r.build.size()) +
           2 * names + identity_room(r.processors) + (r.reports != nullptr ? report_room(*r.reports) : 0);
}

void put_burn_in_record(text_buffer &out, const burn_in_record &r)
{
    put_record_head(out, r.time, r.host, r.exit_status);
    put_text_member(out, "text", r.text);
    put_text_member(out, "options", r.options);
    put_text_member(out, "version", r.version);
    put_text_member(out, "build", r.build);
    put_int_member(out, "runs", r.runs);
    put_int_member(out, "runs_passed", r.runs_passed);
    put_int_member(out, "runs_failed", r.runs_failed);
    put(out, ",\"failed_runs\":[");
    for (const failed_run &f : r.failed_runs) {
        put_comma(out);
        put(out, "{");
        put_int_member(out, "run", f.run);
        put_int_member(out, "cpu", f.cpu, f.cpu >= 0);
        put_text_member(out, "subtest", f.subtest, !f.subtest.empty());
        put(out, "}");
    }
    put(out, "],\"unfinished_runs\":[");
    for (const unfinished_run &u : r.unfinished) {
        put_comma(out);
        put(out, "{");
        put_int_member(out, "run", u.run);
        put_text_member(out, "verdict", verdict_name(u.status));
        put_text_member(out, "text", u.how);
        put(out, "}");
    }
    put(out, "]");
    put_retests_json(out, r.retests);
    put_key(out, "elapsed_seconds");
    put_seconds(out, r.elapsed_ms);
    if (r.reports != nullptr) {
        put_report_json(out, *r.reports);
        put(out, ",\"warnings\":[");
        for (const std::string &warning : report_warnings(*r.reports, every_processor(*r.reports))) {
            put_comma(out);
            put_json_string(out, warning);
        }
        put(out, "]");
    }
    if (r.host_identity != nullptr)
        put_identity_json(out, r.processors, *r.host_identity);
    put(out, "}\n");
}

void put_burn_in_block(text_buffer &out, const burn_in_record &r)
{
    start_summary_line(out, r.time);
    put(out, "burn-in: ", r.runs, r.runs == 1 ? " run, " : " runs, ", r.runs_passed, " passed, ", r.runs_failed);
    put(out, " found a fault\n");
    for (const failed_run &f : r.failed_runs) {
        start_summary_line(out, r.time);
        put(out, "run ", f.run, " found a fault");
        if (f.cpu >= 0)
            put(out, " on cpu", f.cpu);
        if (!f.subtest.empty())
            put(out, " in ", f.subtest);
        put(out, "\n");
    }
    for (const unfinished_run &u : r.unfinished) {
        start_summary_line(out, r.time);
        put(out, "run ", u.run, " ", u.how, "\n");
    }
    if (!r.retests.empty()) {
        start_summary_line(out, r.time);
        put(out, "retest: ");
        put_retest_text(out, r.retests);
        put(out, "\n");
    }
    if (r.reports != nullptr)
        for (const std::string &warning : report_warnings(*r.reports, every_processor(*r.reports))) {
            start_summary_line(out, r.time);
            put(out, "WARNING: ", warning, "\n");
        }
    start_summary_line(out, r.time);
    put(out, "elapsed ");
    put_duration(out, r.elapsed_ms);
    put(out, "\n");
    put_verdict_line(out, {r.time, verdict_word(r.exit_status), r.text});
}

}  // namespace dxt
