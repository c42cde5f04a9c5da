// The harness's command line (command_line.cpp shows its form). Only the -o
// texts belong to the test; everything else is the harness's.
#ifndef TARNEL_DXTTEST_COMMAND_LINE_H
#define TARNEL_DXTTEST_COMMAND_LINE_H

#include <string>

#include "message_line.h"

namespace dxt {

// A run's time limit unless --timeout says otherwise: far beyond the
// longest healthy run (count=1024 over a 2 MiB L2 takes about 20 s).
constexpr long long default_timeout_seconds = 3600;
// The least limit a run can meet: it pauses one second after starting its
// workers and one before its end.
constexpr long long min_timeout_seconds = 3;

// How long the sweep that localises a fault may take on each failing
// processor unless --localise says otherwise (0: no sweep).
constexpr long long default_localise_seconds = 5;
// The C library's generator starts from an all-zero state, which seed48
// with 0 sets again: a run without --seed draws as the program always did.
constexpr long long default_seed = 0;
constexpr long long max_seed = (1LL << 48) - 1;  // the generator's whole state

enum class command_action { run, help, version, error };
struct command_line {
    command_action action = command_action::run;
    display_mode display;
    bool subopts_given = false;
    std::string subopts;  // the -o texts, joined by commas when repeated
    std::string error;    // what was wrong, for action == error
    // A burn-in: runs until either limit (0: none) is reached.
    long long burn_in_seconds = 0;
    long long burn_in_runs = 0;
    bool keep_going = false;
    long long timeout_seconds = default_timeout_seconds;  // the watchdog's limit for a whole run
    int retests = 0;  // after a fault: the failing subtest again, this often
    long long localise_seconds = default_localise_seconds;
    long long seed = -1;  // --seed; -1: not given
    bool one_l2_at_a_time = false;  // each L2's processors in turn, the rest idle
    std::string sensors_from;  // a recording of the clock registers, cpufreq and hwmon; "": this machine's
    bool describe = false;  // say what a run would test, and test nothing
    std::string sysroot;    // a recorded machine to read instead of this one
    std::string ras_database;  // rasdaemon's database, if not where its service keeps it
    std::string metrics;       // where the result goes for Prometheus; "": nowhere
    int failures_fd = 0;       // a burn-in's run: the pipe its failures also go to; 0: none
};

// Parses with getopt_long (resetting its state first); argv is not changed.
command_line parse_command_line(int argc, char **argv);

}  // namespace dxt

#endif
