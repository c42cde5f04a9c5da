// What the machine's own error reporting saw (reports.h).
#include "reports.h"

#include <algorithm>

namespace dxt {

namespace {

int64_t growth(int64_t before, int64_t after) { return before < 0 || after < 0 ? -1 : std::max<int64_t>(after - before, 0); }

bool tested_on(std::span<const int> tested, int cpu) { return std::find(tested.begin(), tested.end(), cpu) != tested.end(); }

std::string counted(int64_t n, const char *one, const char *many) { return std::to_string(n) + " " + (n == 1 ? one : many); }

}  // namespace

hardware_report compare_reports(const ras::snapshot &before, const ras::snapshot &after, const std::string &database)
{
    hardware_report r;
    r.checked = true;
    for (const ras::processor_counts &a : after.processors) {
        auto b = std::find_if(before.processors.begin(), before.processors.end(),
                              [&](const ras::processor_counts &p) { return p.cpu == a.cpu; });
        if (b == before.processors.end())
            continue;
        r.grew.push_back({a.cpu, growth(b->mce, a.mce), growth(b->thr, a.thr), growth(b->dfr, a.dfr),
                          growth(b->trm, a.trm), growth(b->core_throttle, a.core_throttle),
                          growth(b->package_throttle, a.package_throttle)});
    }
    r.edac_corrected = growth(before.edac_corrected, after.edac_corrected);
    r.edac_uncorrected = growth(before.edac_uncorrected, after.edac_uncorrected);
    for (const std::string &why : {before.interrupts_why, after.interrupts_why})
        if (!why.empty() && std::find(r.unread.begin(), r.unread.end(), why) == r.unread.end())
            r.unread.push_back(why);
    std::string why = before.database_why.empty() ? "" : before.database_why;
    if (why.empty()) {
        ras::machine_checks_since found = ras::records_since(database, before.database_last_id, &why);
        r.machine_checks = std::move(found.kinds);
        r.machine_checks_not_itemised = found.not_itemised;
    }
    if (!why.empty())
        r.unread.push_back(why);
    return r;
}

std::vector<std::string> report_warnings(const hardware_report &r, std::span<const int> tested)
{
    std::vector<std::string> said;
    for (const ras::machine_check &m : r.machine_checks) {
        if (!m.corrected && tested_on(tested, m.cpu))
            continue;  // a failure, not a warning
        std::string kind = std::string(m.corrected ? "corrected" : "uncorrected") + (m.l2_cache ? " L2 cache error" : " error");
        said.push_back((m.count == 1 ? kind : std::to_string(m.count) + " " + kind + "s") + " on cpu" +
                       std::to_string(m.cpu) + (m.bank >= 0 ? ", bank " + std::to_string(m.bank) : "") +
                       (tested_on(tested, m.cpu) ? "" : " (not tested)") + ": " + m.text);
    }
    if (r.machine_checks_not_itemised > 0)
        said.push_back(counted(r.machine_checks_not_itemised, "more corrected machine-check record",
                               "more corrected machine-check records") +
                       " of other kinds (only the first " + std::to_string(ras::kept_kinds) + " kinds are itemised)");
    for (const ras::processor_counts &p : r.grew) {
        std::string cpu = " on cpu" + std::to_string(p.cpu);
        if (p.mce > 0)
            said.push_back(counted(p.mce, "machine-check exception", "machine-check exceptions") + cpu +
                           " (raised for uncorrected or recoverable errors)");
        if (p.thr > 0)
            said.push_back(counted(p.thr, "corrected-error threshold interrupt", "corrected-error threshold interrupts") +
                           cpu + " (corrected errors crossed a bank's threshold)");
        if (p.dfr > 0)
            said.push_back(counted(p.dfr, "deferred error", "deferred errors") + cpu + " (uncorrected, not yet consumed)");
        if (p.trm > 0 || p.core_throttle > 0 || p.package_throttle > 0)
            said.push_back("cpu" + std::to_string(p.cpu) + " was thermally throttled (" +
                           counted(std::max<int64_t>(p.trm, 0), "thermal event", "thermal events") + ", core " +
                           std::to_string(std::max<int64_t>(p.core_throttle, 0)) + " and package " +
                           std::to_string(std::max<int64_t>(p.package_throttle, 0)) + " throttlings)");
    }
    if (r.edac_corrected > 0)
        said.push_back(counted(r.edac_corrected, "corrected memory error", "corrected memory errors") +
                       " counted by the EDAC memory controllers (memory, not the cache)");
    if (r.edac_uncorrected > 0)
        said.push_back(counted(r.edac_uncorrected, "uncorrected memory error", "uncorrected memory errors") +
                       " counted by the EDAC memory controllers (memory, not the cache)");
    said.insert(said.end(), r.conditions.begin(), r.conditions.end());
    return said;
}

std::vector<const ras::machine_check *> failed_under_test(const hardware_report &r, std::span<const int> tested)
{
    std::vector<const ras::machine_check *> failed;
    for (const ras::machine_check &m : r.machine_checks)
        if (!m.corrected && tested_on(tested, m.cpu))
            failed.push_back(&m);
    return failed;
}

void put_report_json(text_buffer &out, const hardware_report &r)
{
    put(out, ",\"machine_checks\":[");
    for (const ras::machine_check &m : r.machine_checks) {
        put_comma(out);
        put(out, "{");
        put_int_member(out, "cpu", m.cpu);
        put_int_member(out, "bank", m.bank);
        put(out, m.corrected ? ",\"corrected\":true" : ",\"corrected\":false");
        put(out, m.l2_cache ? ",\"l2_cache\":true" : ",\"l2_cache\":false");
        put_text_member(out, "text", m.text);
        put_int_member(out, "count", m.count);
        put(out, "}");
    }
    put(out, "],\"hardware_counts\":{\"checked\":", r.checked ? "true" : "false", ",\"not_read\":[");
    for (const std::string &why : r.unread) {
        put_comma(out);
        put_json_string(out, why);
    }
    put(out, "]");
    put_int_member(out, "machine_checks_not_itemised", r.machine_checks_not_itemised);
    put_int_member(out, "edac_corrected", r.edac_corrected, r.edac_corrected >= 0);
    put_int_member(out, "edac_uncorrected", r.edac_uncorrected, r.edac_uncorrected >= 0);
    put(out, ",\"processors\":[");
    for (const ras::processor_counts &p : r.grew) {
        put_comma(out);
        put(out, "{");
        put_int_member(out, "cpu", p.cpu);
        each_count(p, [&](const char *key, int64_t n) { put_int_member(out, key, n, n >= 0); });
        put(out, "}");
    }
    put(out, "]}");
}

size_t report_room(const hardware_report &r)
{
    size_t room = 1024 + 256 * r.grew.size();
    for (const ras::machine_check &m : r.machine_checks)
        room += 256 + 12 * m.text.size();
    for (const std::string &why : r.unread)
        room += 6 * why.size() + 8;
    return 2 * room;
}

}  // namespace dxt
