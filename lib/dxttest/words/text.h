// Text assembled in place before it is written with one call, in storage
// the caller provides, so that a signal handler builds its lines with the
// same code as everyone else; and the one call that writes. Everything here
// is async-signal-safe: no allocation, no locale, no stdio. A text too long
// for its storage is cut and marked "[cut]", never the line's end.
#ifndef TARNEL_DXTTEST_TEXT_H
#define TARNEL_DXTTEST_TEXT_H

#include <concepts>
#include <cstddef>
#include <span>
#include <string_view>

namespace dxt {

enum {
    line_capacity = 8192,
    text_capacity = 4096,  // a message's formatted text, before escaping
};

struct text_buffer {
    char *data;
    size_t capacity;
    size_t length = 0;
};

// One line in storage of its own.
struct line_buffer : text_buffer {
    char storage[line_capacity];
    line_buffer() : text_buffer{storage, line_capacity, 0} {}
    line_buffer(const line_buffer &) = delete;
    line_buffer &operator=(const line_buffer &) = delete;
};

inline std::string_view view(const text_buffer &b) { return {b.data, b.length}; }

// CLOCK_MONOTONIC milliseconds, for the harness's limits and timings.
long long monotonic_ms();
// All of it to fd, through interrupted calls; 0, or the error that stopped it.
int write_all(int fd, const char *data, size_t length);
// An errno value's description ("No space left on device"), or "unknown
// error" for a number the C library does not know.
const char *error_text(int error);

void put(text_buffer &line, std::string_view s);
void put_int(text_buffer &line, long long value);
// Texts and whole numbers in a row: put(line, "cpu", 3, ": ") is "cpu3: ".
template <typename T>
concept whole_number = std::integral<T> && !std::same_as<T, char> && !std::same_as<T, bool>;
inline void put_piece(text_buffer &line, std::string_view s) { put(line, s); }
template <whole_number T>
void put_piece(text_buffer &line, T value)
{
    put_int(line, static_cast<long long>(value));
}

template <typename... Pieces>
    requires(sizeof...(Pieces) > 1)
void put(text_buffer &line, const Pieces &...pieces)
{
    (put_piece(line, pieces), ...);
}

void put_hex(text_buffer &line, unsigned long long value);  // 0x..., lower case
// Text for a terminal: a control character (an escape sequence in a
// recorded model name or a -o text) shown as \x1b, never sent as itself.
void put_visible(text_buffer &line, std::string_view s);
// The same, cut with "[cut]" where it would leave no room for the line's end.
void put_visible_within(text_buffer &line, std::string_view s);
void put_utc_time(text_buffer &line, long long seconds_since_epoch);  // 2026-11-23T05:40:18Z
void put_json_string(text_buffer &line, std::string_view text);      // quoted, escaped
void put_elapsed(text_buffer &line, long long milliseconds);         // "3.2 s"
void put_duration(text_buffer &line, long long milliseconds);        // "3.2 s", "12 min 05 s", "2 h 03 min"
void put_seconds(text_buffer &line, long long milliseconds);         // "3.250", a JSON number
void put_thousandths(text_buffer &line, long long value);           // "45.125", "-3.500": millidegrees as degrees
// JSON: a comma, unless an object or array has just opened; a member, its
// key after such a comma, then its value, or null when it is not known.
void put_comma(text_buffer &line);
void put_key(text_buffer &line, std::string_view key);
void put_int_member(text_buffer &line, std::string_view key, long long value, bool known = true);
void put_text_member(text_buffer &line, std::string_view key, std::string_view value, bool known = true);
void put_hex_member(text_buffer &line, std::string_view key, unsigned long long value, bool known = true);  // "0x1c2e"
// Processor ids in ascending order as the kernel writes a list: "0-3,5".
void put_cpu_list(text_buffer &line, std::span<const int> ids);

}  // namespace dxt

#endif
