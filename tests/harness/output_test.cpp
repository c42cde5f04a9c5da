// What a person gives and sees: the command line, which levels each mode
// shows, and a message's line in text and in JSON.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "dxttest_internal.h"
#include "harness/testinfo.h"
#include "json_check.h"

namespace {

using namespace std::string_literals;

TEST(CommandLine, EachCommandLineAsTheHarnessTakesIt)
{
    using enum dxt::command_action;
    struct row {
        std::vector<std::string> args;
        dxt::command_action action;
        const char *subopts_or_error;  // the joined -o texts, or what the error names
        bool quiet = false, debug = false, json = false;
    };
    const row rows[] = {
        {{}, run, ""},
        {{"-o", ""}, run, ""},
        {{"-ocount=1", "--options=test_mask=8", "-o", "cpc=Enabled"}, run, "count=1,test_mask=8,cpc=Enabled"},
        {{"--quiet", "-d"}, run, "", true, true},
        {{"-vd", "--json", "-o", "count=5x,bogus"}, run, "count=5x,bogus", false, true, true},
        {{"--help", "--version"}, help, ""},
        {{"--version"}, version, ""},
        {{"-h", "--bogus"}, error, "'--bogus'"},  // an error anywhere wins over help
        {{"-vx"}, error, "'-x'"},
        {{"--json=1"}, error, "'--json=1'"},
        {{"-o"}, error, "'-o'"},
        {{"-o", "count=1", "stray", "-d"}, error, "'stray'"},
        {{"-v", "-q"}, error, "-v and -q"},
    };
    for (row r : rows) {
        r.args.insert(r.args.begin(), "tarneltest");
        std::vector<char *> argv;
        for (std::string &s : r.args)
            argv.push_back(s.data());
        argv.push_back(nullptr);
        std::vector<char *> before = argv;
        dxt::command_line line = dxt::parse_command_line(static_cast<int>(argv.size()) - 1, argv.data());
        std::string name = r.args.back();
        EXPECT_EQ(argv, before) << name << ": argv was reordered";
        ASSERT_EQ(line.action, r.action) << name;
        EXPECT_NE((r.action == error ? line.error : line.subopts).find(r.subopts_or_error), std::string::npos) << name;
        if (r.action == error)
            continue;
        EXPECT_EQ(line.subopts, r.subopts_or_error) << name;
        EXPECT_EQ(line.subopts_given, std::ranges::any_of(r.args, [](auto &a) { return a.starts_with("-o"); })) << name;
        EXPECT_EQ(line.display.quiet, r.quiet) << name;
        EXPECT_EQ(line.display.debug, r.debug) << name;
        EXPECT_EQ(line.display.json, r.json) << name;
    }
}

TEST(LevelFilter, EachModeShowsItsLevels)
{
    const dxt::display_mode normal{}, quiet{true, false, false}, debug{false, true, false}, both{true, true, false};
    for (int level = 1; level <= 9; level++) {
        EXPECT_EQ(dxt::level_shown(normal, level, 0), level <= 7) << level;
        EXPECT_EQ(dxt::level_shown(quiet, level, 0), level <= 3) << level;
        EXPECT_TRUE(dxt::level_shown(debug, level, 0)) << level;
        EXPECT_EQ(dxt::level_shown(both, level, 0), level <= 3 || level >= 8) << level;
    }
    EXPECT_TRUE(dxt::level_shown(quiet, LVL_USAGE, MSG_USAGE));  // the usage, when asked for
}

std::string line_of(const dxt::message_fields &m, bool json)
{
    dxt::line_buffer line;
    dxt::put_message_line(line, m, json);
    return std::string(line.data, line.length);
}

TEST(MessageLine, TextFormWithEachSeverityWord)
{
    EXPECT_EQ(line_of({1795412418, LVL_INFO, 1, false, "l2cache", 3, 0, "Write/Read/Verify test started"}, false),
              "2026-11-23T05:40:18Z INFO cpu1 [l2cache] #3 Write/Read/Verify test started\n");
    EXPECT_EQ(line_of({-1, LVL_FATAL, -1, false, nullptr, 8011, -1, "failed"}, false),
              "1969-12-31T23:59:59Z FATAL cpu? #8011 failed\n");
    const char *words[] = {"LEVEL0", "FATAL", "FAULT", "ERROR", "LEVEL4", "LEVEL5", "USAGE", "INFO", "DEBUG", "LEVEL9"};
    for (int level = 0; level <= 9; level++)
        EXPECT_EQ(line_of({1709251199, level, 0, false, nullptr, 0, 0, "x"}, false),
                  "2024-02-29T23:59:59Z " + std::string(words[level]) + " cpu0 #0 x\n");
    // The main thread runs no subtest: its lines say so, not where it ran.
    EXPECT_EQ(line_of({0, LVL_INFO, 1, true, nullptr, 1, 0, "started"}, false), "1970-01-01T00:00:00Z INFO main #1 started\n");
    EXPECT_NE(line_of({0, LVL_INFO, 1, true, nullptr, 1, 0, "started"}, true).find(",\"cpu\":null,\"thread\":\"main\","),
              std::string::npos);
    // The usage is shown as a usage, without the line's prefix.
    EXPECT_EQ(line_of({0, LVL_USAGE, 0, false, nullptr, MSG_USAGE, 0, "usage: t [-h]\n  -h  help"}, false),
              "usage: t [-h]\n  -h  help\n");
}

TEST(MessageLine, JsonFormHasEveryKeyAndEscapesTheText)
{
    EXPECT_EQ(line_of({1795412418, 12, -1, false, "l2cache", 8000, 1, "Sub-option \"count\" C:\\"}, true),
              "{\"time\":\"2026-11-23T05:40:18Z\",\"level\":12,\"severity\":\"LEVEL12\",\"cpu\":null,"
              "\"thread\":\"worker\",\"tag\":\"l2cache\",\"number\":8000,\"exit_flag\":1,\"text\":\"Sub-option \\\"count\\\" C:\\\\\"}\n");
    // Controls escaped, UTF-8 kept, a byte of no well-formed sequence
    // (stray, overlong, cut short) replaced; the text reads back.
    std::string text = "\n\t\x01\x7f\0 caf\xc3\xa9 \xf0\x9f\x98\x80 \xff \xc0\xaf \xc3"s;
    std::string line = line_of({0, LVL_INFO, 0, false, nullptr, 0, 0, text}, true);
    EXPECT_NE(line.find("\"text\":\"\\n\\t\\u0001\\u007f\\u0000 caf\xc3\xa9 \xf0\x9f\x98\x80 \\ufffd \\ufffd\\ufffd "
                        "\\ufffd\"}\n"),
              std::string::npos)
        << line;
    std::string clean = "quote \" backslash \\ newline \n bell \x07 euro \xe2\x82\xac";
    auto parsed = json_check::parse_object_line(line_of({0, LVL_INFO, 0, false, nullptr, 0, 0, clean}, true));
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->at("text"), clean);
    // A text too long for a line is cut, and the line stays valid.
    line = line_of({0, LVL_INFO, 0, false, nullptr, 0, 0, std::string(3 * dxt::line_capacity, '"')}, true);
    ASSERT_LE(line.size(), static_cast<size_t>(dxt::line_capacity));
    parsed = json_check::parse_object_line(line);
    ASSERT_TRUE(parsed.has_value()) << line;
    EXPECT_TRUE(parsed->at("text").ends_with("[cut]"));
    // The reader itself refuses what is not JSON.
    for (const char *bad : {"{\"a\":1,\"a\":2}", "{\"a\":01}", "{\"a\":\"\t\"}", "{\"a\":tru}", "{\"a\":1} x"})
        EXPECT_FALSE(json_check::parse_object_line(bad).has_value()) << bad;
}

}  // namespace
