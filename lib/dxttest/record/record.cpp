// The JSON record that closes a run or a burn-in (record.h).
#include "record.h"

#include <cstring>

#include "l2_turns.h"
#include "localised.h"
#include "sensors_record.h"
#include "statuses.h"

namespace dxt {

namespace {

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
    put_key(out, "localisation");
    if (f.localised != nullptr)
        put_localisation_json(out, *f.localised);
    else
        put(out, "null");
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

// ,"processors":[...],"machine":{...}
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

}  // namespace

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
    room += r.failures.size() * (512 + names + 1024 + loc::kept_misses * 1024);
    if (r.reports != nullptr)
        room += report_room(*r.reports);
    return room + identity_room(r.processors) + sensors_room(r.sensors);
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
    put_int_member(out, "seed", r.seed, r.seed >= 0);

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
    put_sensors_json(out, r.sensors);
    if (r.host_identity != nullptr)
        put_identity_json(out, r.processors, *r.host_identity);
    put(out, ",\"warnings\":[");
    for (const std::string &warning : warnings_of(r)) {
        put_comma(out);
        put_json_string(out, warning);
    }
    put(out, "]}\n");
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
        names += 160 + 6 * (f.subtest.size() + f.localisation.size() + f.l2.size());
    for (const reproduction &p : r.reproducibility) {
        names += 160 + 80 * p.sharers.size();
        for (const std::string &l : p.localisation)
            names += 8 + 6 * l.size();
    }
    for (const unfinished_run &u : r.unfinished)
        names += 160 + 6 * u.how.size();
    for (const retest_result &t : r.retests)
        names += 320 + 6 * t.subtest.size();
    return 4096 + 16 * r.seeds.size() + 6 * (r.text.size() + r.host.size() + r.options.size() + r.version.size() + r.build.size()) +
           2 * names + l2_turns_room(r) + identity_room(r.processors) + (r.reports != nullptr ? report_room(*r.reports) : 0);
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
    put(out, ",\"seeds\":[");
    for (long long seed : r.seeds) {
        put_comma(out);
        put_int(out, seed);
    }
    put(out, "]");
    put(out, ",\"failed_runs\":[");
    for (const failed_run &f : r.failed_runs) {
        put_comma(out);
        put(out, "{");
        put_int_member(out, "run", f.run);
        put_int_member(out, "cpu", f.cpu, f.cpu >= 0);
        put_text_member(out, "subtest", f.subtest, !f.subtest.empty());
        put_text_member(out, "localisation", f.localisation, !f.localisation.empty());
        put_text_member(out, "l2_cpus", f.l2, !f.l2.empty());
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
    put_l2_turns_json(out, r);
    put_retests_json(out, r.retests);
    put_reproducibility_json(out, r.reproducibility);
    put_key(out, "elapsed_seconds");
    put_seconds(out, r.elapsed_ms);
    if (r.reports != nullptr) {
        put_report_json(out, *r.reports);
        put(out, ",\"warnings\":[");
        for (const std::string &warning : burn_in_warnings(r)) {
            put_comma(out);
            put_json_string(out, warning);
        }
        put(out, "]");
    }
    if (r.host_identity != nullptr)
        put_identity_json(out, r.processors, *r.host_identity);
    put(out, "}\n");
}

void put_describe_record(text_buffer &out, std::span<const processor_entry> processors, const machine_entry &machine,
                         const sensors::sensor_report &readable)
{
    put(out, "{\"schema_version\":", verdict_schema_version);
    put_identity_json(out, processors, machine);
    put_sensors_json(out, &readable);
    put(out, "}\n");
}

}  // namespace dxt
