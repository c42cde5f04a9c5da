// What the harness asks the platform and the information library about the
// machine (machine.h).
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "cpuset.h"
#include "machine.h"
#include "testinfo.h"
#include "platform.h"
#include "platform_ext.h"
#include "textfile.h"

namespace dxt {

namespace {

// Without the platform's list: every processor the C library counts, each
// either tested or offline.
void scan_configured(machine_description &m)
{
    for (long cpu = 0; cpu < sysconf(_SC_NPROCESSORS_CONF); cpu++) {
        if (p_online(static_cast<int>(cpu), P_STATUS) == P_ONLINE)
            m.tested.push_back(static_cast<int>(cpu));
        else
            m.left_out.push_back({static_cast<int>(cpu), "offline"});
    }
}

}  // namespace

namespace {

// A processor list of the recording: "" when it parses, else what is wrong.
std::string list_problem(const std::string &path)
{
    std::string text;
    std::vector<int> ids;
    if (!read_text_file(path, small_file_bytes, &text))
        return path + " is missing or not a regular file";
    if (!parse_cpu_list(text, &ids))
        return path + " is not a processor list: '" + text.substr(0, text.find('\n')).substr(0, 80) + "'";
    return "";
}

}  // namespace

std::string recorded_machine_problem(const std::string &root)
{
    std::string cpu_dir = root + "/sys/devices/system/cpu";
    struct stat status;
    if (stat(root.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        return "--sysroot " + root + " is not a directory";
    if (stat(cpu_dir.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        return "--sysroot " + root + " holds no recorded machine: " + cpu_dir + " is missing";
    std::string present = list_problem(cpu_dir + "/present");
    if (!present.empty() && !list_problem(cpu_dir + "/possible").empty())
        return "--sysroot " + root + " lists no processors: " + present;
    std::string online = list_problem(cpu_dir + "/online");
    return online.empty() ? "" : "--sysroot " + root + " lists no online processors: " + online;
}

namespace {

// A recorded machine (--sysroot): its own lists, every online processor
// tested, since the affinity of this process says nothing of it.
machine_description recorded_machine(const std::string &cpu_dir)
{
    machine_description m;
    std::vector<int> present, online;
    if (!read_cpu_list(cpu_dir + "/present", &present))
        read_cpu_list(cpu_dir + "/possible", &present);
    read_cpu_list(cpu_dir + "/online", &online);
    for (int cpu : present) {
        if (std::binary_search(online.begin(), online.end(), cpu))
            m.tested.push_back(cpu);
        else
            m.left_out.push_back({cpu, "offline"});
    }
    return m;
}

// The L2 a worker would take: descriptor 4, else 2, else the defaults.
l2_geometry planned_l2(int cpu, const char *shared)
{
    uint32_t *record = nullptr;
    uint32_t size = L2_DEFAULT_CACHE_SIZE, line = L2_DEFAULT_LINE_SIZE;
    if (dxt_tlib_get_cpu_cacheinfo(cpu, &record) == 0)
        for (int index : {4, 2}) {
            const uint32_t *d = dxt_tlib_cache_descriptor(record, index);
            if (d[CACHEINFO_SIZE] != 0) {
                size = d[CACHEINFO_SIZE];
                line = d[CACHEINFO_LINE] != 0 ? d[CACHEINFO_LINE] : L2_DEFAULT_LINE_SIZE;
                break;
            }
        }
    return announced_l2(cpu, size, line, shared);
}

}  // namespace

std::vector<processor_entry> describe_processors(const machine_description &m)
{
    std::vector<processor_entry> all;
    for (size_t i = 0; i < m.tested.size(); i++)
        all.push_back({m.tested[i], false, {}, planned_l2(m.tested[i], m.shared_cpus[i]), nullptr});
    for (const left_out_processor &p : m.left_out)
        all.push_back({p.cpu, false, {}, planned_l2(p.cpu, dxt_tlib_get_l2_shared_cpus(p.cpu)), p.reason});
    for (processor_entry &p : all)
        p.known = dxt_tlib_get_processor_identity(p.cpu, &p.id) == 0;
    std::sort(all.begin(), all.end(), [](const auto &a, const auto &b) { return a.cpu < b.cpu; });
    return all;
}

machine_entry describe_host(long long start_time, std::string_view host)
{
    machine_entry m{{}, start_time, host};
    dxt_tlib_get_machine_identity(&m.id);
    return m;
}

machine_description describe_machine()
{
    if (*dxt_tlib_sysroot() != '\0') {
        machine_description m = recorded_machine(std::string(dxt_tlib_sysroot()) + "/sys/devices/system/cpu");
        for (int cpu : m.tested)
            m.shared_cpus.push_back(dxt_tlib_get_l2_shared_cpus(cpu));
        return m;
    }
    machine_description m;
    std::vector<platform_processor> present(256);
    int count = platform_present_processors(present.data(), static_cast<int>(present.size()));
    if (count > static_cast<int>(present.size())) {
        present.resize(static_cast<size_t>(count));
        count = platform_present_processors(present.data(), count);
    }
    if (count < 0) {
        scan_configured(m);
    } else {
        present.resize(std::min(present.size(), static_cast<size_t>(count)));
        // p_online decides, as it does for the program's worker table.
        for (const platform_processor &p : present) {
            if (p_online(p.id, P_STATUS) == P_ONLINE)
                m.tested.push_back(p.id);
            else
                m.left_out.push_back({p.id, p.online != 0 ? "not-allowed" : "offline"});
        }
    }
    for (int cpu : m.tested)
        m.shared_cpus.push_back(dxt_tlib_get_l2_shared_cpus(cpu));
    return m;
}

std::vector<std::vector<int>> l2_domains(const machine_description &m)
{
    std::vector<std::vector<int>> domains;
    std::vector<bool> placed(m.tested.size());
    for (size_t i = 0; i < m.tested.size(); i++) {
        if (placed[i])
            continue;
        std::vector<int> sharing, domain;
        if (!parse_cpu_list(m.shared_cpus[i], &sharing))
            sharing = {m.tested[i]};
        for (size_t j = i; j < m.tested.size(); j++)
            if (!placed[j] && std::binary_search(sharing.begin(), sharing.end(), m.tested[j])) {
                placed[j] = true;
                domain.push_back(m.tested[j]);
            }
        if (domain.empty()) {  // a list that leaves out its own processor
            placed[i] = true;
            domain = {m.tested[i]};
        }
        domains.push_back(domain);
    }
    return domains;
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

}  // namespace dxt
