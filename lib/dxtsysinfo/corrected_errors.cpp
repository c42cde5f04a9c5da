// Counters of corrected hardware errors: they never show as miscompares,
// so a run can only learn of them from the kernel's counts.
// The per-row counts (csrow*/ce_count) are not read: the controller's
// ce_count already sums them. /sys/devices/system/machinecheck holds the
// machine-check settings, no counts.
#include <dirent.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "dxtsysinfo_ext.h"

namespace {

constexpr const char *EDAC_CONTROLLERS = "/sys/devices/system/edac/mc";
constexpr const char *INTERRUPTS = "/proc/interrupts";
// The line of machine-check exceptions; "MCP:" counts polls, not errors.
constexpr const char *MACHINE_CHECK_LINE = "MCE:";

// A decimal count: the whole text but for surrounding blanks.
bool parse_count(const std::string &text, uint64_t *count)
{
    size_t first = text.find_first_not_of(" \t\r\n");
    size_t last = text.find_last_not_of(" \t\r\n");
    if (first == std::string::npos)
        return false;
    std::string digits = text.substr(first, last - first + 1);
    if (digits.find_first_not_of("0123456789") != std::string::npos)
        return false;
    errno = 0;
    *count = strtoull(digits.c_str(), nullptr, 10);
    return errno == 0;
}

bool read_count(const std::string &path, uint64_t *count)
{
    std::ifstream file(path);
    std::stringstream text;
    if (!(text << file.rdbuf()))
        return false;
    return parse_count(text.str(), count);
}

// "mc<digits>", the kernel's name of a memory controller.
bool is_controller(const char *name)
{
    if (strncmp(name, "mc", 2) != 0 || name[2] == '\0')
        return false;
    return strspn(name + 2, "0123456789") == strlen(name + 2);
}

// EDAC's corrected errors summed over the memory controllers. A controller
// whose ce_count cannot be read does not count as a source.
bool read_edac(const std::string &root, uint64_t *corrected)
{
    std::string dir = root + EDAC_CONTROLLERS;
    DIR *listing = opendir(dir.c_str());
    if (listing == nullptr)
        return false;
    bool available = false;
    *corrected = 0;
    while (const dirent *item = readdir(listing)) {
        if (!is_controller(item->d_name))
            continue;
        std::string controller = dir + "/" + item->d_name + "/";
        uint64_t count = 0;
        if (!read_count(controller + "ce_count", &count))
            continue;
        available = true;
        *corrected += count;
        // Errors the controller could not place on a row still happened.
        if (read_count(controller + "ce_noinfo_count", &count))
            *corrected += count;
    }
    closedir(listing);
    return available;
}

// The machine-check exceptions of /proc/interrupts, one column per
// processor, summed.
bool read_machine_checks(const std::string &root, uint64_t *machine_checks)
{
    std::ifstream file(root + INTERRUPTS);
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string name;
        if (!(fields >> name) || name != MACHINE_CHECK_LINE)
            continue;
        bool available = false;
        *machine_checks = 0;
        std::string field;
        uint64_t count = 0;
        while (fields >> field && parse_count(field, &count)) {
            *machine_checks += count;
            available = true;
        }
        return available;
    }
    return false;
}

uint64_t growth(uint64_t before, uint64_t after)
{
    return after > before ? after - before : 0;
}

}  // namespace

int read_corrected_errors(const char *root_dir, struct dxt_corrected_errors *snapshot)
{
    *snapshot = {};
    std::string root = root_dir == nullptr ? "" : root_dir;
    while (!root.empty() && root.back() == '/')
        root.pop_back();
    snapshot->edac_available = read_edac(root, &snapshot->edac_corrected);
    if (!snapshot->edac_available)
        snapshot->edac_corrected = 0;
    snapshot->mce_available = read_machine_checks(root, &snapshot->machine_checks);
    if (!snapshot->mce_available)
        snapshot->machine_checks = 0;
    snapshot->total = snapshot->edac_corrected + snapshot->machine_checks;
    return snapshot->edac_available || snapshot->mce_available;
}

uint64_t corrected_errors_increase(const struct dxt_corrected_errors *before,
                                   const struct dxt_corrected_errors *after)
{
    uint64_t increase = 0;
    if (before->edac_available && after->edac_available)
        increase += growth(before->edac_corrected, after->edac_corrected);
    if (before->mce_available && after->mce_available)
        increase += growth(before->machine_checks, after->machine_checks);
    return increase;
}
