/* Test shim (LD_PRELOAD) for the daemon's crash tests: the module's write of
 * its binding file goes out in small pieces with a pause after each, so a
 * kill lands in the middle of a save often, not once in a million. Only a
 * file named dhcpSnoop.cfg opened for writing is slowed.
 *
 * DHCPSNOOP_SLOW_SAVE_US: the pause after each piece (default 2000). */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { kPiece = 512 };

static FILE *tracked;

static int isBindingFile(const char *path, const char *mode)
{
    static const char name[] = "/dhcpSnoop.cfg";
    size_t n = path ? strlen(path) : 0;
    return mode && (mode[0] == 'w' || mode[0] == 'a') && n >= sizeof name - 1 &&
           strcmp(path + n - (sizeof name - 1), name) == 0;
}

static useconds_t pauseUs(void)
{
    const char *v = getenv("DHCPSNOOP_SLOW_SAVE_US");
    return v ? (useconds_t)strtoul(v, NULL, 10) : 2000u;
}

static FILE *track(FILE *f, const char *path, const char *mode)
{
    if (f && isBindingFile(path, mode))
        tracked = f;
    return f;
}

FILE *fopen(const char *path, const char *mode)
{
    FILE *(*real)(const char *, const char *) = (FILE * (*)(const char *, const char *)) dlsym(RTLD_NEXT, "fopen");
    return track(real(path, mode), path, mode);
}

FILE *fopen64(const char *path, const char *mode)
{
    FILE *(*real)(const char *, const char *) = (FILE * (*)(const char *, const char *)) dlsym(RTLD_NEXT, "fopen64");
    return track(real(path, mode), path, mode);
}

size_t fwrite(const void *data, size_t size, size_t count, FILE *f)
{
    size_t (*real)(const void *, size_t, size_t, FILE *) =
        (size_t(*)(const void *, size_t, size_t, FILE *))dlsym(RTLD_NEXT, "fwrite");
    size_t total, done = 0;
    if (f != tracked || tracked == NULL || size == 0)
        return real(data, size, count, f);
    total = size * count;
    while (done < total) {
        size_t n = total - done < kPiece ? total - done : kPiece;
        if (real((const char *)data + done, 1, n, f) != n)
            return done / size;
        fflush(f);
        done += n;
        usleep(pauseUs());
    }
    return count;
}

int fclose(FILE *f)
{
    int (*real)(FILE *) = (int (*)(FILE *))dlsym(RTLD_NEXT, "fclose");
    if (f == tracked)
        tracked = NULL;
    return real(f);
}
