#include "cpuset.h"
#include "textfile.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace {

// One id of a list: digits, below MAX_PROCESSOR_ID.
bool take_id(std::string_view text, size_t *at, int *id)
{
    size_t i = *at;
    if (i >= text.size() || text[i] < '0' || text[i] > '9')
        return false;
    long value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; i++) {
        value = value * 10 + (text[i] - '0');
        if (value >= MAX_PROCESSOR_ID)
            return false;
    }
    *id = int(value);
    *at = i;
    return true;
}

void sort_unique(std::vector<int> *ids)
{
    std::sort(ids->begin(), ids->end());
    ids->erase(std::unique(ids->begin(), ids->end()), ids->end());
}

bool fail(std::vector<int> *ids)
{
    ids->clear();
    return false;
}

void put_char(cpu_list_writer &w, char c)
{
    if (w.length < w.capacity)
        w.out[w.length++] = c;
}

void put_id(cpu_list_writer &w, int id)
{
    char reversed[12];
    int n = 0;
    do {
        reversed[n++] = char('0' + id % 10);
        id /= 10;
    } while (id > 0);
    while (n > 0)
        put_char(w, reversed[--n]);
}

}  // namespace

bool parse_cpu_list(std::string_view text, std::vector<int> *ids)
{
    ids->clear();
    if (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    for (size_t at = 0; at < text.size();) {
        int first = 0, last = 0;
        if (!take_id(text, &at, &first))
            return fail(ids);
        last = first;
        if (at < text.size() && text[at] == '-') {
            at++;
            if (!take_id(text, &at, &last) || last < first)
                return fail(ids);
        }
        for (int id = first; id <= last; id++)
            ids->push_back(id);
        if (at < text.size() && (text[at] != ',' || at + 1 == text.size()))
            return fail(ids);
        at += at < text.size() ? 1 : 0;
    }
    sort_unique(ids);
    return !ids->empty();
}

bool parse_cpu_map(std::string_view text, std::vector<int> *ids)
{
    ids->clear();
    if (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    int bit = 0;
    for (size_t i = text.size(); i-- > 0;) {
        char c = text[i];
        if (c == ',')
            continue;
        int digit = c >= '0' && c <= '9'   ? c - '0'
                    : c >= 'a' && c <= 'f' ? c - 'a' + 10
                    : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                           : -1;
        if (digit < 0 || bit >= MAX_PROCESSOR_ID)
            return fail(ids);
        for (int k = 0; k < 4; k++)
            if ((digit >> k) & 1)
                ids->push_back(bit + k);
        bit += 4;
    }
    sort_unique(ids);
    return !ids->empty();
}

bool read_cpu_list(const std::string &path, std::vector<int> *ids)
{
    std::string text;
    if (!read_text_file(path, small_file_bytes, &text))
        return fail(ids);
    return parse_cpu_list(text, ids);
}

void cpu_list_writer::add(int id)
{
    if (first >= 0 && id == last + 1) {
        last = id;
        return;
    }
    finish();
    first = last = id;
}

void cpu_list_writer::finish()
{
    if (first < 0)
        return;
    if (any)
        put_char(*this, ',');
    put_id(*this, first);
    if (last > first) {
        put_char(*this, '-');
        put_id(*this, last);
    }
    any = true;
    first = -1;
}

std::string format_cpu_list(std::vector<int> ids)
{
    sort_unique(&ids);
    // Each id and its separator take at most 8 characters.
    std::string text(8 * ids.size(), '\0');
    size_t length = 0;
    cpu_list_writer writer{text.data(), text.size(), length};
    for (int id : ids)
        writer.add(id);
    writer.finish();
    text.resize(length);
    return text;
}

bool read_cpu_mask(bool process, cpu_mask *mask)
{
    for (int processors = 1024; processors <= MAX_PROCESSOR_ID; processors *= 2) {
        cpu_set_t *set = CPU_ALLOC(processors);
        size_t size = CPU_ALLOC_SIZE(processors);
        int error = process ? (sched_getaffinity(getpid(), size, set) == 0 ? 0 : errno)
                            : pthread_getaffinity_np(pthread_self(), size, set);
        if (error == 0) {
            *mask = {set, size, processors};
            return true;
        }
        CPU_FREE(set);
        if (error != EINVAL)  // EINVAL: the kernel's mask is larger
            return false;
    }
    return false;
}

bool cpu_mask_has(const cpu_mask &mask, int id)
{
    return id >= 0 && id < mask.processors && CPU_ISSET_S(id, mask.size, mask.set);
}

void free_cpu_mask(cpu_mask *mask)
{
    CPU_FREE(mask->set);
    mask->set = nullptr;
}

int bind_thread(int cpu) { return bind_thread_to({cpu}); }

int bind_thread_to(const std::vector<int> &cpus)
{
    int top = 0;
    for (int cpu : cpus) {
        if (cpu < 0 || cpu >= MAX_PROCESSOR_ID)
            return EINVAL;
        top = std::max(top, cpu + 1);
    }
    if (top == 0)
        return EINVAL;
    cpu_set_t *only = CPU_ALLOC(top);
    size_t size = CPU_ALLOC_SIZE(top);
    CPU_ZERO_S(size, only);
    for (int cpu : cpus)
        CPU_SET_S(cpu, size, only);
    int error = pthread_setaffinity_np(pthread_self(), size, only);
    CPU_FREE(only);
    return error;
}

void restore_thread_mask(const cpu_mask &mask)
{
    pthread_setaffinity_np(pthread_self(), mask.size, mask.set);
}
