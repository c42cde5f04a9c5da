// The harness's line assembly: numbers, UTC times, JSON escaping, the text
// and JSON forms of a message and of a verdict, and which levels each mode
// shows.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "dxttest_internal.h"
#include "harness/testinfo.h"
#include "json_check.h"

namespace {

std::string str(const dxt::line_buffer &line) { return std::string(line.data, line.length); }

template <class F>
std::string built(F put_into)
{
    dxt::line_buffer line;
    put_into(line);
    return str(line);
}

TEST(LineNumbers, IntegersHexAndElapsed)
{
    EXPECT_EQ(built([](auto &l) { dxt::put_int(l, 0); }), "0");
    EXPECT_EQ(built([](auto &l) { dxt::put_int(l, 1048576); }), "1048576");
    EXPECT_EQ(built([](auto &l) { dxt::put_int(l, -17); }), "-17");
    EXPECT_EQ(built([](auto &l) { dxt::put_int(l, LLONG_MIN); }), "-9223372036854775808");
    EXPECT_EQ(built([](auto &l) { dxt::put_hex(l, 0); }), "0x0");
    EXPECT_EQ(built([](auto &l) { dxt::put_hex(l, 0x7f12ab0040ULL); }), "0x7f12ab0040");
    EXPECT_EQ(built([](auto &l) { dxt::put_hex(l, ~0ULL); }), "0xffffffffffffffff");
    EXPECT_EQ(built([](auto &l) { dxt::put_elapsed(l, 3249); }), "3.2 s");
    EXPECT_EQ(built([](auto &l) { dxt::put_elapsed(l, 3250); }), "3.3 s");
    EXPECT_EQ(built([](auto &l) { dxt::put_elapsed(l, 40); }), "0.0 s");
    EXPECT_EQ(built([](auto &l) { dxt::put_elapsed(l, 61000); }), "61.0 s");
}

TEST(LineTime, Iso8601Utc)
{
    EXPECT_EQ(built([](auto &l) { dxt::put_utc_time(l, 0); }), "1970-01-01T00:00:00Z");
    EXPECT_EQ(built([](auto &l) { dxt::put_utc_time(l, 1795412418); }), "2026-11-23T05:40:18Z");
    EXPECT_EQ(built([](auto &l) { dxt::put_utc_time(l, 1709251199); }), "2024-02-29T23:59:59Z");
    EXPECT_EQ(built([](auto &l) { dxt::put_utc_time(l, 951868800); }), "2000-03-01T00:00:00Z");
    EXPECT_EQ(built([](auto &l) { dxt::put_utc_time(l, -1); }), "1969-12-31T23:59:59Z");
}

std::string escaped(std::string_view text)
{
    return built([&](auto &l) { dxt::put_json_string(l, text); });
}

TEST(JsonEscaping, QuotesBackslashesAndControls)
{
    EXPECT_EQ(escaped("plain"), "\"plain\"");
    EXPECT_EQ(escaped("sub-option \"count\""), "\"sub-option \\\"count\\\"\"");
    EXPECT_EQ(escaped("C:\\path"), "\"C:\\\\path\"");
    EXPECT_EQ(escaped("a\nb\tc\rd"), "\"a\\nb\\tc\\rd\"");
    EXPECT_EQ(escaped(std::string_view("\x01\x1f\x7f", 3)), "\"\\u0001\\u001f\\u007f\"");
    EXPECT_EQ(escaped(std::string_view("nul\0x", 5)), "\"nul\\u0000x\"");
}

TEST(JsonEscaping, Utf8KeptAndBadBytesReplaced)
{
    EXPECT_EQ(escaped("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"), "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\"");
    EXPECT_EQ(escaped("a\xff" "b"), "\"a\\ufffdb\"");
    EXPECT_EQ(escaped("\xc3"), "\"\\ufffd\"");               // cut short
    EXPECT_EQ(escaped("\xc0\xaf"), "\"\\ufffd\\ufffd\"");    // overlong
    EXPECT_EQ(escaped("\xed\xa0\x80"), "\"\\ufffd\\ufffd\\ufffd\"");  // a surrogate
}

TEST(JsonEscaping, EscapedTextReadsBackAsTheOriginal)
{
    std::string text = "quote \" backslash \\ newline \n tab \t bell \x07 euro \xe2\x82\xac";
    auto parsed = json_check::parse_object_line("{\"t\":" + escaped(text) + "}");
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->at("t").text, text);
}

TEST(JsonEscaping, LongTextIsCutButTheLineStaysValid)
{
    std::string text(3 * dxt::line_capacity, '"');
    dxt::line_buffer line;
    dxt::put_message_line(line, {0, LVL_INFO, 0, nullptr, 0, 0, text}, true);
    std::string s = str(line);
    ASSERT_LE(s.size(), static_cast<size_t>(dxt::line_capacity));
    ASSERT_EQ(s.back(), '\n');
    auto parsed = json_check::parse_object_line(s.substr(0, s.size() - 1));
    ASSERT_TRUE(parsed.has_value());
    EXPECT_TRUE(parsed->at("text").text.ends_with("[cut]"));
}

TEST(MessageLine, TextForm)
{
    dxt::line_buffer line;
    dxt::put_message_line(
        line, {1795412418, LVL_INFO, 1, "l2cache", MSG_WRRDVR_START, 0, "Write/Read/Verify test started"}, false);
    EXPECT_EQ(str(line), "2026-11-23T05:40:18Z INFO cpu1 [l2cache] #3 Write/Read/Verify test started\n");

    line.length = 0;
    dxt::put_message_line(line, {1795412418, LVL_FATAL, -1, nullptr, MSG_WORKERS_FAILED, -1, "failed"}, false);
    EXPECT_EQ(str(line), "2026-11-23T05:40:18Z FATAL cpu? #8011 failed\n");

    line.length = 0;
    dxt::put_message_line(line, {1795412418, 5, 0, nullptr, 0, 0, "odd level"}, false);
    EXPECT_EQ(str(line), "2026-11-23T05:40:18Z LEVEL5 cpu0 #0 odd level\n");

    // The usage is shown as a usage, without the line's prefix.
    line.length = 0;
    dxt::put_message_line(line, {1795412418, LVL_USAGE, 0, nullptr, MSG_USAGE, 0, "usage: t [-h]\n  -h  help"}, false);
    EXPECT_EQ(str(line), "usage: t [-h]\n  -h  help\n");
}

TEST(MessageLine, JsonFormHasEveryKey)
{
    dxt::line_buffer line;
    dxt::put_message_line(line, {1795412418, LVL_USAGE, 0, nullptr, MSG_BAD_SUBOPTION, 0, "Sub-option \"count\""},
                          true);
    EXPECT_EQ(str(line),
              "{\"time\":\"2026-11-23T05:40:18Z\",\"level\":6,\"severity\":\"USAGE\",\"cpu\":0,\"tag\":null,"
              "\"number\":8000,\"exit_flag\":0,\"text\":\"Sub-option \\\"count\\\"\"}\n");

    line.length = 0;
    dxt::put_message_line(line, {0, 12, -1, "morvantest", 0, 1, "x"}, true);
    auto parsed = json_check::parse_object_line(std::string_view(line.data, line.length - 1));
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->at("severity").text, "LEVEL12");
    EXPECT_EQ(parsed->at("cpu").text, "null");
    EXPECT_EQ(parsed->at("tag").text, "morvantest");
    EXPECT_EQ(parsed->at("exit_flag").text, "1");
}

TEST(VerdictLine, TextForm)
{
    dxt::line_buffer line;
    dxt::put_verdict_line(line, {1795412418, 0, "FAIL", 1, "a fault was found (exit status 1)"});
    EXPECT_EQ(str(line), "2026-11-23T05:40:18Z VERDICT cpu0 FAIL: a fault was found (exit status 1)\n");
}

TEST(LineNumbers, SecondsAndProcessorLists)
{
    EXPECT_EQ(built([](auto &l) { dxt::put_seconds(l, 2013); }), "2.013");
    EXPECT_EQ(built([](auto &l) { dxt::put_seconds(l, 40); }), "0.040");
    EXPECT_EQ(built([](auto &l) { dxt::put_seconds(l, -5); }), "0.000");
    auto list = [](std::vector<int> ids) { return built([&](auto &l) { dxt::put_cpu_list(l, ids); }); };
    EXPECT_EQ(list({}), "");
    EXPECT_EQ(list({2}), "2");
    EXPECT_EQ(list({0, 1}), "0-1");
    EXPECT_EQ(list({0, 1, 2, 3, 5, 7, 8}), "0-3,5,7-8");
}

TEST(LineBuffer, TextBufferOfAnySizeStopsAtItsCapacity)
{
    char storage[8];
    dxt::text_buffer small{storage, sizeof storage};
    dxt::put(small, "0123456789");
    EXPECT_EQ(std::string(small.data, small.length), "01234567");
}

TEST(LevelFilter, EachModeShowsItsLevels)
{
    dxt::display_mode normal, quiet, debug, quiet_debug;
    quiet.quiet = true;
    debug.debug = true;
    quiet_debug.quiet = quiet_debug.debug = true;
    for (int level = 1; level <= 7; level++) {
        EXPECT_TRUE(dxt::level_shown(normal, level, 0)) << level;
        EXPECT_TRUE(dxt::level_shown(debug, level, 0)) << level;
        EXPECT_EQ(dxt::level_shown(quiet, level, 0), level <= 3) << level;
    }
    EXPECT_FALSE(dxt::level_shown(normal, LVL_DEBUG, 0));
    EXPECT_FALSE(dxt::level_shown(quiet, LVL_DEBUG, 0));
    EXPECT_TRUE(dxt::level_shown(debug, LVL_DEBUG, 0));
    EXPECT_TRUE(dxt::level_shown(quiet_debug, LVL_DEBUG, 0));
    EXPECT_FALSE(dxt::level_shown(quiet_debug, LVL_INFO, 0));
    // The usage is shown when asked for, even when quiet.
    EXPECT_TRUE(dxt::level_shown(quiet, LVL_USAGE, MSG_USAGE));
    EXPECT_FALSE(dxt::level_shown(quiet, LVL_USAGE, MSG_BAD_SUBOPTION));
}

TEST(LevelFilter, SeverityWords)
{
    EXPECT_STREQ(dxt::severity_word(1), "FATAL");
    EXPECT_STREQ(dxt::severity_word(2), "FAULT");
    EXPECT_STREQ(dxt::severity_word(3), "ERROR");
    EXPECT_STREQ(dxt::severity_word(6), "USAGE");
    EXPECT_STREQ(dxt::severity_word(7), "INFO");
    EXPECT_STREQ(dxt::severity_word(8), "DEBUG");
    EXPECT_EQ(dxt::severity_word(0), nullptr);
    EXPECT_EQ(dxt::severity_word(4), nullptr);
    EXPECT_EQ(dxt::severity_word(9), nullptr);
}

}  // namespace
