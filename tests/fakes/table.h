// The rows of a reviewed table beside a test's sources: each line that is
// not a comment (#) split at its tabs, with as many columns as asked (the
// missing ones empty), "\n" in a field made a line end.
#ifndef TARNEL_TESTS_TABLE_H
#define TARNEL_TESTS_TABLE_H

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

inline std::vector<std::vector<std::string>> table_rows(const std::string &path, size_t columns)
{
    std::vector<std::vector<std::string>> rows;
    std::ifstream table(path);
    for (std::string line; std::getline(table, line);) {
        if (line.starts_with("#"))
            continue;
        std::vector<std::string> row(columns);
        std::istringstream fields(line);
        // Copied a character at a time: GCC 12 raises a false
        // -Werror=restrict on std::string::replace.
        for (std::string &field : row) {
            std::string raw;
            std::getline(fields, raw, '\t');
            for (size_t i = 0; i < raw.size(); i++) {
                bool line_end = raw[i] == '\\' && i + 1 < raw.size() && raw[i + 1] == 'n';
                field.push_back(line_end ? '\n' : raw[i]);
                i += line_end;
            }
        }
        rows.push_back(row);
    }
    return rows;
}

#endif
