// One line of a run's output (message_line.h).
#include "message_line.h"

#include <iterator>

#include "testinfo.h"

namespace dxt {

bool level_shown(display_mode mode, int level, int number)
{
    // The usage is shown whenever it is asked for, and a value the test
    // replaced by its default whenever that happens: even when quiet,
    // nothing given is changed unsaid.
    if (number == MSG_USAGE || number == MSG_DEFAULT_TAKEN)
        return true;
    if (level >= LVL_DEBUG)
        return mode.debug;
    if (mode.quiet)
        return level >= LVL_FATAL && level <= LVL_STEP_ERROR;
    return true;
}

namespace {

// The level's word, or LEVELn for a level without one.
void put_severity(text_buffer &line, int level)
{
    constexpr const char *words[] = {nullptr, "FATAL", "FAULT", "ERROR", nullptr, nullptr, "USAGE", "INFO", "DEBUG"};
    if (level > 0 && level < static_cast<int>(std::size(words)) && words[level] != nullptr)
        put(line, words[level]);
    else
        put(line, "LEVEL", level);
}

}  // namespace

void put_message_line(text_buffer &line, const message_fields &m, bool json)
{
    if (json) {
        put(line, "{\"time\":\"");
        put_utc_time(line, m.time);
        put(line, "\"");
        put_int_member(line, "level", m.level);
        put_key(line, "severity");
        put(line, "\"");
        put_severity(line, m.level);
        put(line, "\"");
        put_int_member(line, "cpu", m.cpu, !m.main_thread && m.cpu >= 0);
        put_text_member(line, "thread", m.main_thread ? "main" : "worker");
        put_text_member(line, "tag", m.tag != nullptr ? m.tag : "", m.tag != nullptr);
        put_int_member(line, "number", m.number);
        put_int_member(line, "exit_flag", m.exit_flag);
        put_text_member(line, "text", m.text);
        put(line, "}\n");
        return;
    }
    // The usage reads as a usage: a person asked for it, not a log.
    if (m.number == MSG_USAGE && m.exit_flag == 0) {
        put(line, m.text.substr(0, text_capacity));
        put(line, "\n");
        return;
    }
    put_utc_time(line, m.time);
    put(line, " ");
    put_severity(line, m.level);
    if (m.main_thread) {
        put(line, " main");
    } else {
        put(line, " cpu");
        if (m.cpu >= 0)
            put_int(line, m.cpu);
        else
            put(line, "?");
    }
    if (m.tag != nullptr) {
        put(line, " [", m.tag);
        put(line, "]");
    }
    put(line, " #", m.number);
    put(line, " ");
    put_visible_within(line, m.text);
    put(line, "\n");
}

void put_verdict_line(text_buffer &line, const verdict_fields &v)
{
    put_utc_time(line, v.time);
    put(line, " VERDICT ", v.verdict, ": ");
    put_visible(line, v.text.substr(0, text_capacity));
    put(line, "\n");
}

void put_summary_start(text_buffer &line, long long time)
{
    put_utc_time(line, time);
    put(line, " SUMMARY ");
}

}  // namespace dxt
