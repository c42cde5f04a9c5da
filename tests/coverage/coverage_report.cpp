// Measures the fault coverage of every subtest and writes the tables into
// the document given as argument, between its markers; without an
// argument, prints them. Regenerate docs/COVERAGE.md with the command it
// names at its top.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "coverage.h"

int main(int argc, char **argv)
{
    using namespace coverage;
    std::vector<row> rows;
    std::vector<verified_check> checks;
    for (const subtest &test : subtests()) {
        std::fprintf(stderr, "measuring %s\n", test.function);
        rows.push_back(measure(test));
        if (test.verifies)
            checks.push_back(check_verified(test));
    }
    std::vector<std::string> lines = block(rows, checks, check_region_alias());

    if (argc < 2) {
        for (const std::string &line : lines)
            std::cout << line << "\n";
        return 0;
    }
    std::ifstream in(argv[1]);
    std::stringstream text;
    text << in.rdbuf();
    std::string document = with_block(text.str(), lines);
    if (!in || document.empty()) {
        std::fprintf(stderr, "%s: no file with the markers\n%s\n%s\n", argv[1], BLOCK_BEGIN, BLOCK_END);
        return 1;
    }
    in.close();
    std::ofstream out(argv[1]);
    out << document;
    return out ? 0 : 1;
}
