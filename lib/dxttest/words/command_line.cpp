// The harness's command line:
//   tarneltest [-o SUBOPTIONS] [-v | -q] [-d] [--json]
//              [--duration TIME] [--runs N] [--keep-going] [--timeout TIME]
//              [--retest N] [--ras-db PATH] [--metrics FILE] [--describe]
//              [--sysroot DIR] [--localise TIME] [--seed N]
//              [--one-l2-at-a-time] [--sensors-from DIR]
//              [-h] [--version]
// Only the -o texts belong to the test; everything else is the harness's.
#include <getopt.h>

#include <cerrno>
#include <cstdlib>

#include <string_view>

#include "command_line.h"

namespace dxt {

namespace {

enum long_only_option {
    opt_json = 256,
    opt_version,
    opt_duration,
    opt_runs,
    opt_keep_going,
    opt_timeout,
    opt_retest,
    opt_describe,
    opt_sysroot,
    opt_ras_db,
    opt_metrics,
    opt_failures_fd,
    opt_localise,
    opt_seed,
    opt_one_l2,
    opt_sensors_from,
};

// Longer than any burn-in anybody runs, and far from overflowing the
// milliseconds the burn-in counts in.
constexpr long long max_seconds = 100LL * 366 * 24 * 3600;
constexpr long long max_runs = 1000000000;
constexpr long long max_retests = 1000;

// Digits and an optional unit (s, m or h; for runs none), positive and at
// most `limit` once multiplied out; 0 for anything else.
long long positive_amount(const char *text, bool units, long long limit)
{
    long long value = 0;
    const char *p = text;
    for (; *p >= '0' && *p <= '9'; p++) {
        value = value * 10 + (*p - '0');
        if (value > limit)
            return 0;
    }
    long long unit = 1;
    if (units && p != text && *p != '\0' && p[1] == '\0') {
        unit = *p == 's' ? 1 : *p == 'm' ? 60 : *p == 'h' ? 3600 : 0;
        p++;
    }
    if (p == text || *p != '\0' || unit == 0 || value > limit / unit)
        return 0;
    return value * unit;
}

}  // namespace

command_line parse_command_line(int argc, char **argv)
{
    static constexpr option long_options[] = {
        {"options", required_argument, nullptr, 'o'},
        {"verbose", no_argument, nullptr, 'v'},
        {"quiet", no_argument, nullptr, 'q'},
        {"debug", no_argument, nullptr, 'd'},
        {"json", no_argument, nullptr, opt_json},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, opt_version},
        {"duration", required_argument, nullptr, opt_duration},
        {"runs", required_argument, nullptr, opt_runs},
        {"keep-going", no_argument, nullptr, opt_keep_going},
        {"timeout", required_argument, nullptr, opt_timeout},
        {"retest", required_argument, nullptr, opt_retest},
        {"describe", no_argument, nullptr, opt_describe},
        {"sysroot", required_argument, nullptr, opt_sysroot},
        {"ras-db", required_argument, nullptr, opt_ras_db},
        {"metrics", required_argument, nullptr, opt_metrics},
        {"localise", required_argument, nullptr, opt_localise},
        {"seed", required_argument, nullptr, opt_seed},
        {"one-l2-at-a-time", no_argument, nullptr, opt_one_l2},
        {"sensors-from", required_argument, nullptr, opt_sensors_from},
        // A burn-in's own word to its runs, never a person's (so not in the
        // usage): the pipe that takes each failure of the run's verdict.
        {"failures-fd", required_argument, nullptr, opt_failures_fd},
        {nullptr, 0, nullptr, 0},
    };
    command_line result;
    bool verbose = false;
    bool help = false;
    bool version = false;

    // 0 makes glibc start over, so a second parse (in the tests) sees all
    // of its argv; "+" keeps argv in its order; ":" reports a missing value
    // apart from an unknown option; opterr 0 leaves the wording to us.
    optind = 0;
    opterr = 0;
    int c;
    // The first option given that only a run takes, for --describe to refuse.
    std::string run_option;
    while ((c = getopt_long(argc, argv, "+:o:vqdh", long_options, nullptr)) != -1) {
        if (run_option.empty() && (c == 'o' || c == opt_duration || c == opt_runs || c == opt_keep_going ||
                                   c == opt_timeout || c == opt_retest || c == opt_ras_db || c == opt_localise ||
                                   c == opt_seed || c == opt_one_l2 || c == opt_sensors_from))
            run_option = argv[optind - 1][1] == '-' ? argv[optind - 1] : "-o";
        switch (c) {
        case 'o':
            if (result.subopts_given)
                result.subopts += ',';
            result.subopts += optarg;
            result.subopts_given = true;
            break;
        case 'v':
            verbose = true;
            break;
        case 'q':
            result.display.quiet = true;
            break;
        case 'd':
            result.display.debug = true;
            break;
        case opt_json:
            result.display.json = true;
            break;
        case 'h':
            help = true;
            break;
        case opt_version:
            version = true;
            break;
        case opt_duration:
        case opt_timeout:
        case opt_runs:
        case opt_retest: {
            bool time = c == opt_duration || c == opt_timeout;
            const char *name = c == opt_duration  ? "--duration"
                               : c == opt_timeout ? "--timeout"
                               : c == opt_runs    ? "--runs"
                                                  : "--retest";
            long long amount =
                positive_amount(optarg, time, time ? max_seconds : c == opt_runs ? max_runs : max_retests);
            if (amount == 0) {
                result.action = command_action::error;
                // Say the real bounds: a number too large is no "zero".
                long long most = time ? max_seconds / 3600 : c == opt_runs ? max_runs : max_retests;
                result.error = std::string(name) +
                               (time ? " needs a time above zero and at most " + std::to_string(most) +
                                           "h, in seconds or with a unit (90, 45s, 30m, 2h), not '"
                                     : " needs a number from 1 to " + std::to_string(most) + ", not '") +
                               optarg + "'";
                return result;
            }
            if (c == opt_timeout && amount < min_timeout_seconds) {
                result.action = command_action::error;
                result.error = "--timeout needs at least " + std::to_string(min_timeout_seconds) +
                               " s: a run pauses 2 s of its own, so a shorter limit cannot be met, not '" + optarg +
                               "'";
                return result;
            }
            if (c == opt_duration)
                result.burn_in_seconds = amount;
            else if (c == opt_timeout)
                result.timeout_seconds = amount;
            else if (c == opt_runs)
                result.burn_in_runs = amount;
            else
                result.retests = static_cast<int>(amount);
            break;
        }
        case opt_localise:
            // 0 switches the sweep off; anything else is a time as --timeout takes it.
            result.localise_seconds = std::string_view(optarg) == "0" ? 0 : positive_amount(optarg, true, 3600);
            if (result.localise_seconds == 0 && std::string_view(optarg) != "0") {
                result.action = command_action::error;
                result.error = std::string("--localise needs 0 (no sweep) or a time of at most 1h, in seconds or "
                                           "with a unit (5, 30s, 2m), not '") +
                               optarg + "'";
                return result;
            }
            break;
        case opt_seed: {
            char *end = nullptr;
            errno = 0;
            unsigned long long value = strtoull(optarg, &end, 10);
            if (*optarg < '0' || *optarg > '9' || *end != '\0' || errno != 0 ||
                value > static_cast<unsigned long long>(max_seed)) {
                result.action = command_action::error;
                result.error = "--seed needs a number from 0 to " + std::to_string(max_seed) + ", not '" + optarg + "'";
                return result;
            }
            result.seed = static_cast<long long>(value);
            break;
        }
        case opt_keep_going:
            result.keep_going = true;
            break;
        case opt_one_l2:
            result.one_l2_at_a_time = true;
            break;
        case opt_sensors_from:
            result.sensors_from = optarg;
            if (result.sensors_from.empty()) {
                result.action = command_action::error;
                result.error = "--sensors-from needs a recording's folder, not ''";
                return result;
            }
            break;
        case opt_describe:
            result.describe = true;
            break;
        case opt_sysroot:
            result.sysroot = optarg;
            break;
        case opt_ras_db:
            result.ras_database = optarg;
            if (result.ras_database.empty()) {
                result.action = command_action::error;
                result.error = "--ras-db needs the database's path, not ''";
                return result;
            }
            break;
        case opt_metrics:
            result.metrics = optarg;
            if (result.metrics.empty() || result.metrics.back() == '/') {
                result.action = command_action::error;
                result.error = std::string("--metrics needs a file name, not '") + optarg + "'";
                return result;
            }
            break;
        case opt_failures_fd:
            result.failures_fd = static_cast<int>(positive_amount(optarg, false, 1 << 20));
            break;
        case ':':
            result.action = command_action::error;
            result.error = std::string("option '") + argv[optind - 1] + "' needs a value";
            return result;
        default:
            result.action = command_action::error;
            // getopt leaves optopt 0 for an unknown long option and the
            // option's own value for a known one given a value it does not
            // take; either is named as written. An unknown short letter may
            // sit inside a cluster, so only the letter is named.
            if (optopt == 0 || optopt >= 256 || std::string_view("ovqdh").find(static_cast<char>(optopt)) !=
                                                     std::string_view::npos)
                result.error = std::string("unrecognised option '") + argv[optind - 1] + "'";
            else
                result.error = std::string("unknown option '-") + static_cast<char>(optopt) + "'";
            return result;
        }
    }
    if (optind < argc) {
        result.action = command_action::error;
        result.error = std::string("unexpected argument '") + argv[optind] + "'";
        return result;
    }
    if (verbose && result.display.quiet) {
        result.action = command_action::error;
        result.error = "-v and -q exclude each other";
        return result;
    }
    if (result.keep_going && result.burn_in_seconds == 0 && result.burn_in_runs == 0 && !result.one_l2_at_a_time) {
        result.action = command_action::error;
        result.error = "--keep-going belongs to a burn-in or --one-l2-at-a-time: give --duration, --runs or "
                       "--one-l2-at-a-time";
        return result;
    }
    if (!result.sysroot.empty() && !result.describe) {
        result.action = command_action::error;
        result.error = "--sysroot reads a recorded machine for --describe: no run can test it";
        return result;
    }
    if (!result.metrics.empty() && result.describe) {
        result.action = command_action::error;
        result.error = "--metrics records a run's result: --describe runs nothing";
        return result;
    }
    if (!run_option.empty() && result.describe) {
        result.action = command_action::error;
        result.error = run_option.substr(0, run_option.find('=')) + " belongs to a run: --describe runs nothing";
        return result;
    }
    if (help)
        result.action = command_action::help;
    else if (version)
        result.action = command_action::version;
    return result;
}

}  // namespace dxt
