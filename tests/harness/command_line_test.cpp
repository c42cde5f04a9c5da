// The harness's command line: what each option sets, what is refused.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "dxttest_internal.h"

namespace {

dxt::command_line parse(std::initializer_list<const char *> args)
{
    std::vector<std::string> storage{"tarneltest"};
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &s : storage)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    return dxt::parse_command_line(static_cast<int>(storage.size()), argv.data());
}

TEST(CommandLine, NothingGivenRunsWithTheDefaults)
{
    dxt::command_line line = parse({});
    EXPECT_EQ(line.action, dxt::command_action::run);
    EXPECT_FALSE(line.subopts_given);
    EXPECT_EQ(line.subopts, "");
    EXPECT_FALSE(line.display.quiet);
    EXPECT_FALSE(line.display.debug);
    EXPECT_FALSE(line.display.json);
}

TEST(CommandLine, SuboptionsPassUnchangedAndRepeatsJoin)
{
    dxt::command_line line = parse({"-o", "count=5x,bogus"});
    EXPECT_EQ(line.action, dxt::command_action::run);
    EXPECT_TRUE(line.subopts_given);
    EXPECT_EQ(line.subopts, "count=5x,bogus");

    EXPECT_EQ(parse({"-ocount=1", "--options=test_mask=8", "-o", "cpc=Enabled"}).subopts,
              "count=1,test_mask=8,cpc=Enabled");
    EXPECT_EQ(parse({"-o", ""}).subopts, "");
}

TEST(CommandLine, DisplayOptions)
{
    EXPECT_TRUE(parse({"-q"}).display.quiet);
    EXPECT_TRUE(parse({"--quiet"}).display.quiet);
    EXPECT_TRUE(parse({"-d"}).display.debug);
    EXPECT_TRUE(parse({"--json"}).display.json);
    dxt::command_line line = parse({"-vd", "--json", "-o", "count=1"});
    EXPECT_EQ(line.action, dxt::command_action::run);
    EXPECT_FALSE(line.display.quiet);
    EXPECT_TRUE(line.display.debug);
    EXPECT_TRUE(line.display.json);
}

TEST(CommandLine, HelpAndVersion)
{
    EXPECT_EQ(parse({"-h"}).action, dxt::command_action::help);
    EXPECT_EQ(parse({"--help", "--version"}).action, dxt::command_action::help);
    EXPECT_EQ(parse({"--version"}).action, dxt::command_action::version);
    // An error anywhere wins over a request for help.
    EXPECT_EQ(parse({"-h", "--bogus"}).action, dxt::command_action::error);
}

TEST(CommandLine, RefusedCommandLinesSayWhatWasWrong)
{
    struct refused {
        std::initializer_list<const char *> args;
        const char *names;
    };
    for (const refused &r : {refused{{"-x"}, "'-x'"},
                             refused{{"-vx"}, "'-x'"},
                             refused{{"--bogus"}, "'--bogus'"},
                             refused{{"--json=1"}, "'--json=1'"},
                             refused{{"-o"}, "'-o'"},
                             refused{{"--options"}, "'--options'"},
                             refused{{"stray"}, "'stray'"},
                             refused{{"-o", "count=1", "stray"}, "'stray'"},
                             refused{{"-v", "-q"}, "-v and -q"}}) {
        dxt::command_line line = parse(r.args);
        EXPECT_EQ(line.action, dxt::command_action::error) << r.names;
        EXPECT_NE(line.error.find(r.names), std::string::npos) << line.error;
    }
}

TEST(CommandLine, ArgvIsLeftInItsOrder)
{
    std::vector<std::string> storage{"tarneltest", "stray", "-d"};
    std::vector<char *> argv{storage[0].data(), storage[1].data(), storage[2].data(), nullptr};
    std::vector<char *> before = argv;
    dxt::parse_command_line(3, argv.data());
    EXPECT_EQ(argv, before);
}

}  // namespace
