// Preloaded into a run (LD_PRELOAD): the test's first 4096 draws of the C
// library's generator, one a line, to the file $DRAWS_LOG, so that a test can
// compare the draws of two runs.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

extern "C" long lrand48(void)
{
    static long (*real)(void);
    static int fd = -2, left = 4096;  // one thread draws in a one-processor run
    if (real == NULL)
        real = reinterpret_cast<long (*)(void)>(dlsym(RTLD_NEXT, "lrand48"));
    long value = real();
    if (fd == -2)
        fd = getenv("DRAWS_LOG") ? open(getenv("DRAWS_LOG"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600) : -1;
    if (fd >= 0 && left-- > 0) {
        char line[24];
        int n = snprintf(line, sizeof line, "%ld\n", value);
        if (write(fd, line, static_cast<size_t>(n)) != n)
            fd = -1;
    }
    return value;
}
