// The text files the program reads: the kernel's (sysfs, procfs), a
// recorded machine's under --sysroot, rasdaemon's database. A path may name
// anything: a FIFO that never answers, /dev/zero, a file of gigabytes. Each
// read is of a regular file, opened so that it cannot block, and of at
// most a stated number of bytes.
#ifndef TARNEL_TEXTFILE_H
#define TARNEL_TEXTFILE_H

#include <cstddef>
#include <string>

// Sysfs files and processor lists stay far below this.
constexpr size_t small_file_bytes = 1 << 16;
// /proc/cpuinfo and /proc/interrupts of a machine of thousands of
// processors stay below this.
constexpr size_t table_file_bytes = 1 << 24;

// The first `cap` bytes of the file at path. False, with why (when given)
// saying what is wrong, for a file that cannot be opened or is not a
// regular file.
bool read_text_file(const std::string &path, size_t cap, std::string *text, std::string *why = nullptr);
// The first line of a small file, without its line end; "" when it cannot
// be read.
std::string read_first_line(const std::string &path);
// The decimal number alone on a small file's first line, as sysfs writes
// one ("42", "-5"); false for a file that cannot be read, or holds
// anything else or a number out of range.
bool read_decimal(const std::string &path, long long *value);
// A count or an id as sysfs writes it: the number, or -1 for a file that
// cannot be read or holds no number of at least 0.
long long read_count(const std::string &path);
// Whether path names a regular file (following links), else why not.
bool is_regular_file(const std::string &path, std::string *why);

#endif
