// Bounded, non-blocking reads of the program's input files (textfile.h).
#include "textfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// An open descriptor of a regular file, or -1 with why.
int open_regular(const std::string &path, std::string *why)
{
    // O_NONBLOCK: opening a FIFO with no writer returns at once, to be
    // refused below, instead of waiting for ever.
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        if (why != nullptr)
            *why = path + " cannot be opened: " + strerror(errno);
        return -1;
    }
    struct stat status;
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        if (why != nullptr)
            *why = path + " is not a regular file";
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

bool is_regular_file(const std::string &path, std::string *why)
{
    int fd = open_regular(path, why);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

std::string read_first_line(const std::string &path)
{
    std::string text;
    read_text_file(path, small_file_bytes, &text);
    return text.substr(0, text.find_first_of("\r\n"));
}

bool read_decimal(const std::string &path, long long *value)
{
    std::string line = read_first_line(path);
    size_t sign = line.starts_with('-') ? 1 : 0;
    if (line.size() == sign || line.find_first_not_of("0123456789", sign) != std::string::npos)
        return false;
    errno = 0;
    *value = strtoll(line.c_str(), nullptr, 10);
    return errno == 0;
}

long long read_count(const std::string &path)
{
    long long value = -1;
    return read_decimal(path, &value) && value >= 0 ? value : -1;
}

bool read_text_file(const std::string &path, size_t cap, std::string *text, std::string *why)
{
    text->clear();
    int fd = open_regular(path, why);
    if (fd < 0)
        return false;
    // Kernel files report no size (procfs) or a page (sysfs): read to the
    // end or the cap, whichever comes first.
    char chunk[1 << 14];
    while (text->size() < cap) {
        ssize_t got = read(fd, chunk, std::min(sizeof chunk, cap - text->size()));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        text->append(chunk, static_cast<size_t>(got));
    }
    close(fd);
    return true;
}
