// What the processors ran at and how hot they got: each processor's clock
// counters (APERF and MPERF) through the msr driver, the kernel's cpufreq
// view, and the temperature sensors of Intel's coretemp and AMD's k10temp
// hwmon drivers, mapped to the processors they cover. Everything is read
// under a root: "" for this machine, or a recording's folder laid out as
// the machine's own (dev/cpu/N/msr, sys/...). Nothing here ever fails a
// run: what cannot be read says why.
#ifndef TARNEL_SENSORS_H
#define TARNEL_SENSORS_H

#include <cstdint>
#include <string>
#include <vector>

namespace sensors {

// The registers, by their numbers (the msr driver's file offsets).
constexpr uint32_t msr_platform_info = 0xCE;  // Intel: bits 15:8, the base ratio in 100 MHz
constexpr uint32_t msr_mperf = 0xE7;          // counts at the base clock while the processor runs
constexpr uint32_t msr_aperf = 0xE8;          // counts at the clock it actually runs at

// A recording is a regular file in place of the device. Its registers
// cannot sit at their numbers, a byte apart, as the device reads them, so
// each reading is a page of its own and each register's eight bytes sit at
// eight times its number: the page before the run, then the page after.
constexpr long recording_page = 4096;
enum class reading { before = 0, after = 1 };

struct clock_counts {
    bool known = false;
    uint64_t aperf = 0, mperf = 0;
    long long platform_base_mhz = -1;  // from MSR_PLATFORM_INFO, read before the run; -1: not there (or after)
    std::string why;                   // when not known
};
// The path of a processor's registers under root ("" for the machine's own).
std::string msr_path(const std::string &root, int cpu);
clock_counts read_clock_counts(const std::string &root, int cpu, reading when);

// The kernel's cpufreq view of a processor, in kHz; -1 where it has none.
struct cpufreq_view {
    long long cur_khz = -1;   // scaling_cur_freq
    long long max_khz = -1;   // cpuinfo_max_freq
    long long base_khz = -1;  // base_frequency (intel_pstate), else acpi_cppc/nominal_freq
    const char *base_from = "";  // "cpufreq base_frequency", "ACPI CPPC nominal_freq"
};
cpufreq_view read_cpufreq(const std::string &root, int cpu);
// scaling_cur_freq alone, for sampling it during a run.
long long read_cur_khz(const std::string &root, int cpu);

// A processor's effective clock over the run: the base clock times the
// growth of APERF over that of MPERF.
struct processor_clock {
    int cpu = -1;
    long long mhz = -1;  // -1: not known, and why
    std::string why;
    uint64_t aperf_growth = 0, mperf_growth = 0;
    long long base_mhz = -1;
    const char *base_from = "";  // "MSR_PLATFORM_INFO", "cpufreq base_frequency", "ACPI CPPC nominal_freq"
    cpufreq_view cpufreq;
};
processor_clock clock_between(int cpu, const clock_counts &before, const clock_counts &after,
                              const cpufreq_view &view);

// One hwmon temperature input and the processors it covers.
struct temperature_sensor {
    std::string driver;  // "coretemp", "k10temp"
    std::string label;   // "Package id 0", "Core 3", "Tctl", "Tccd2"
    std::string input;   // the file each sample reads, in millidegrees Celsius
    std::string shown;   // the same as the machine names it, without the root
    std::vector<int> cpus;
    long long max_mc = -1, crit_mc = -1;  // the driver's own limits; -1: none given
    const char *mapping = "";  // how the processors were found, where assumed; "": from the topology
};
// Every coretemp and k10temp input under root, in the order of the hwmon
// folders and then of the inputs.
std::vector<temperature_sensor> find_temperature_sensors(const std::string &root);
// Millidegrees Celsius; -1 for an input that cannot be read.
long long read_millidegrees(const std::string &input);
// Why root has no such sensor, for the record ("" when it has some).
std::string no_sensors_why(const std::string &root);

// What a run's sensors saw, for its record.
struct temperature_span {
    temperature_sensor sensor;
    long long start_mc = -1, highest_mc = -1, end_mc = -1;
};
struct sensor_report {
    std::vector<processor_clock> clocks;  // one for each tested processor, ascending
    std::vector<temperature_span> temperatures;
    std::string temperatures_why;  // no sensor: why
    bool sampled_during_run = false;
    std::string sampling_why;  // why the sensors were read only before and after the run
    int samples = 0;
};

}  // namespace sensors

#endif
