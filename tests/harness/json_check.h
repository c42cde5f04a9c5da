// A strict reader of one JSON object per line, enough for the tests to check
// that a line the harness writes is valid JSON (RFC 8259 grammar, escapes
// decoded) and to look at its members. A nested object or array is kept as
// its JSON text, for parse_object_line and parse_array to read further.
#ifndef TARNEL_TESTS_JSON_CHECK_H
#define TARNEL_TESTS_JSON_CHECK_H

#include <cctype>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace json_check {

enum class kind { string, number, literal, object, array };

struct member {
    kind type;
    std::string text;  // the decoded string; the number, literal, object or array as written
};
using object = std::map<std::string, member>;

namespace detail {

struct reader {
    std::string_view in;
    size_t at = 0;

    void skip_space()
    {
        while (at < in.size() && (in[at] == ' ' || in[at] == '\t' || in[at] == '\n' || in[at] == '\r'))
            at++;
    }
    bool eat(char c)
    {
        skip_space();
        if (at < in.size() && in[at] == c) {
            at++;
            return true;
        }
        return false;
    }
    static void put_utf8(std::string &out, unsigned code)
    {
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (code >> 18));
            out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
    }
    bool hex4(unsigned &code)
    {
        if (at + 4 > in.size())
            return false;
        code = 0;
        for (int i = 0; i < 4; i++) {
            char c = in[at++];
            if (!isxdigit(static_cast<unsigned char>(c)))
                return false;
            int digit = isdigit(static_cast<unsigned char>(c)) ? c - '0' : (c | 0x20) - 'a' + 10;
            code = code * 16 + static_cast<unsigned>(digit);
        }
        return true;
    }
    bool string(std::string &out)
    {
        skip_space();
        if (at >= in.size() || in[at] != '"')
            return false;
        at++;
        while (at < in.size()) {
            unsigned char c = static_cast<unsigned char>(in[at++]);
            if (c == '"')
                return true;
            if (c < 0x20)
                return false;  // control characters must be escaped
            if (c != '\\') {
                out += static_cast<char>(c);
                continue;
            }
            if (at >= in.size())
                return false;
            char e = in[at++];
            unsigned code;
            switch (e) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u':
                if (!hex4(code))
                    return false;
                if (code >= 0xD800 && code <= 0xDBFF) {
                    unsigned low;
                    if (at + 2 > in.size() || in[at] != '\\' || in[at + 1] != 'u')
                        return false;
                    at += 2;
                    if (!hex4(low) || low < 0xDC00 || low > 0xDFFF)
                        return false;
                    code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                } else if (code >= 0xDC00 && code <= 0xDFFF) {
                    return false;
                }
                put_utf8(out, code);
                break;
            default:
                return false;
            }
        }
        return false;
    }
    bool digits()
    {
        size_t start = at;
        while (at < in.size() && isdigit(static_cast<unsigned char>(in[at])))
            at++;
        return at > start;
    }
    bool number(std::string &out)
    {
        skip_space();
        size_t start = at;
        if (at < in.size() && in[at] == '-')
            at++;
        if (at < in.size() && in[at] == '0')
            at++;
        else if (!digits())
            return false;
        if (at < in.size() && in[at] == '.') {
            at++;
            if (!digits())
                return false;
        }
        if (at < in.size() && (in[at] == 'e' || in[at] == 'E')) {
            at++;
            if (at < in.size() && (in[at] == '+' || in[at] == '-'))
                at++;
            if (!digits())
                return false;
        }
        out = std::string(in.substr(start, at - start));
        return true;
    }
    bool value(member &out, int depth)
    {
        if (depth > 32)
            return false;
        skip_space();
        if (at >= in.size())
            return false;
        char c = in[at];
        if (c == '"') {
            out.type = kind::string;
            return string(out.text);
        }
        size_t start = at;
        if (c == '{') {
            out.type = kind::object;
            object ignored;
            if (!members(ignored, depth + 1))
                return false;
            out.text = std::string(in.substr(start, at - start));
            return true;
        }
        if (c == '[') {
            out.type = kind::array;
            std::vector<member> ignored;
            if (!elements(ignored, depth + 1))
                return false;
            out.text = std::string(in.substr(start, at - start));
            return true;
        }
        for (std::string_view word : {"true", "false", "null"}) {
            if (in.substr(at, word.size()) == word) {
                at += word.size();
                out.type = kind::literal;
                out.text = std::string(word);
                return true;
            }
        }
        out.type = kind::number;
        return number(out.text);
    }
    bool elements(std::vector<member> &out, int depth)
    {
        if (!eat('['))
            return false;
        if (eat(']'))
            return true;
        do {
            member element;
            if (!value(element, depth))
                return false;
            out.push_back(element);
        } while (eat(','));
        return eat(']');
    }
    bool members(object &out, int depth)
    {
        if (!eat('{'))
            return false;
        if (eat('}'))
            return true;
        do {
            std::string key;
            if (!string(key) || !eat(':'))
                return false;
            member m;
            if (!value(m, depth))
                return false;
            if (!out.emplace(key, m).second)
                return false;  // a key given twice
        } while (eat(','));
        return eat('}');
    }
};

}  // namespace detail

// The elements of a text that holds exactly one JSON array.
inline std::optional<std::vector<member>> parse_array(std::string_view text)
{
    detail::reader r{text};
    std::vector<member> result;
    if (!r.elements(result, 0))
        return std::nullopt;
    r.skip_space();
    if (r.at != text.size())
        return std::nullopt;
    return result;
}

// The members of a line that holds exactly one JSON object, or nothing when
// the line is not that. Also reads a nested object's text.
inline std::optional<object> parse_object_line(std::string_view line)
{
    detail::reader r{line};
    object result;
    if (!r.members(result, 0))
        return std::nullopt;
    r.skip_space();
    if (r.at != line.size())
        return std::nullopt;
    return result;
}

}  // namespace json_check

#endif
