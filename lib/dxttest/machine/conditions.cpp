// The conditions a run ran under (conditions.h).
#include "conditions.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "cpuset.h"
#include "textfile.h"

namespace dxt {

namespace {

// A kernel file's lines, read as every input is (textfile.h).
std::istringstream lines_of(const std::string &path)
{
    std::string text;
    read_text_file(path, small_file_bytes, &text);
    return std::istringstream(text);
}

// The directory of the process's CPU cgroup: cgroup v2's unified tree, or
// v1's cpu controller.
std::string cpu_cgroup()
{
    std::istringstream file = lines_of("/proc/self/cgroup");
    for (std::string line; std::getline(file, line);) {
        size_t first = line.find(':'), second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos)
            continue;
        std::string controllers = line.substr(first + 1, second - first - 1), path = line.substr(second + 1);
        if (controllers.empty() && access(("/sys/fs/cgroup" + path + "/cpu.stat").c_str(), R_OK) == 0)
            return "/sys/fs/cgroup" + path;
        std::istringstream names(controllers);
        for (std::string name; std::getline(names, name, ',');)
            if (name == "cpu")
                for (const char *mount : {"/sys/fs/cgroup/cpu", "/sys/fs/cgroup/cpu,cpuacct"})
                    if (access((mount + path + "/cpu.stat").c_str(), R_OK) == 0)
                        return mount + path;
    }
    return "";
}

// Other processes named tarneltest whose affinity meets ours, but for this
// process's own family (a burn-in's runs, and the burn-in a run belongs to).
std::vector<std::string> other_instances(std::span<const int> tested)
{
    std::vector<std::string> found;
    pid_t self = getpid(), parent = getppid();
    DIR *proc = opendir("/proc");
    if (proc == nullptr)
        return found;
    while (const dirent *entry = readdir(proc)) {
        pid_t pid = atoi(entry->d_name);
        std::string dir = std::string("/proc/") + entry->d_name;
        if (pid <= 0 || pid == self || pid == parent || read_first_line(dir + "/comm") != "tarneltest")
            continue;
        std::istringstream status = lines_of(dir + "/status");
        std::string ppid, allowed;
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("PPid:"))
                ppid = line.substr(line.find_first_not_of(" \t", 5));
            if (line.starts_with("Cpus_allowed_list:"))
                allowed = line.substr(line.find_first_not_of(" \t", 18));
        }
        std::vector<int> cpus, shared;
        if (atoi(ppid.c_str()) == self || !parse_cpu_list(allowed, &cpus))
            continue;
        for (int cpu : cpus)
            if (std::find(tested.begin(), tested.end(), cpu) != tested.end())
                shared.push_back(cpu);
        if (!shared.empty())
            found.push_back("pid " + std::to_string(pid) + " (cpus " + format_cpu_list(shared) + ")");
    }
    closedir(proc);
    return found;
}

}  // namespace

conditions read_conditions(std::span<const int> tested)
{
    conditions c;
    if (std::string cgroup = cpu_cgroup(); !cgroup.empty()) {
        std::istringstream stat = lines_of(cgroup + "/cpu.stat");
        for (std::string key; stat >> key;) {
            int64_t value = 0;
            stat >> value;
            if (key == "nr_periods")
                c.periods = value;
            else if (key == "nr_throttled")
                c.throttled_periods = value;
        }
        std::string v2 = read_first_line(cgroup + "/cpu.max"), v1 = read_first_line(cgroup + "/cpu.cfs_quota_us");
        if (!v2.empty() && !v2.starts_with("max"))
            c.quota = "cpu.max " + v2;
        else if (!v1.empty() && v1 != "-1")
            c.quota = "cpu.cfs_quota_us " + v1 + " of cpu.cfs_period_us " + read_first_line(cgroup + "/cpu.cfs_period_us");
    }
    c.others = other_instances(tested);
    return c;
}

std::vector<std::string> condition_warnings(const conditions &before, const conditions &after, int lock_failures)
{
    std::vector<std::string> said;
    if (lock_failures > 0) {
        rlimit limit{};
        getrlimit(RLIMIT_MEMLOCK, &limit);
        said.push_back(std::to_string(lock_failures) + (lock_failures == 1 ? " buffer" : " buffers") +
                       " could not be locked in memory (mlock refused; the memory-lock limit is " +
                       (limit.rlim_cur == RLIM_INFINITY ? std::string("unlimited")
                                                        : std::to_string(limit.rlim_cur / 1024) + " KiB") +
                       "): the test ran on memory that may have been paged");
    }
    int64_t throttled = after.throttled_periods - before.throttled_periods, periods = after.periods - before.periods;
    if (before.throttled_periods >= 0 && after.throttled_periods >= 0 && throttled > 0)
        said.push_back("CPU time was throttled by a cgroup quota (" + after.quota + ") in " + std::to_string(throttled) +
                       " of " + std::to_string(periods) + " periods");
    std::vector<std::string> others = before.others;
    for (const std::string &other : after.others)
        if (std::find(others.begin(), others.end(), other) == others.end())
            others.push_back(other);
    for (const std::string &other : others)
        said.push_back("another tarneltest, " + other + ", was testing the same processors at the same time");
    return said;
}

}  // namespace dxt
