/* The tiny module, but one that takes every image, as costly as the environment says:
     QUILLON_BENCH_TARGET   writes the payload into this file; without it, drops the payload
     QUILLON_BENCH_FLASH    bytes a second that its flash takes; without it, any amount at once
     QUILLON_BENCH_TAKES    microseconds that each update takes in addition
   A program that exports quillonBenchOwnTime is told the time that each update took. */
#define _GNU_SOURCE
#define TAKES_IMAGES
#include "tiny-module.c"

#include <stdint.h>
#include <stdlib.h>
#include <time.h>

__attribute__((weak)) void quillonBenchOwnTime(int64_t nanoseconds);

static int64_t now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (int64_t)time.tv_sec * 1000000000 + time.tv_nsec;
}

static double numberIn(const char* variable)
{
    const char* text = getenv(variable);
    return text == NULL ? 0 : atof(text);
}

static int isWrittenTo(const char* path, const unsigned char* data, int length)
{
    FILE* file = fopen(path, "wb");
    const int isWritten = file != NULL && setvbuf(file, NULL, _IONBF, 0) == 0 &&
                          fwrite(data, 1, (size_t)length, file) == (size_t)length;
    return file != NULL && fclose(file) == 0 && isWritten;
}

int checkVersion(const char* version, int* need)
{
    *need = 1;
    return 0;
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    const int64_t begin = now();
    const char* target = getenv("QUILLON_BENCH_TARGET");
    const double flash = numberIn("QUILLON_BENCH_FLASH");
    const double seconds = numberIn("QUILLON_BENCH_TAKES") / 1e6 + (flash > 0 ? length / flash : 0);
    const int isTaken = target == NULL || isWrittenTo(target, data, length);
    struct timespec rest = {.tv_sec = (time_t)seconds};
    rest.tv_nsec = (long)((seconds - (double)rest.tv_sec) * 1e9);
    while (isTaken && seconds > 0 && nanosleep(&rest, &rest) != 0) {
    }
    if (quillonBenchOwnTime != NULL) {
        quillonBenchOwnTime(now() - begin);
    }
    return isTaken ? 0 : -1;
}

int doUpdate(const char* path, unsigned long value)
{
    return doUpdate_decryption(NULL, 0);
}
