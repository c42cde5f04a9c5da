// The program's subtests and kernels by name, each called without a buffer
// of the caller's and with the numbers a case gives (sizes, line sizes,
// ways, passes, in the function's order), so that tables of cases can be
// reviewed data files: "cache_hit_stress 64 64 1". Too few numbers throw
// std::out_of_range.
#ifndef TARNEL_TESTS_KERNEL_CALLS_H
#define TARNEL_TESTS_KERNEL_CALLS_H

#include <malloc.h>

#include <cstdlib>

#include <cstdint>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "march/genmarch.h"
#include "stress/l2cache.h"

// The call of a name with its numbers, or one a text names; an empty
// function for a name not known.
inline std::function<int()> kernel_call(const std::string &name, const std::vector<uint32_t> &given)
{
    using numbers = std::vector<uint32_t>;
    static const std::map<std::string, std::function<int(const numbers &)>> calls = {
        {"cache_wrrdvr_stress", [](const numbers &n) { return cache_wrrdvr_stress(nullptr, n.at(0), n.at(1), n.at(2)); }},
        {"cache_hit_stress", [](const numbers &n) { return cache_hit_stress(nullptr, n.at(0), n.at(1), n.at(2)); }},
        {"basic_dtype_l2cachehit_stress",
         [](const numbers &n) { return basic_dtype_l2cachehit_stress(nullptr, n.at(0), n.at(1)); }},
        {"l2cachehit_wrrdwr", [](const numbers &n) { return l2cachehit_wrrdwr(nullptr, n.at(0), n.at(1), n.at(2)); }},
        {"derived_dtype_test", [](const numbers &n) { return derived_dtype_test(nullptr, n.at(0), n.at(1)); }},
        {"cache_miss_stress", [](const numbers &n) { return cache_miss_stress(nullptr, n.at(0), n.at(1), n.at(2), n.at(3)); }},
        {"crand", [](const numbers &n) { return crand(nullptr, n.at(0)); }},
        {"cache_interconnect_stress",
         [](const numbers &n) { return cache_interconnect_stress(nullptr, n.at(0), n.at(1)); }},
        {"cache_march_stress1", [](const numbers &n) { return cache_march_stress1(nullptr, n.at(0), n.at(1), n.at(2)); }},
        {"cache_march_stress2", [](const numbers &n) { return cache_march_stress2(nullptr, n.at(0), n.at(1)); }},
        {"cache_march_stress3", [](const numbers &n) { return cache_march_stress3(nullptr, n.at(0), n.at(1)); }},
        {"cache_march_stress4", [](const numbers &n) { return cache_march_stress4(nullptr, n.at(0)); }},
        // The one subtest handed its buffer: a page-aligned block of the size.
        {"cache_rand_off_stress",
         [](const numbers &n) {
             void *block = memalign(4096, n.at(0));
             int status = cache_rand_off_stress(block, n.at(0), n.at(1));
             free(block);
             return status;
         }},
    };
    auto found = calls.find(name);
    if (found == calls.end())
        return {};
    return [call = found->second, given] { return call(given); };
}

inline std::function<int()> kernel_call(const std::string &text)
{
    std::istringstream words(text);
    std::string name;
    std::vector<uint32_t> given;
    words >> name;
    for (uint32_t n; words >> n;)
        given.push_back(n);
    return kernel_call(name, given);
}

#endif
