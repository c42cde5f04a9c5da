// Any sub-option text: the parser answers 0 or 1, never crashes, and leaves
// every option variable at its default or at a value the option table
// allows. A text whose first item is empty stores nothing at all.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "driver/tarnel.h"
#include "fakes.h"
#include "option_defaults.h"

// The parser needs none of the C-library stand-ins, and they must stay out:
// libFuzzer's own threads call sleep and must really sleep.
namespace fake {
void reset_libc() {}
}  // namespace fake

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fake::reset();
    reset_options();
    std::string text(reinterpret_cast<const char *>(data), size);
    text = text.substr(0, text.find('\0'));
    std::vector<char> writable(text.begin(), text.end());
    writable.push_back('\0');

    int result = process_args(writable.data());
    if (result != 0 && result != 1)
        abort();
    if (count < 1 || count > 1024 || tag_count < 1 || tag_count > 1024)
        abort();
    if (text.starts_with(',') && (result != 0 || options_now() != option_defaults))
        abort();  // an empty first item is rejected, and nothing is stored
    if (text.empty() && (result != 1 || options_now() != option_defaults))
        abort();
    return 0;
}
