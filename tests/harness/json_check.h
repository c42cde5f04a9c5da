// A strict reader of one JSON object per line, enough for the
// tests to check that a line the harness writes is valid JSON (RFC 8259
// grammar, escapes decoded, no key twice) and to look at its members: a
// string decoded, anything else (a nested object or array too) as written.
#ifndef TARNEL_TESTS_JSON_CHECK_H
#define TARNEL_TESTS_JSON_CHECK_H

#include <charconv>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

namespace json_check {

using object = std::map<std::string, std::string>;

struct reader {
    std::string_view in;
    size_t at = 0;

    bool eat(char c)  // after any blanks
    {
        while (at < in.size() && std::string_view(" \t\r\n").find(in[at]) != std::string_view::npos)
            at++;
        return at < in.size() && in[at] == c ? (at++, true) : false;
    }
    bool string(std::string &out)
    {
        if (!eat('"'))
            return false;
        while (at < in.size()) {
            unsigned char c = static_cast<unsigned char>(in[at++]);
            if (c == '"')
                return true;
            if (c < 0x20 || (c == '\\' && at >= in.size()))
                return false;
            if (c != '\\') {
                out += static_cast<char>(c);
                continue;
            }
            size_t k = std::string_view("\"\\/bfnrt").find(in[at++]);
            if (k != std::string_view::npos) {
                out += "\"\\/\b\f\n\r\t"[k];
                continue;
            }
            // The harness writes \u00XX for a control and \ufffd for a byte
            // of no UTF-8 sequence, nothing else.
            unsigned code = 0;
            const char *hex = in.data() + at;
            if (in[at - 1] != 'u' || at + 4 > in.size() || std::from_chars(hex, hex + 4, code, 16).ptr != hex + 4 ||
                (code >= 0x80 && code != 0xFFFD))
                return false;
            out += code == 0xFFFD ? "\xef\xbf\xbd" : std::string(1, static_cast<char>(code));
            at += 4;
        }
        return false;
    }
    bool value(std::string &out)
    {
        static const std::regex scalar("-?(0|[1-9][0-9]*)(\\.[0-9]+)?([eE][+-]?[0-9]+)?|true|false|null");
        if (eat('\0') || at >= in.size())  // a NUL is never valid outside a string
            return false;
        if (in[at] == '"')
            return string(out);
        size_t start = at;
        object nested_object;
        std::vector<std::string> nested_array;
        std::cmatch m;
        bool ok = in[at] == '{'   ? members(nested_object)
                  : in[at] == '[' ? elements(nested_array)
                                  : std::regex_search(in.data() + at, in.data() + in.size(), m, scalar,
                                                      std::regex_constants::match_continuous);
        if (in[start] != '{' && in[start] != '[' && ok)
            at += static_cast<size_t>(m.length());
        out = std::string(in.substr(start, at - start));
        return ok;
    }
    bool elements(std::vector<std::string> &out)
    {
        if (!eat('['))
            return false;
        if (eat(']'))
            return true;
        do {
            if (!value(out.emplace_back()))
                return false;
        } while (eat(','));
        return eat(']');
    }
    bool members(object &out)
    {
        if (!eat('{'))
            return false;
        if (eat('}'))
            return true;
        do {
            std::string key, member;
            if (!string(key) || !eat(':') || !value(member) || !out.emplace(key, member).second)
                return false;
        } while (eat(','));
        return eat('}');
    }
    bool at_end() { return !eat('\0') && at == in.size(); }
};

// The members of a text holding exactly one JSON object, else nothing.
inline std::optional<object> parse_object_line(std::string_view line)
{
    reader r{line};
    object result;
    return r.members(result) && r.at_end() ? std::optional(result) : std::nullopt;
}

}  // namespace json_check

#endif
