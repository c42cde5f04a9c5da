// What the machine's own error reporting says (hardware_reports.h).
#include "hardware_reports.h"

#include <dirent.h>
#include <sqlite3.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <sstream>

#include "cacheinfo_sources.h"
#include "textfile.h"

namespace ras {

namespace {

// The status word of a machine-check bank (MCi_STATUS).
constexpr int status_valid = 63, status_uncorrected = 61, status_deferred = 44;
constexpr int64_t cache_error_mask = 0xEF00, cache_error_code = 0x0100;  // 0000 0001 RRRR TTLL, bit 12 a filter
constexpr int64_t level_mask = 0x3, level_2 = 0x2;
// The kernel's x86 vendor codes that rasdaemon stores: AMD and Hygon use
// AMD's banks (SMCA), where the status alone cannot name the unit.
constexpr int vendor_amd = 2, vendor_hygon = 9;

bool bit(int64_t word, int n) { return (static_cast<uint64_t>(word) >> n) & 1; }

// /proc/interrupts: a header of CPU<N> columns, then one line per source.
std::string read_interrupts(const std::string &root, std::vector<processor_counts> *processors)
{
    std::string text, why;
    if (!read_text_file(root + "/proc/interrupts", table_file_bytes, &text, &why))
        return why;
    std::istringstream file(text);
    std::string header;
    if (!std::getline(file, header))
        return root + "/proc/interrupts cannot be read";
    std::istringstream columns(header);
    for (std::string name; columns >> name;)
        if (name.starts_with("CPU"))
            processors->push_back({atoi(name.c_str() + 3)});
    const std::map<std::string, int64_t processor_counts::*> kinds = {
        {"MCE:", &processor_counts::mce}, {"THR:", &processor_counts::thr},
        {"DFR:", &processor_counts::dfr}, {"TRM:", &processor_counts::trm}};
    for (std::string line; std::getline(file, line);) {
        std::istringstream fields(line);
        std::string name;
        fields >> name;
        auto kind = kinds.find(name);
        if (kind == kinds.end())
            continue;
        for (processor_counts &p : *processors) {
            std::string field;
            if (!(fields >> field) || field.find_first_not_of("0123456789") != std::string::npos)
                break;
            p.*(kind->second) = strtoll(field.c_str(), nullptr, 10);
        }
    }
    return "";
}

// The memory controllers' corrected and uncorrected counts, summed (with
// the errors they could not place on a row).
void read_edac(const std::string &root, snapshot *s)
{
    std::string dir = root + "/sys/devices/system/edac/mc";
    DIR *listing = opendir(dir.c_str());
    if (listing == nullptr)
        return;
    while (const dirent *item = readdir(listing)) {
        std::string name = item->d_name;
        if (!name.starts_with("mc") || name.size() == 2 || name.find_first_not_of("0123456789", 2) != std::string::npos)
            continue;
        for (auto [count, file] : {std::pair{&s->edac_corrected, "ce"}, {&s->edac_uncorrected, "ue"}}) {
            int64_t n = read_count(dir + "/" + name + "/" + file + "_count");
            if (n < 0)
                continue;
            int64_t noinfo = read_count(dir + "/" + name + "/" + file + "_noinfo_count");
            *count = std::max<int64_t>(*count, 0) + n + std::max<int64_t>(noinfo, 0);
        }
    }
    closedir(listing);
}

// rasdaemon's database, read-only and patient with its writer.
sqlite3 *open_database(const std::string &path, std::string *why)
{
    sqlite3 *db = nullptr;
    // A FIFO or a device would hold the open, or the reads, for ever.
    std::string not_regular;
    if (!is_regular_file(path, &not_regular)) {
        *why = "rasdaemon's database " + not_regular;
        return nullptr;
    }
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        *why = "rasdaemon's database " + path + " cannot be opened: " + (db ? sqlite3_errmsg(db) : "no memory");
        sqlite3_close(db);
        return nullptr;
    }
    sqlite3_busy_timeout(db, 2000);
    return db;
}

// How long the records of one run may take to read.
constexpr int reading_seconds = 10;

// sqlite's progress callback: non-zero ends the statement.
int past_deadline(void *deadline)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const auto *end = static_cast<const timespec *>(deadline);
    return now.tv_sec > end->tv_sec || (now.tv_sec == end->tv_sec && now.tv_nsec >= end->tv_nsec);
}

std::string column_text(sqlite3_stmt *row, int column)
{
    const unsigned char *text = sqlite3_column_text(row, column);
    return text != nullptr ? reinterpret_cast<const char *>(text) : "";
}

}  // namespace

machine_check classify(int64_t id, int cpu, int bank, int64_t status, bool amd, const std::string &bank_name,
                       const std::string &error_msg, const std::string &mcastatus_msg)
{
    machine_check m{id, cpu, bank, false, false, ""};
    m.corrected = bit(status, status_valid) && !bit(status, status_uncorrected) && !(amd && bit(status, status_deferred));
    // The status word's level where it says one; AMD's banks name the unit.
    m.l2_cache = ((status & cache_error_mask) == cache_error_code && (status & level_mask) == level_2) ||
                 (amd && bank_name.starts_with("L2 Cache"));
    for (const std::string &part : {bank_name, error_msg, mcastatus_msg})
        if (!part.empty() && m.text.find(part) == std::string::npos)
            m.text += (m.text.empty() ? "" : "; ") + part;
    return m;
}

machine_checks_since records_since(const std::string &database, int64_t after, std::string *why)
{
    machine_checks_since found;
    sqlite3 *db = open_database(database, why);
    if (db == nullptr)
        return found;
    // Columns by name: releases add theirs (ppin, microcode), and an
    // upgraded database appends them. Identical records are counted by the
    // database itself, so a storm of them costs one row here.
    sqlite3_stmt *rows = nullptr;
    const char *query = "SELECT min(id), cpu, bank, status, cpuvendor, substr(bank_name, 1, ?2), "
                        "substr(error_msg, 1, ?2), substr(mcastatus_msg, 1, ?2), count(*) FROM mce_record "
                        "WHERE id > ?1 GROUP BY cpu, bank, status, cpuvendor, 6, 7, 8 ORDER BY 1";
    if (sqlite3_prepare_v2(db, query, -1, &rows, nullptr) != SQLITE_OK) {
        *why = "rasdaemon's database " + database + " has no machine-check records: " + sqlite3_errmsg(db);
    } else {
        sqlite3_bind_int64(rows, 1, after);
        sqlite3_bind_int(rows, 2, static_cast<int>(kept_text_bytes));
        size_t kept[2] = {0, 0};  // kinds kept, uncorrected and corrected
        // However large the database, the reading ends in time: the run's
        // end waits for it.
        timespec deadline;
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += reading_seconds;
        sqlite3_progress_handler(db, 10000, past_deadline, &deadline);
        int step = SQLITE_ROW;
        while ((step = sqlite3_step(rows)) == SQLITE_ROW) {
            int vendor = sqlite3_column_int(rows, 4);
            machine_check m = classify(sqlite3_column_int64(rows, 0), sqlite3_column_int(rows, 1),
                                       sqlite3_column_int(rows, 2), sqlite3_column_int64(rows, 3),
                                       vendor == vendor_amd || vendor == vendor_hygon, column_text(rows, 5),
                                       column_text(rows, 6), column_text(rows, 7));
            m.count = sqlite3_column_int64(rows, 8);
            m.text.resize(std::min(m.text.size(), kept_text_bytes));
            auto same_kind = [&](const machine_check &k) {
                return k.cpu == m.cpu && k.bank == m.bank && k.corrected == m.corrected && k.text == m.text;
            };
            auto same = std::find_if(found.kinds.begin(), found.kinds.end(), same_kind);
            bool full = same == found.kinds.end() && kept[m.corrected] == kept_kinds;
            if (full) {
                if (m.corrected) {
                    found.not_itemised += m.count;
                    continue;
                }
                // Past the kinds kept, an uncorrected record joins its
                // processor's kind of the others.
                m = {m.id, m.cpu, -1, false, false, other_kinds, m.count};
                same = std::find_if(found.kinds.begin(), found.kinds.end(), same_kind);
            }
            if (same != found.kinds.end()) {
                same->count += m.count;
            } else {
                kept[m.corrected] += !full;
                found.kinds.push_back(m);
            }
        }
        if (step == SQLITE_INTERRUPT)
            *why = "rasdaemon's database " + database + " took longer than " + std::to_string(reading_seconds) +
                   " s to read; the machine checks it holds were not all read";
    }
    sqlite3_finalize(rows);
    sqlite3_close(db);
    return found;
}

snapshot read_snapshot(const std::string &root, const std::string &database)
{
    snapshot s;
    s.interrupts_why = read_interrupts(root, &s.processors);
    for (processor_counts &p : s.processors) {
        std::string dir = root + "/sys/devices/system/cpu/cpu" + std::to_string(p.cpu) + "/thermal_throttle/";
        p.core_throttle = read_count(dir + "core_throttle_count");
        p.package_throttle = read_count(dir + "package_throttle_count");
    }
    read_edac(root, &s);
    if (database.empty()) {
        s.database_why = "no rasdaemon database was named";
        return s;
    }
    if (sqlite3 *db = open_database(database, &s.database_why)) {
        sqlite3_stmt *newest = nullptr;
        if (sqlite3_prepare_v2(db, "SELECT coalesce(max(id), 0) FROM mce_record", -1, &newest, nullptr) == SQLITE_OK &&
            sqlite3_step(newest) == SQLITE_ROW)
            s.database_last_id = sqlite3_column_int64(newest, 0);
        else
            s.database_why = "rasdaemon's database " + database + " has no machine-check records: " + sqlite3_errmsg(db);
        sqlite3_finalize(newest);
        sqlite3_close(db);
    }
    return s;
}

}  // namespace ras
