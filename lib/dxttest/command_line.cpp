// The harness's command line:
//   tarneltest [-o SUBOPTIONS] [-v | -q] [-d] [--json] [-h] [--version]
// Only the -o texts belong to the test; everything else is the harness's.
#include <getopt.h>

#include "dxttest_internal.h"

namespace dxt {

namespace {

enum long_only_option {
    opt_json = 256,
    opt_version,
};

const option long_options[] = {
    {"options", required_argument, nullptr, 'o'},
    {"verbose", no_argument, nullptr, 'v'},
    {"quiet", no_argument, nullptr, 'q'},
    {"debug", no_argument, nullptr, 'd'},
    {"json", no_argument, nullptr, opt_json},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, opt_version},
    {nullptr, 0, nullptr, 0},
};

}  // namespace

command_line parse_command_line(int argc, char **argv)
{
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
    while ((c = getopt_long(argc, argv, "+:o:vqdh", long_options, nullptr)) != -1) {
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
    if (help)
        result.action = command_action::help;
    else if (version)
        result.action = command_action::version;
    return result;
}

}  // namespace dxt
