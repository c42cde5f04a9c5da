// The benchmark's traffic census: its rows (rows.h) in the program's
// fault-model build, compiled with -finstrument-functions so that every
// access can be told apart by the functions it was made in. Each access
// goes to the first rule of its subtest that matches it, and a row's
// traffic is the bytes of each rule's shape:
//
//   tarnel_bench_census SIZE LINE WAYS   prints "<row>\t<shape>/<region>=<bytes>;..."
//   tarnel_bench_census --check          at 64 KiB / 64 / 8, prints nothing
//
// Either fails on an access no rule takes (a kernel that changed its shape);
// --check also on a rule that took nothing.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "fault_model.h"
#include "rows.h"

namespace {

using namespace bench;

// How an access is made: `s` a store, `l` a load, `c` a store read straight
// back (both accesses), `u` a load written straight back (both); a rule's
// `s` and `l` take a paired access of their direction too, `*` takes any.
struct shape_rule {
    const char *subtest;
    const char *function;  // "": any; else a function the access was made in
    char kind;
    unsigned width;        // 0: any
    const char *shape;
    size_t (*region)();
};

const shape_rule shape_rules[] = {
    {"cache_wrrdvr_stress", "", '*', 0, "seq_verify32", twice},
    {"cache_hit_stress", "basic_dtype_l2cachehit_stress", 'c', 8, "seq_store_check64", whole},
    {"cache_hit_stress", "basic_dtype_l2cachehit_stress", 's', 8, "seq_store64", whole},
    {"cache_hit_stress", "basic_dtype_l2cachehit_stress", 's', 4, "seq_store32", whole},
    {"cache_hit_stress", "l2cachehit_wrrdwr", 's', 0, "seq_store32", whole},
    {"cache_hit_stress", "l2cachehit_wrrdwr", 'l', 0, "seq_load32", whole},
    {"cache_hit_stress", "derived_dtype_write", '*', 0, "record_store", whole},
    {"cache_hit_stress", "derived_dtype_write_read_verify", '*', 0, "record_store_check", whole},
    {"cache_hit_stress", "cache_readmiss", '*', 0, "column_load32_half_line", whole},
    {"cache_miss_stress", "cache_writemiss", '*', 0, "column_store32", twice},
    {"cache_miss_stress", "cache_writemissfp", '*', 0, "column_store64", twice},
    {"cache_miss_stress", "cache_readmiss", '*', 0, "column_load32", twice},
    {"cache_miss_stress", "cache_readmiss_write", '*', 0, "column_load_store32", twice},
    {"cache_miss_stress", "cache_writemiss_read", '*', 0, "column_store_load32", twice},
    {"cache_miss_stress", "cache_writemissfp_read", '*', 0, "column_store_load64", twice},
    {"cache_miss_stress", "cache_sets_trash", 'c', 0, "set_store_load32", twice},
    {"cache_miss_stress", "cache_sets_trash", 'u', 0, "set_load_store32", twice},
    {"cache_miss_stress", "cache_sets_trash", 's', 0, "set_store32", twice},
    {"cache_miss_stress", "cache_sets_trash", 'l', 0, "set_load32", twice},
    {"crand", "fill_blocks", '*', 0, "block32_store", half},
    {"crand", "swap_walk", '*', 0, "swap_walk", whole},
    {"crand", "sweep_blocks", '*', 0, "block32_copy", half},
    {"cache_interconnect_stress", "", 's', 0, "block_store", half},
    {"cache_interconnect_stress", "", 'l', 0, "block_load", half},
    {"cache_march_stress4", "", 's', 0, "block_store", half},
    {"cache_march_stress4", "", 'l', 0, "block_load", half},
    {"cache_march_stress3", "", 's', 0, "block32_store", half},
    {"cache_march_stress3", "", 'l', 0, "block32_load", half},
    {"cache_march_stress1", "", 's', 0, "column_store32", twice},
    {"cache_march_stress1", "", 'l', 0, "column_load32", twice},
    {"cache_march_stress2", "", 's', 0, "seq_store32", whole},
    {"cache_march_stress2", "", 'l', 0, "seq_load32", whole},
    {"cache_rand_off_stress", "rand_off_wr_loop", '*', 0, "offset_store", whole},
    {"cache_rand_off_stress", "rand_off_wrrdvrfy_loop", '*', 0, "offset_store_check", whole},
    {"cache_rand_off_stress", "rand_off_rd_loop", '*', 0, "offset_load", whole},
};
constexpr int rule_count = static_cast<int>(std::size(shape_rules));

// The functions being run, as paths: an entered function extends its
// caller's path, so one number names the whole chain (path 0: none).
struct path {
    int parent;
    std::string function;
};
std::vector<path> paths{{-1, ""}};
std::map<std::pair<int, void *>, int> path_of_call;
std::vector<int> running{0};
std::unordered_map<uintptr_t, std::string> symbols;  // by offset into the program
uintptr_t program_base;
bool in_hook;

// "(anonymous namespace)::fill_blocks(unsigned int*, ...)" is fill_blocks; a
// lambda's "f(...)::{lambda(unsigned int)#1}::operator()" is f.
std::string function_name(std::string symbol)
{
    for (size_t at; (at = symbol.find("(anonymous namespace)::")) != std::string::npos;)
        symbol.erase(at, 23);
    if (size_t arguments = symbol.find_first_of("(<"); arguments != std::string::npos)
        symbol.resize(arguments);
    symbol = symbol.substr(symbol.find_last_of(' ') + 1);
    size_t scope = symbol.rfind("::");
    return scope == std::string::npos ? symbol : symbol.substr(scope + 2);
}

bool load_symbols()
{
    char exe[4096];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    Dl_info info;
    if (n <= 0 || dladdr(reinterpret_cast<void *>(&load_symbols), &info) == 0)
        return false;
    exe[n] = '\0';
    program_base = reinterpret_cast<uintptr_t>(info.dli_fbase);
    FILE *nm = popen(("nm -C --defined-only '" + std::string(exe) + "'").c_str(), "r");
    if (nm == nullptr)
        return false;
    char line[8192];
    while (std::fgets(line, sizeof line, nm) != nullptr) {
        char *end = nullptr;
        uintptr_t offset = std::strtoull(line, &end, 16);
        if (end == line || std::strlen(end) < 4)
            continue;
        std::string symbol(end + 3);
        symbol.pop_back();  // the newline
        symbols.emplace(offset, function_name(symbol));
    }
    return pclose(nm) == 0 && !symbols.empty();
}

}  // namespace

extern "C" {

__attribute__((no_instrument_function)) void __cyg_profile_func_enter(void *function, void *)
{
    if (in_hook)
        return;
    in_hook = true;
    auto [entry, added] = path_of_call.try_emplace({running.back(), function}, static_cast<int>(paths.size()));
    if (added) {
        auto symbol = symbols.find(reinterpret_cast<uintptr_t>(function) - program_base);
        paths.push_back({running.back(), symbol != symbols.end() ? symbol->second : "?"});
    }
    running.push_back(entry->second);
    in_hook = false;
}

__attribute__((no_instrument_function)) void __cyg_profile_func_exit(void *, void *)
{
    if (!in_hook && running.size() > 1)
        running.pop_back();
}

}  // extern "C"

namespace {

bool made_in(int path_id, const char *function)
{
    if (*function == '\0')
        return true;
    for (int p = path_id; p > 0; p = paths[static_cast<size_t>(p)].parent)
        if (paths[static_cast<size_t>(p)].function == function)
            return true;
    return false;
}

std::string chain(int path_id)
{
    std::string text;
    for (int p = path_id; p > 0; p = paths[static_cast<size_t>(p)].parent)
        text = paths[static_cast<size_t>(p)].function + (text.empty() ? "" : " > ") + text;
    return text;
}

// One row's accesses, each classified once the next one shows whether it
// was read or written straight back.
struct row_census {
    explicit row_census(const std::string &of) : subtest(of) {}
    const std::string &subtest;
    std::map<std::tuple<int, char, unsigned>, int> rule_of;
    std::vector<double> bytes = std::vector<double>(rule_count);
    double unplaced = 0;
    std::string unplaced_example;

    struct access {
        const void *address;
        unsigned width;
        bool store;
        int path;
    };
    bool pending = false;
    access last{};

    int rule_for(const access &a, char pairing)
    {
        auto [found, added] = rule_of.try_emplace({a.path, pairing != 0 ? pairing : a.store ? 's' : 'l', a.width}, -1);
        if (!added)
            return found->second;
        for (int i = 0; i < rule_count && found->second < 0; i++) {
            const shape_rule &r = shape_rules[i];
            bool kind = r.kind == '*' || r.kind == pairing || (r.kind == 's' && a.store) || (r.kind == 'l' && !a.store);
            if (subtest == r.subtest && kind && (r.width == 0 || r.width == a.width) && made_in(a.path, r.function))
                found->second = i;
        }
        return found->second;
    }

    void place(const access &a, char pairing)
    {
        int rule = rule_for(a, pairing);
        if (rule >= 0) {
            bytes[static_cast<size_t>(rule)] += a.width;
            return;
        }
        unplaced += a.width;
        if (unplaced_example.empty())
            unplaced_example = std::string(a.store ? "a store" : "a load") + " of " + std::to_string(a.width) +
                               " bytes in " + chain(a.path);
    }

    void see(const void *address, unsigned width, bool store)
    {
        access now{address, width, store, running.back()};
        if (pending && last.address == address && last.width == width && last.store != store) {
            char pairing = last.store ? 'c' : 'u';
            place(last, pairing);
            place(now, pairing);
            pending = false;
            return;
        }
        flush();
        last = now;
        pending = true;
    }

    void flush()
    {
        if (pending)
            place(last, 0);
        pending = false;
    }
};

int census(bool check)
{
    if (!load_symbols()) {
        std::fprintf(stderr, "tarnel_bench_census: cannot read the program's symbols with nm\n");
        return 2;
    }
    std::vector<double> taken(rule_count);
    int wrong = 0;
    for (const row_def &r : rows) {
        row_census counted(r.subtest);
        fault::reset();
        fault::on_access(
            [&counted](const void *a, unsigned width, bool store, uint64_t) { counted.see(a, width, store); });
        int status = call_row(r);
        counted.flush();
        fault::reset();
        if (status != 0 || counted.unplaced > 0) {
            std::fprintf(stderr, "%s: %s\n", r.name.c_str(),
                         status != 0 ? "the call failed"
                                     : (std::to_string(static_cast<long long>(counted.unplaced)) + " bytes in no shape, such as " +
                                        counted.unplaced_example)
                                           .c_str());
            wrong++;
        }
        // Bytes by shape, in the order of the rules.
        std::vector<std::pair<std::string, double>> shapes;
        for (int i = 0; i < rule_count; i++) {
            taken[static_cast<size_t>(i)] += counted.bytes[static_cast<size_t>(i)];
            if (counted.bytes[static_cast<size_t>(i)] == 0)
                continue;
            std::string k = key(shape_rules[i].shape, shape_rules[i].region());
            auto same = std::find_if(shapes.begin(), shapes.end(), [&k](const auto &s) { return s.first == k; });
            if (same == shapes.end())
                shapes.push_back({k, counted.bytes[static_cast<size_t>(i)]});
            else
                same->second += counted.bytes[static_cast<size_t>(i)];
        }
        if (check)
            continue;
        std::printf("%s\t", r.name.c_str());
        for (size_t i = 0; i < shapes.size(); i++)
            std::printf("%s%s=%.0f", i > 0 ? ";" : "", shapes[i].first.c_str(), shapes[i].second);
        std::printf("\n");
    }
    for (int i = 0; check && i < rule_count; i++)
        if (taken[static_cast<size_t>(i)] == 0) {
            std::fprintf(stderr, "the rule for %s's %s took no access\n", shape_rules[i].subtest,
                         shape_rules[i].shape);
            wrong++;
        }
    return wrong == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv)
{
    bool check = argc == 2 && std::strcmp(argv[1], "--check") == 0;
    geometry at{64 * 1024, 64, 8};  // every shape, at the speed of the simulated memory
    if (argc == 4)
        at = {static_cast<uint32_t>(std::atol(argv[1])), static_cast<uint32_t>(std::atol(argv[2])),
              static_cast<uint32_t>(std::atol(argv[3]))};
    else if (!check) {
        std::fprintf(stderr, "usage: tarnel_bench_census SIZE LINE WAYS | --check\n");
        return 2;
    }
    prepare(at);
    return census(check);
}
