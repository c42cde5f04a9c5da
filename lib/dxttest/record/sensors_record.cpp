// The clock and temperature readings in the record's forms (sensors_record.h).
#include "sensors_record.h"

#include <algorithm>

#include "cpuset.h"
#include "message_line.h"

namespace dxt {

namespace {

void put_celsius_member(text_buffer &out, std::string_view key, long long mc)
{
    put_key(out, key);
    if (mc == -1)
        put(out, "null");
    else
        put_thousandths(out, mc);
}

// "45.0 °C" in text: a tenth is what the sensors resolve.
void put_degrees(text_buffer &out, long long mc)
{
    long long tenths = (mc + (mc < 0 ? -50 : 50)) / 100;
    put(out, tenths < 0 ? "-" : "", std::abs(tenths) / 10, ".", std::abs(tenths) % 10);
}

// " (max 84.0, crit 100.0)", where the driver gives them.
void put_limits(text_buffer &out, const sensors::temperature_sensor &s)
{
    if (s.crit_mc < 0 && s.max_mc < 0)
        return;
    put(out, " (");
    if (s.max_mc >= 0) {
        put(out, "max ");
        put_degrees(out, s.max_mc);
    }
    if (s.crit_mc >= 0) {
        put(out, s.max_mc >= 0 ? ", crit " : "crit ");
        put_degrees(out, s.crit_mc);
    }
    put(out, ")");
}

// A processor's reason with its own number made N, so that processors
// with the same reason are said once.
std::string reason_of_any(const sensors::processor_clock &c)
{
    std::string own = sensors::msr_path("", c.cpu);
    size_t at = c.why.find(own);
    if (at == std::string::npos)
        return c.why;
    size_t digits = std::to_string(c.cpu).size(), number = at + own.rfind(std::to_string(c.cpu));
    std::string why(c.why, 0, number);
    why += 'N';
    why.append(c.why, number + digits);
    return why;
}

bool package_wide(const sensors::temperature_sensor &s)
{
    return s.label.starts_with("Package") || s.label == "Tctl" || s.label == "Tdie" || s.label.starts_with("temp");
}

}  // namespace

std::string sensor_name(const sensors::temperature_sensor &s)
{
    // Appended piece by piece: GCC 12 at -O3 warns falsely (restrict) on a
    // chain of string concatenations.
    std::string name = s.driver;
    name += ' ';
    name += s.label;
    name += " (cpus ";
    name += format_cpu_list(s.cpus);
    name += ')';
    return name;
}

void put_sensors_json(text_buffer &out, const sensors::sensor_report *r)
{
    if (r == nullptr) {
        put(out, ",\"clock\":null,\"temperatures\":null");
        return;
    }
    put(out, ",\"clock\":[");
    for (const sensors::processor_clock &c : r->clocks) {
        put_comma(out);
        put(out, "{");
        put_int_member(out, "cpu", c.cpu);
        put_int_member(out, "effective_mhz", c.mhz, c.mhz >= 0);
        put_text_member(out, "why", c.why, !c.why.empty());
        bool counted = c.mperf_growth > 0;
        put_int_member(out, "aperf_growth", static_cast<long long>(c.aperf_growth), counted);
        put_int_member(out, "mperf_growth", static_cast<long long>(c.mperf_growth), counted);
        put_int_member(out, "base_mhz", c.base_mhz, c.base_mhz > 0);
        put_text_member(out, "base_from", c.base_from, *c.base_from != '\0');
        put_int_member(out, "cpufreq_cur_khz", c.cpufreq.cur_khz, c.cpufreq.cur_khz > 0);
        put_int_member(out, "cpufreq_max_khz", c.cpufreq.max_khz, c.cpufreq.max_khz > 0);
        put(out, "}");
    }
    put(out, "],\"temperatures\":{");
    put(out, "\"sampled_during_run\":", r->sampled_during_run ? "true" : "false");
    put_int_member(out, "samples", r->samples);
    std::string why = !r->temperatures_why.empty() ? r->temperatures_why : r->sampling_why;
    put_text_member(out, "why", why, !why.empty());
    put(out, ",\"sensors\":[");
    for (const sensors::temperature_span &t : r->temperatures) {
        put_comma(out);
        put(out, "{");
        put_text_member(out, "driver", t.sensor.driver);
        put_text_member(out, "label", t.sensor.label);
        put_text_member(out, "cpus", format_cpu_list(t.sensor.cpus));
        put_celsius_member(out, "start_celsius", t.start_mc);
        put_celsius_member(out, "highest_celsius", t.highest_mc);
        put_celsius_member(out, "end_celsius", t.end_mc);
        put_celsius_member(out, "max_celsius", t.sensor.max_mc);
        put_celsius_member(out, "crit_celsius", t.sensor.crit_mc);
        put_text_member(out, "mapping", t.sensor.mapping, *t.sensor.mapping != '\0');
        put(out, "}");
    }
    put(out, "]}");
}

void put_sensors_text(text_buffer &out, long long time, const sensors::sensor_report &r)
{
    std::vector<const sensors::processor_clock *> known;
    std::vector<int> unknown;
    // One processor's own reason, what they all share, or the first's
    // with a pointer to the record.
    std::string why, shared;
    for (const sensors::processor_clock &c : r.clocks) {
        if (c.mhz >= 0) {
            known.push_back(&c);
            continue;
        }
        unknown.push_back(c.cpu);
        if (unknown.size() == 1) {
            why = c.why;
            shared = reason_of_any(c);
        } else if (reason_of_any(c) != shared) {
            shared = why + " (the others' reasons are in the record)";
        }
    }
    if (unknown.size() > 1)
        why = shared;
    if (!r.clocks.empty()) {
        put_summary_start(out, time);
        put(out, "clock: ");
        if (!known.empty()) {
            std::sort(known.begin(), known.end(), [](auto *a, auto *b) { return a->mhz < b->mhz; });
            long long median = known[known.size() / 2]->mhz;
            put(out, "lowest ", known.front()->mhz, " MHz (cpu", known.front()->cpu, "), median ", median,
                " MHz, highest ", known.back()->mhz, " MHz (cpu", known.back()->cpu,
                "); more than a tenth below the median: ");
            std::vector<int> slow;
            for (const auto *c : known)
                if (c->mhz * 10 < median * 9)
                    slow.push_back(c->cpu);
            std::sort(slow.begin(), slow.end());
            if (slow.empty())
                put(out, "none");
            else
                put(out, slow.size() == 1 ? "cpu" : "cpus ", format_cpu_list(slow));
        }
        if (!unknown.empty())
            put(out, known.empty() ? "" : "; ", unknown.size() == 1 ? "not known on cpu" : "not known on cpus ",
                format_cpu_list(unknown), ": ", why);
        put(out, "\n");
    }
    bool cpufreq = std::any_of(r.clocks.begin(), r.clocks.end(), [](const auto &c) { return c.cpufreq.cur_khz > 0; });
    if (cpufreq) {
        put_summary_start(out, time);
        put(out, "cpufreq (scaling_cur_freq during the run, of cpuinfo_max_freq):");
        for (const sensors::processor_clock &c : r.clocks)
            if (c.cpufreq.cur_khz > 0)
                put(out, &c == r.clocks.data() ? " cpu" : ", cpu", c.cpu, " ", c.cpufreq.cur_khz / 1000, " of ",
                    c.cpufreq.max_khz > 0 ? std::to_string(c.cpufreq.max_khz / 1000) : "?", " MHz");
        put(out, "\n");
    }
    put_summary_start(out, time);
    put(out, "temperature: ");
    if (r.temperatures.empty()) {
        put(out, "not read: ", r.temperatures_why, "\n");
        return;
    }
    // Every sensor on a small machine; on a large one the packages' and
    // the three hottest others'.
    std::vector<const sensors::temperature_span *> shown;
    for (const sensors::temperature_span &t : r.temperatures)
        if (r.temperatures.size() <= 8 || package_wide(t.sensor))
            shown.push_back(&t);
    if (r.temperatures.size() > 8) {
        std::vector<const sensors::temperature_span *> others;
        for (const sensors::temperature_span &t : r.temperatures)
            if (!package_wide(t.sensor))
                others.push_back(&t);
        std::sort(others.begin(), others.end(), [](auto *a, auto *b) { return a->highest_mc > b->highest_mc; });
        shown.insert(shown.end(), others.begin(), others.begin() + std::min<size_t>(3, others.size()));
    }
    for (const sensors::temperature_span *t : shown) {
        put(out, t == shown.front() ? "" : "; ", sensor_name(t->sensor), " start ");
        put_degrees(out, t->start_mc);
        put(out, ", highest ");
        put_degrees(out, t->highest_mc);
        put(out, ", end ");
        put_degrees(out, t->end_mc);
        put(out, " °C");
        put_limits(out, t->sensor);
    }
    if (shown.size() < r.temperatures.size())
        put(out, "; ", r.temperatures.size() - shown.size(), " more in the record");
    if (!r.sampling_why.empty())
        put(out, "; ", r.sampling_why);
    put(out, "\n");
}

void put_sensors_described(text_buffer &out, const sensors::sensor_report &r)
{
    // Processors that say the same, together.
    for (size_t i = 0, next; i < r.clocks.size(); i = next) {
        const sensors::processor_clock &c = r.clocks[i];
        std::vector<int> cpus;
        for (next = i; next < r.clocks.size(); next++) {
            const sensors::processor_clock &d = r.clocks[next];
            if (reason_of_any(d) != reason_of_any(c) || d.base_mhz != c.base_mhz ||
                d.cpufreq.cur_khz != c.cpufreq.cur_khz || d.cpufreq.max_khz != c.cpufreq.max_khz)
                break;
            cpus.push_back(d.cpu);
        }
        put(out, cpus.size() == 1 ? "cpu" : "cpus ", format_cpu_list(cpus), ": clock from APERF and MPERF: ",
            c.why.empty() ? "readable" : cpus.size() == 1 ? c.why : reason_of_any(c));
        if (c.base_mhz > 0)
            put(out, "; base ", c.base_mhz, " MHz from ", c.base_from);
        if (c.cpufreq.cur_khz > 0 || c.cpufreq.max_khz > 0)
            put(out, "; cpufreq now ", c.cpufreq.cur_khz / 1000, " of ", c.cpufreq.max_khz / 1000, " MHz");
        put(out, "\n");
    }
    if (r.temperatures.empty())
        put(out, "temperature: not read: ", r.temperatures_why, "\n");
    for (const sensors::temperature_span &t : r.temperatures) {
        put(out, "temperature: ", sensor_name(t.sensor), " from ", t.sensor.shown, ", now ");
        put_degrees(out, t.end_mc);
        put(out, " °C");
        put_limits(out, t.sensor);
        if (*t.sensor.mapping != '\0')
            put(out, "; ", t.sensor.mapping);
        put(out, "\n");
    }
}

size_t sensors_room(const sensors::sensor_report *r)
{
    if (r == nullptr)
        return 64;
    size_t room = 1024 + r->temperatures_why.size() * 6 + r->sampling_why.size() * 6;
    for (const sensors::processor_clock &c : r->clocks)
        room += 400 + 6 * c.why.size();
    for (const sensors::temperature_span &t : r->temperatures)
        room += 400 + 6 * (t.sensor.label.size() + t.sensor.input.size() + t.sensor.driver.size()) +
                8 * t.sensor.cpus.size();
    return room;
}

std::vector<std::string> sensor_warnings(const sensors::sensor_report &r)
{
    std::vector<std::string> said;
    for (const sensors::temperature_span &t : r.temperatures) {
        if (t.sensor.crit_mc < 0 || t.highest_mc < t.sensor.crit_mc)
            continue;
        line_buffer line;
        put(line, sensor_name(t.sensor), " reached ");
        put_degrees(line, t.highest_mc);
        put(line, " °C, at or above its critical ");
        put_degrees(line, t.sensor.crit_mc);
        put(line, " °C");
        said.emplace_back(line.data, line.length);
    }
    return said;
}

}  // namespace dxt
