// Any argument vector: the harness's command-line reading never crashes,
// never changes argv, and says what was wrong whenever it refuses one.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "command_line.h"

extern "C" const char dxt_test_version[] = "0 2026/11/23 (fuzz)";

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The input is the arguments after the program name, NUL-separated.
    std::vector<std::string> words{"tarneltest"};
    std::string word;
    for (size_t i = 0; i < size; i++) {
        if (data[i] == '\0') {
            words.push_back(word);
            word.clear();
        } else {
            word += static_cast<char>(data[i]);
        }
    }
    if (!word.empty())
        words.push_back(word);
    if (words.size() > 64)
        return 0;

    std::vector<std::string> storage = words;  // what the parser is handed
    std::vector<char *> argv;
    for (std::string &s : storage)
        argv.push_back(s.data());
    argv.push_back(nullptr);

    dxt::command_line line = dxt::parse_command_line(static_cast<int>(words.size()), argv.data());
    for (size_t i = 0; i < words.size(); i++)
        if (argv[i] != storage[i].data() || storage[i] != words[i])
            abort();
    if (line.action == dxt::command_action::error && line.error.empty())
        abort();
    return 0;
}
