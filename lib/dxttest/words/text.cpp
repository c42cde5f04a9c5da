// Text assembled in place (text.h).
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "cpuset.h"
#include "text.h"

namespace dxt {

namespace {

// Room kept after a text for what closes its line (the JSON object's end and
// the newline): a long text is cut, the line never is.
constexpr size_t closing_room = 32;
constexpr std::string_view cut_mark = "[cut]";

void put_char(text_buffer &line, char c)
{
    if (line.length < line.capacity)
        line.data[line.length++] = c;
}

// A control character, which text for a terminal and JSON both write as
// its two hex digits behind an escape of their own.
bool is_control(unsigned char c) { return c < 0x20 || c == 0x7F; }

void put_hex_byte(text_buffer &line, unsigned char c)
{
    put_char(line, "0123456789abcdef"[c >> 4]);
    put_char(line, "0123456789abcdef"[c & 0xF]);
}

void put_padded(text_buffer &line, unsigned long long value, int digits)
{
    char reversed[24];
    int n = 0;
    do {
        reversed[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value > 0 && n < 24);
    while (n < digits && n < 24)
        reversed[n++] = '0';
    while (n > 0)
        put_char(line, reversed[--n]);
}

bool text_room_left(const text_buffer &line, size_t needed)
{
    return line.length + needed + cut_mark.size() + closing_room <= line.capacity;
}

// Length of the well-formed UTF-8 sequence at s[i], or 0 when it is not one.
size_t utf8_sequence(std::string_view s, size_t i)
{
    auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    unsigned char lead = byte(i);
    size_t length;
    unsigned char low = 0x80, high = 0xBF;  // the second byte's range
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0)
            low = 0xA0;  // no overlong forms
        if (lead == 0xED)
            high = 0x9F;  // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0)
            low = 0x90;
        if (lead == 0xF4)
            high = 0x8F;  // nothing above U+10FFFF
    } else {
        return 0;
    }
    if (i + length > s.size())
        return 0;
    if (byte(i + 1) < low || byte(i + 1) > high)
        return 0;
    for (size_t k = 2; k < length; k++)
        if (byte(i + k) < 0x80 || byte(i + k) > 0xBF)
            return 0;
    return length;
}

}  // namespace

void put(text_buffer &line, std::string_view s)
{
    for (char c : s)
        put_char(line, c);
}

void put_visible(text_buffer &line, std::string_view s)
{
    for (char c : s) {
        auto u = static_cast<unsigned char>(c);
        if (is_control(u) && c != '\t') {
            put(line, "\\x");
            put_hex_byte(line, u);
        } else {
            put_char(line, c);
        }
    }
}

const char *error_text(int error)
{
    const char *why = strerrordesc_np(error);
    return why != nullptr ? why : "unknown error";
}

int write_all(int fd, const char *data, size_t length)
{
    while (length > 0) {
        ssize_t n = write(fd, data, length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n < 0 ? errno : EIO;
        data += n;
        length -= static_cast<size_t>(n);
    }
    return 0;
}

void put_int(text_buffer &line, long long value)
{
    if (value < 0)
        put_char(line, '-');
    // Negated in unsigned arithmetic, so that the most negative value survives.
    put_padded(line, value < 0 ? 0ULL - static_cast<unsigned long long>(value) : value, 1);
}

void put_hex(text_buffer &line, unsigned long long value)
{
    put(line, "0x");
    char reversed[16];
    int n = 0;
    do {
        reversed[n++] = "0123456789abcdef"[value & 0xF];
        value >>= 4;
    } while (value > 0);
    while (n > 0)
        put_char(line, reversed[--n]);
}

void put_utc_time(text_buffer &line, long long t)
{
    // Civil date from days since 1970-01-01 in the proleptic Gregorian
    // calendar (eras of 400 years), since gmtime_r is not safe in a handler.
    long long days = t / 86400;
    long long seconds = t % 86400;
    if (seconds < 0) {
        seconds += 86400;
        days -= 1;
    }
    long long z = days + 719468;
    long long era = (z >= 0 ? z : z - 146096) / 146097;
    long long day_of_era = z - era * 146097;
    long long year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    long long day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    long long month_from_march = (5 * day_of_year + 2) / 153;
    long long day = day_of_year - (153 * month_from_march + 2) / 5 + 1;
    long long month = month_from_march < 10 ? month_from_march + 3 : month_from_march - 9;
    long long year = year_of_era + era * 400 + (month <= 2 ? 1 : 0);

    put_padded(line, year, 4);
    put_char(line, '-');
    put_padded(line, month, 2);
    put_char(line, '-');
    put_padded(line, day, 2);
    put_char(line, 'T');
    put_padded(line, seconds / 3600, 2);
    put_char(line, ':');
    put_padded(line, seconds / 60 % 60, 2);
    put_char(line, ':');
    put_padded(line, seconds % 60, 2);
    put_char(line, 'Z');
}

void put_json_string(text_buffer &line, std::string_view text)
{
    put_char(line, '"');
    for (size_t i = 0; i < text.size();) {
        if (!text_room_left(line, 6)) {
            put(line, cut_mark);
            break;
        }
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            put_char(line, '\\');
            put_char(line, static_cast<char>(c));
        } else if (c == '\n') {
            put(line, "\\n");
        } else if (c == '\r') {
            put(line, "\\r");
        } else if (c == '\t') {
            put(line, "\\t");
        } else if (is_control(c)) {
            put(line, "\\u00");
            put_hex_byte(line, c);
        } else if (c >= 0x80) {
            // JSON text is UTF-8: a byte that starts no well-formed sequence
            // becomes the replacement character.
            size_t length = utf8_sequence(text, i);
            if (length == 0) {
                put(line, "\\ufffd");
                i++;
                continue;
            }
            put(line, text.substr(i, length));
            i += length;
            continue;
        } else {
            put_char(line, static_cast<char>(c));
        }
        i++;
    }
    put_char(line, '"');
}

void put_elapsed(text_buffer &line, long long milliseconds)
{
    long long tenths = (milliseconds + 50) / 100;
    put_int(line, tenths / 10);
    put_char(line, '.');
    put(line, tenths % 10, " s");
}

void put_duration(text_buffer &line, long long milliseconds)
{
    long long seconds = milliseconds / 1000;
    if (seconds < 60) {
        put_elapsed(line, milliseconds);
    } else if (seconds < 3600) {
        put(line, seconds / 60, " min ");
        put_padded(line, seconds % 60, 2);
        put(line, " s");
    } else {
        put(line, seconds / 3600, " h ");
        put_padded(line, seconds / 60 % 60, 2);
        put(line, " min");
    }
}

void put_seconds(text_buffer &line, long long milliseconds)
{
    if (milliseconds < 0)
        milliseconds = 0;
    put_int(line, milliseconds / 1000);
    put_char(line, '.');
    put_padded(line, milliseconds % 1000, 3);
}

void put_thousandths(text_buffer &line, long long value)
{
    if (value < 0) {
        put_char(line, '-');
        value = -value;
    }
    put_int(line, value / 1000);
    put_char(line, '.');
    put_padded(line, value % 1000, 3);
}

void put_hex_member(text_buffer &line, std::string_view key, unsigned long long value, bool known)
{
    put_key(line, key);
    if (!known) {
        put(line, "null");
        return;
    }
    put(line, "\"");
    put_hex(line, value);
    put(line, "\"");
}

void put_cpu_list(text_buffer &line, std::span<const int> ids)
{
    cpu_list_writer list{line.data, line.capacity, line.length};
    for (int id : ids)
        list.add(id);
    list.finish();
}

void put_comma(text_buffer &line)
{
    if (line.length > 0 && line.data[line.length - 1] != '{' && line.data[line.length - 1] != '[')
        put_char(line, ',');
}

void put_key(text_buffer &line, std::string_view key)
{
    put_comma(line);
    put_char(line, '"');
    put(line, key, "\":");
}

void put_int_member(text_buffer &line, std::string_view key, long long value, bool known)
{
    put_key(line, key);
    if (known)
        put_int(line, value);
    else
        put(line, "null");
}

void put_text_member(text_buffer &line, std::string_view key, std::string_view value, bool known)
{
    put_key(line, key);
    if (known)
        put_json_string(line, value);
    else
        put(line, "null");
}

void put_visible_within(text_buffer &line, std::string_view s)
{
    if (text_room_left(line, s.size())) {
        put_visible(line, s);
        return;
    }
    size_t room = line.capacity - line.length - cut_mark.size() - closing_room;
    put_visible(line, s.substr(0, room));
    put(line, cut_mark);
}

long long monotonic_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

}  // namespace dxt
