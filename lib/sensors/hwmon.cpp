// The hwmon temperature sensors of coretemp and k10temp (sensors.h), and
// the processors each covers, from the topology under the same root.
//
// coretemp: one hwmon folder per package, "Package id P" for the package
// and "Core C" for each core (topology/core_id) of that package.
// k10temp: one per package (its PCI device 18.3, 19.3, ...), "Tctl" (and
// "Tdie") for the package and "TccdN" for the N-th core complex die, taken
// to be the N-th group of processors sharing an L3 (one L3 per die, as on
// Zen 3 and later; a Zen 2 die holds two).
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>

#include "cpuset.h"
#include "sensors.h"
#include "textfile.h"

namespace sensors {

namespace {

constexpr int max_inputs = 64;  // temp1 .. temp64

struct topology {
    std::vector<int> cpus;
    std::map<int, int> package, core;      // by processor
    std::map<int, std::string> l3;         // by processor: who shares its L3
};

topology read_topology(const std::string &root)
{
    topology t;
    std::string base = root + "/sys/devices/system/cpu";
    if (!read_cpu_list(base + "/online", &t.cpus) && !read_cpu_list(base + "/present", &t.cpus))
        return t;
    for (int cpu : t.cpus) {
        std::string folder = base + "/cpu" + std::to_string(cpu);
        t.package[cpu] = static_cast<int>(read_count(folder + "/topology/physical_package_id"));
        t.core[cpu] = static_cast<int>(read_count(folder + "/topology/core_id"));
        t.l3[cpu] = read_first_line(folder + "/cache/index3/shared_cpu_list");
    }
    return t;
}

std::vector<int> package_cpus(const topology &t, int package)
{
    std::vector<int> cpus;
    for (int cpu : t.cpus)
        if (t.package.at(cpu) == package)
            cpus.push_back(cpu);
    return cpus;
}

// The packages in ascending order.
std::vector<int> packages(const topology &t)
{
    std::vector<int> all;
    for (int cpu : t.cpus)
        if (std::find(all.begin(), all.end(), t.package.at(cpu)) == all.end())
            all.push_back(t.package.at(cpu));
    std::sort(all.begin(), all.end());
    return all;
}

// The hwmon folders of one driver, in the order of their devices.
struct hwmon_folder {
    std::string path, device;
    size_t root_length;
};

std::vector<hwmon_folder> folders_of(const std::string &root, const std::string &driver)
{
    std::vector<hwmon_folder> found;
    std::string base = root + "/sys/class/hwmon";
    DIR *dir = opendir(base.c_str());
    if (dir == nullptr)
        return found;
    while (dirent *e = readdir(dir)) {
        std::string path = base + "/" + e->d_name;
        if (e->d_name[0] == '.' || read_first_line(path + "/name") != driver)
            continue;
        char link[512] = {};
        ssize_t n = readlink((path + "/device").c_str(), link, sizeof link - 1);
        std::string device = n > 0 ? std::string(link, static_cast<size_t>(n)) : "";
        found.push_back({path, device.substr(device.rfind('/') + 1), root.size()});
    }
    closedir(dir);
    std::sort(found.begin(), found.end(), [](const hwmon_folder &a, const hwmon_folder &b) {
        return a.device != b.device ? a.device < b.device : a.path < b.path;
    });
    return found;
}

// Each input of a folder, with its label (the input's own name where it
// has none) and limits; no processors yet.
std::vector<temperature_sensor> inputs_of(const hwmon_folder &folder, const char *driver)
{
    std::vector<temperature_sensor> inputs;
    for (int i = 1; i <= max_inputs; i++) {
        std::string stem = folder.path + "/temp" + std::to_string(i);
        if (access((stem + "_input").c_str(), F_OK) != 0)
            continue;
        std::string label = read_first_line(stem + "_label");
        temperature_sensor s{driver, label.empty() ? "temp" + std::to_string(i) : label, stem + "_input",
                             stem.substr(folder.root_length) + "_input", {}, read_count(stem + "_max"),
                             read_count(stem + "_crit")};
        inputs.push_back(s);
    }
    return inputs;
}

int number_after(const std::string &label, const char *prefix)
{
    size_t n = strlen(prefix);
    return label.compare(0, n, prefix) == 0 ? atoi(label.c_str() + n) : -1;
}

void add_coretemp(const topology &t, std::vector<temperature_sensor> &out, const std::string &root)
{
    for (const hwmon_folder &f : folders_of(root, "coretemp")) {
        // The package: its own input's label, else the device (coretemp.P).
        int package = number_after(f.device, "coretemp.");
        std::vector<temperature_sensor> inputs = inputs_of(f, "coretemp");
        for (const temperature_sensor &s : inputs)
            if (int p = number_after(s.label, "Package id "); p >= 0)
                package = p;
        for (temperature_sensor &s : inputs) {
            if (int core = number_after(s.label, "Core "); core >= 0) {
                for (int cpu : package_cpus(t, std::max(package, 0)))
                    if (t.core.at(cpu) == core)
                        s.cpus.push_back(cpu);
            } else {
                s.cpus = package_cpus(t, std::max(package, 0));
            }
            if (package < 0)
                s.mapping = "assumed: package 0 (the folder names no package)";
            out.push_back(s);
        }
    }
}

void add_k10temp(const topology &t, std::vector<temperature_sensor> &out, const std::string &root)
{
    std::vector<int> all = packages(t);
    std::vector<hwmon_folder> folders = folders_of(root, "k10temp");
    for (size_t i = 0; i < folders.size(); i++) {
        int package = i < all.size() ? all[i] : 0;
        std::vector<int> cpus = package_cpus(t, package);
        // The package's L3 groups, in the order of their first processor.
        std::vector<std::string> dies;
        for (int cpu : cpus)
            if (!t.l3.at(cpu).empty() && std::find(dies.begin(), dies.end(), t.l3.at(cpu)) == dies.end())
                dies.push_back(t.l3.at(cpu));
        for (temperature_sensor &s : inputs_of(folders[i], "k10temp")) {
            int die = number_after(s.label, "Tccd");
            if (die >= 1 && static_cast<size_t>(die) <= dies.size() && parse_cpu_list(dies[die - 1], &s.cpus)) {
                s.mapping = "assumed: core complex die N shares the N-th L3 of the package";
            } else {
                s.cpus = cpus;
                if (die >= 1)
                    s.mapping = "assumed: the whole package (no L3 group for this die)";
            }
            if (folders.size() > 1 && folders[i].device.empty())
                s.mapping = "assumed: the k10temp folders in the order of the packages";
            out.push_back(s);
        }
    }
}

}  // namespace

std::vector<temperature_sensor> find_temperature_sensors(const std::string &root)
{
    std::vector<temperature_sensor> found;
    topology t = read_topology(root);
    if (t.cpus.empty())
        return found;
    add_coretemp(t, found, root);
    add_k10temp(t, found, root);
    return found;
}

long long read_millidegrees(const std::string &input)
{
    long long value = -1;
    return read_decimal(input, &value) ? value : -1;
}

std::string no_sensors_why(const std::string &root)
{
    if (access((root + "/sys/class/hwmon").c_str(), F_OK) != 0)
        return "/sys/class/hwmon is missing: this machine shows no hardware sensors (a virtual machine's, often)";
    return "no coretemp or k10temp sensor under /sys/class/hwmon (modprobe coretemp, or k10temp)";
}

}  // namespace sensors
