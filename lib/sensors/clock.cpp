// Each processor's clock (sensors.h): APERF and MPERF through the msr
// driver before and after the run, and the kernel's cpufreq view.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sensors.h"
#include "textfile.h"

namespace sensors {

namespace {

std::string cpu_folder(const std::string &root, int cpu)
{
    return root + "/sys/devices/system/cpu/cpu" + std::to_string(cpu);
}

bool read_register(int fd, bool recording, reading when, uint32_t reg, uint64_t *value)
{
    off_t at = recording ? static_cast<off_t>(when) * recording_page + 8 * static_cast<off_t>(reg) : reg;
    return pread(fd, value, sizeof *value, at) == static_cast<ssize_t>(sizeof *value);
}

}  // namespace

std::string msr_path(const std::string &root, int cpu) { return root + "/dev/cpu/" + std::to_string(cpu) + "/msr"; }

clock_counts read_clock_counts(const std::string &root, int cpu, reading when)
{
    clock_counts c;
    std::string path = msr_path("", cpu);  // as said; read under root
    int fd = open(msr_path(root, cpu).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        int error = errno;
        c.why = path + (error == ENOENT   ? " is missing: the msr module is not loaded (modprobe msr)"
                        : error == EACCES || error == EPERM
                            ? " cannot be read: reading processor registers needs root (CAP_SYS_RAWIO)"
                            : std::string(" cannot be opened: ") + strerror(error));
        return c;
    }
    struct stat st = {};
    bool recording = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    if (!recording && !S_ISCHR(st.st_mode)) {
        close(fd);
        c.why = path + " is neither the msr device nor a recording of it";
        return c;
    }
    uint64_t platform = 0;
    // The base ratio is fixed: read with the first reading only.
    if (when == reading::before && read_register(fd, recording, when, msr_platform_info, &platform) &&
        ((platform >> 8) & 0xff) != 0)
        c.platform_base_mhz = static_cast<long long>((platform >> 8) & 0xff) * 100;
    c.known = read_register(fd, recording, when, msr_aperf, &c.aperf) &&
              read_register(fd, recording, when, msr_mperf, &c.mperf);
    if (!c.known)
        c.why = path + (recording ? " holds no reading of APERF and MPERF"
                                  : " would not give APERF and MPERF: this processor, or its hypervisor, "
                                    "does not offer them");
    close(fd);
    return c;
}

long long read_cur_khz(const std::string &root, int cpu)
{
    return read_count(cpu_folder(root, cpu) + "/cpufreq/scaling_cur_freq");
}

cpufreq_view read_cpufreq(const std::string &root, int cpu)
{
    std::string folder = cpu_folder(root, cpu);
    cpufreq_view v{read_cur_khz(root, cpu), read_count(folder + "/cpufreq/cpuinfo_max_freq"),
                   read_count(folder + "/cpufreq/base_frequency"), "cpufreq base_frequency"};
    if (long long nominal = read_count(folder + "/acpi_cppc/nominal_freq"); v.base_khz <= 0 && nominal > 0) {
        v.base_khz = nominal * 1000;  // in MHz there
        v.base_from = "ACPI CPPC nominal_freq";
    }
    if (v.base_khz <= 0)
        v.base_from = "";
    return v;
}

processor_clock clock_between(int cpu, const clock_counts &before, const clock_counts &after,
                              const cpufreq_view &view)
{
    processor_clock p;
    p.cpu = cpu;
    p.cpufreq = view;
    if (before.platform_base_mhz > 0) {
        p.base_mhz = before.platform_base_mhz;
        p.base_from = "MSR_PLATFORM_INFO";
    } else if (view.base_khz > 0) {
        p.base_mhz = view.base_khz / 1000;
        p.base_from = view.base_from;
    }
    if (!before.known || !after.known) {
        p.why = !before.known ? before.why : after.why;
        return p;
    }
    // Both counters are 64 bits wide; unsigned differences survive a wrap.
    p.aperf_growth = after.aperf - before.aperf;
    p.mperf_growth = after.mperf - before.mperf;
    if (p.mperf_growth == 0)
        p.why = "MPERF did not advance over the run";
    else if (p.aperf_growth > p.mperf_growth * 16)
        p.why = "APERF grew more than 16 times as fast as MPERF: the counts cannot be trusted";
    else if (p.base_mhz <= 0)
        p.why = "the base clock is not known (no MSR_PLATFORM_INFO, cpufreq base_frequency or ACPI CPPC "
                "nominal_freq)";
    else
        p.mhz = static_cast<long long>((static_cast<unsigned __int128>(p.base_mhz) * p.aperf_growth +
                                        p.mperf_growth / 2) / p.mperf_growth);
    return p;
}

}  // namespace sensors
