// The option variables as the program starts with them.
#ifndef TARNEL_TESTS_OPTION_DEFAULTS_H
#define TARNEL_TESTS_OPTION_DEFAULTS_H

#include <cstdint>

#include "driver/tarnel.h"

struct option_values {
    uint32_t count, tag_count, march_window;
    int32_t march_al, march_pats, l1cache_write_policy, test_mask;
    bool operator==(const option_values &) const = default;
};

inline constexpr option_values option_defaults{8, 1, 0, 512, 15, -1, 1048575};

inline option_values options_now()
{
    return {count, tag_count, march_window, march_al, march_pats, l1cache_write_policy, test_mask};
}

inline void reset_options()
{
    const option_values &d = option_defaults;
    count = d.count, tag_count = d.tag_count, march_window = d.march_window, march_al = d.march_al;
    march_pats = d.march_pats, l1cache_write_policy = d.l1cache_write_policy, test_mask = d.test_mask;
}

#endif
