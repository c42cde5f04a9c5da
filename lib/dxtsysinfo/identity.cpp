// Which physical part each processor is, and what the machine is: from the
// kernel's topology directory and /proc/cpuinfo of this machine, or of a
// machine recorded under a directory (dxt_tlib_use_sysroot), so that
// support staff can replay what a customer's machine says.
#include <sys/utsname.h>

#include <cstdlib>
#include <sstream>
#include <map>
#include <mutex>
#include <string>

#include "cacheinfo_sources.h"
#include "dxtsysinfo_ext.h"
#include "textfile.h"

namespace {

std::mutex identity_lock;
std::string sysroot;  // "" for this machine

// Texts handed out stay valid to the end of the process.
const char *kept(const std::string &text)
{
    static auto *texts = new std::map<std::string, std::string>;
    return (*texts).emplace(text, text).first->second.c_str();
}

std::string cpu_dir() { return sysroot.empty() ? std::string(CPU_DIR) : sysroot + "/sys/devices/system/cpu"; }

int number_or_unknown(const std::string &text, int base = 10)
{
    char *end = nullptr;
    long value = text.empty() ? -1 : strtol(text.c_str(), &end, base);
    return text.empty() || *end != '\0' ? -1 : static_cast<int>(value);
}

// /proc/cpuinfo, read once per machine (it may be a recording of
// megabytes); guarded by identity_lock.
const std::string &cpuinfo_text()
{
    static std::string text, read_for = "\n";  // no root is "\n"
    if (read_for != sysroot) {
        read_text_file(sysroot + "/proc/cpuinfo", table_file_bytes, &text);
        read_for = sysroot;
    }
    return text;
}

// One processor's block of /proc/cpuinfo, "key: value" by key.
std::map<std::string, std::string> cpuinfo_of(int cpu)
{
    std::istringstream in(cpuinfo_text());
    std::map<std::string, std::string> block;
    bool mine = false;
    for (std::string line; std::getline(in, line);) {
        size_t colon = line.find(':');
        if (colon == std::string::npos)
            continue;
        std::string key = line.substr(0, line.find_last_not_of(" \t", colon - 1) + 1);
        std::string value = colon + 2 <= line.size() ? line.substr(colon + 2) : "";
        if (key == "processor") {
            if (mine)
                break;
            mine = number_or_unknown(value) == cpu;
        }
        if (mine)
            block[key] = value;
    }
    return block;
}

}  // namespace

bool no_cpuid(int, cpuid_dump *) { return false; }
long no_sysconf(int) { return 0; }

void dxt_tlib_use_sysroot(const char *dir)
{
    static std::string root;
    {
        std::lock_guard<std::mutex> hold(identity_lock);
        sysroot = dir != nullptr ? dir : "";
        root = cpu_dir();
    }
    use_cache_sources(sysroot.empty() ? live_cache_sources() : cache_sources{root.c_str(), no_cpuid, no_sysconf});
}

const char *dxt_tlib_sysroot(void) { return kept(sysroot); }

int dxt_tlib_get_processor_identity(int cpu_id, dxt_processor_identity *identity)
{
    std::lock_guard<std::mutex> hold(identity_lock);
    std::string topology = cpu_dir() + "/cpu" + std::to_string(cpu_id) + "/topology/";
    std::map<std::string, std::string> info = cpuinfo_of(cpu_id);
    if (cpu_id < 0 || (read_first_line(topology + "core_id").empty() && info.empty()))
        return -1;
    std::string siblings = read_first_line(topology + "thread_siblings_list");
    std::string ppin = read_first_line(topology + "ppin");
    std::string microcode = info["microcode"];
    *identity = {number_or_unknown(read_first_line(topology + "physical_package_id")),
                 number_or_unknown(read_first_line(topology + "die_id")),
                 number_or_unknown(read_first_line(topology + "core_id")),
                 kept(siblings.empty() ? "unknown" : siblings),
                 kept(info["model name"]),
                 number_or_unknown(info["cpu family"]),
                 number_or_unknown(info["model"]),
                 number_or_unknown(info["stepping"]),
                 microcode.empty() ? -1 : static_cast<int64_t>(strtoll(microcode.c_str(), nullptr, 0)),
                 !ppin.empty(),
                 ppin.empty() ? 0 : strtoull(ppin.c_str(), nullptr, 0)};
    return 0;
}

void dxt_tlib_get_machine_identity(dxt_machine_identity *machine)
{
    std::lock_guard<std::mutex> hold(identity_lock);
    if (!sysroot.empty()) {
        std::string flags = " " + cpuinfo_of(0)["flags"] + " ";
        *machine = {kept(read_first_line(sysroot + "/proc/sys/kernel/osrelease")),
                    flags.size() > 2 ? int(flags.find(" hypervisor ") != std::string::npos) : -1};
        return;
    }
    utsname names;
    // CPUID leaf 1, ECX bit 31: the processor runs under a hypervisor.
    *machine = {kept(uname(&names) == 0 ? names.release : ""), static_cast<int>(run_cpuid(1, 0).ecx >> 31)};
}
