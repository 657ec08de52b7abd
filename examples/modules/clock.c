/* The template of a firmware module in C11: everything in one file, nothing but the C library.
 *
 * Copy it, then change the identifier in getEMPID (letters and digits, with "emp" once in it) and
 * replace flash() and the two settings by what your component needs. The entries' names and results
 * stay. tuner.cpp says when the service calls each of them.
 *
 * Like the other examples it flashes into "/var/lib/quillon/examples/clock/" as slowly as
 * "/etc/quillon/examples/clock.conf" says (speed=BYTES_PER_SECOND, expected_time=SECONDS).
 */
#define _POSIX_C_SOURCE 200809L /* NOLINT: the C library itself asks for this name */

#include "fw-update-plugin.h"

#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define SETTINGS "/etc/quillon/examples/clock.conf"
#define STATE "/var/lib/quillon/examples/clock"
#define VERSION_NUMBERS 4

static pthread_mutex_t flashing = PTHREAD_MUTEX_INITIALIZER; /* held while an update runs */
static pthread_mutex_t guard = PTHREAD_MUTEX_INITIALIZER;    /* guards offered */
static char offered[FW_PLUGIN_TEXT_SIZE];
static atomic_uint percent;

/* to: FW_PLUGIN_TEXT_SIZE bytes */
static void copyText(char* to, const char* text)
{
    size_t i = 0;
    for (; i < FW_PLUGIN_TEXT_SIZE - 1 && text[i] != '\0'; ++i) {
        to[i] = text[i];
    }
    to[i] = '\0';
}

static long readSetting(const char* key, long standard)
{
    FILE* settings = fopen(SETTINGS, "re");
    if (settings == NULL) {
        return standard;
    }
    char line[128];
    const size_t length = strlen(key);
    while (fgets(line, sizeof(line), settings) != NULL) {
        if (strncmp(line, key, length) == 0 && line[length] == '=') {
            standard = strtol(line + length + 1, NULL, 10);
        }
    }
    (void)fclose(settings);
    return standard < 0 ? 0 : standard > INT32_MAX ? INT32_MAX : standard;
}

/* Numbers between dots; numbers that are not there count as 0. */
static bool parseVersion(const char* text, unsigned long numbers[VERSION_NUMBERS])
{
    for (int i = 0; i < VERSION_NUMBERS; ++i) {
        numbers[i] = 0;
    }
    for (int i = 0; i < VERSION_NUMBERS; ++i) {
        if (*text < '0' || *text > '9') {
            return false;
        }
        char* end = NULL;
        numbers[i] = strtoul(text, &end, 10);
        if (*end == '\0') {
            return true;
        }
        if (*end != '.') {
            return false;
        }
        text = end + 1;
    }
    return false;
}

static bool isNewer(const unsigned long* one, const unsigned long* other)
{
    for (int i = 0; i < VERSION_NUMBERS; ++i) {
        if (one[i] != other[i]) {
            return one[i] > other[i];
        }
    }
    return false;
}

/* Keeps to the speed: sleeps until so many seconds after start. */
static void sleepUntil(struct timespec start, double seconds)
{
    const long whole = (long)seconds;
    start.tv_sec += whole;
    start.tv_nsec += (long)((seconds - (double)whole) * 1e9);
    if (start.tv_nsec >= 1000000000L) {
        start.tv_sec += 1;
        start.tv_nsec -= 1000000000L;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &start, NULL) == EINTR) {
    }
}

/* speed is in bytes per second, 0: as fast as the disk takes them */
static bool writeSlowly(FILE* file, const unsigned char* data, size_t length, long speed)
{
    size_t chunk = speed == 0 ? 65536 : (size_t)speed / 20;
    chunk = chunk < 1 ? 1 : chunk > 65536 ? 65536 : chunk;
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);

    for (size_t done = 0; done < length;) {
        const size_t step = length - done < chunk ? length - done : chunk;
        if (fwrite(data + done, 1, step, file) != step || fflush(file) != 0) {
            return false;
        }
        done += step;
        atomic_store(&percent, (unsigned int)((uint64_t)done * 100 / length));
        if (speed > 0) {
            sleepUntil(start, (double)done / (double)speed);
        }
    }
    return true;
}

/* A file appears under its name only when all of it is on the disk. */
static bool replaceFile(const char* path, const char* part, const unsigned char* data,
                        size_t length, long speed)
{
    FILE* file = fopen(part, "wbe");
    if (file == NULL) {
        return false;
    }
    const bool written =
        writeSlowly(file, data, length, speed) && fflush(file) == 0 && fsync(fileno(file)) == 0;
    const int error = errno;
    const bool closed = fclose(file) == 0;
    if (!written) {
        (void)remove(part);
        errno = error;
        return false;
    }
    return closed && rename(part, path) == 0;
}

static void makeDirectories(void)
{
    /* What is really wrong with a directory shows when the file in it is opened. */
    mkdir("/var/lib/quillon", 0755);
    mkdir("/var/lib/quillon/examples", 0755);
    mkdir(STATE, 0755);
}

static int flash(const unsigned char* data, size_t length)
{
    char version[FW_PLUGIN_TEXT_SIZE];
    pthread_mutex_lock(&guard);
    copyText(version, offered);
    pthread_mutex_unlock(&guard);
    if (version[0] == '\0') {
        errno = ENODATA;
        return -1;
    }

    makeDirectories();
    atomic_store(&percent, 0);
    if (!replaceFile(STATE "/firmware.bin", STATE "/firmware.bin.part", data, length,
                     readSetting("speed", 1048576))) {
        return -1;
    }
    /* Last, so that after a power cut in between the update is asked for again. */
    if (!replaceFile(STATE "/version", STATE "/version.part", (const unsigned char*)version,
                     strlen(version), 0)) {
        return -1;
    }
    atomic_store(&percent, 100);
    return 0;
}

int setContext(const char* libraryName, CallerTypes caller, char* argument)
{
    (void)libraryName;
    (void)caller;
    (void)argument;
    return 0;
}

int getEMPID(char* buffer)
{
    copyText(buffer, "clockemp");
    return 0;
}

int getActiveVersion(char* buffer)
{
    copyText(buffer, "0");
    FILE* file = fopen(STATE "/version", "re");
    if (file == NULL) {
        return 0; /* before the first update */
    }
    if (fgets(buffer, FW_PLUGIN_TEXT_SIZE, file) == NULL) {
        copyText(buffer, "0");
    }
    buffer[strcspn(buffer, "\n")] = '\0';
    (void)fclose(file);
    return 0;
}

int checkVersion(const char* version, int* need)
{
    char active[FW_PLUGIN_TEXT_SIZE];
    getActiveVersion(active);
    unsigned long mine[VERSION_NUMBERS];
    unsigned long theirs[VERSION_NUMBERS];
    if (strlen(version) >= sizeof(offered) || !parseVersion(version, theirs) ||
        !parseVersion(active, mine)) {
        errno = EINVAL;
        return -1;
    }
    pthread_mutex_lock(&guard);
    copyText(offered, version);
    pthread_mutex_unlock(&guard);
    *need = isNewer(theirs, mine) ? 1 : 0;
    return 0;
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    if (length < 0) {
        errno = EINVAL;
        return -1;
    }
    if (pthread_mutex_trylock(&flashing) != 0) {
        errno = EBUSY;
        return -1;
    }
    const int result = flash(data, (size_t)length);
    pthread_mutex_unlock(&flashing);
    return result;
}

/* The CRC-32 of images: polynomial 0x01B23CA3, most significant bit first, initial value 0, nothing
 * reflected, no final XOR. It is not the common CRC-32. */
static uint32_t imageChecksum(const unsigned char* data, size_t length)
{
    uint32_t crc = 0;
    for (size_t i = 0; i < length; ++i) {
        crc ^= (uint32_t)data[i] << 24;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc << 1) ^ ((crc & 0x80000000U) != 0 ? 0x01B23CA3U : 0U);
        }
    }
    return crc;
}

/* The caller frees the result; null with errno on failure. */
static unsigned char* readImage(const char* path, size_t* length)
{
    FILE* file = fopen(path, "rbe");
    if (file == NULL) {
        return NULL;
    }
    struct stat status;
    if (fstat(fileno(file), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size > INT32_MAX) {
        (void)fclose(file);
        errno = EINVAL;
        return NULL;
    }
    *length = (size_t)status.st_size;
    unsigned char* data = malloc(*length + 1);
    const bool whole = data != NULL && fread(data, 1, *length, file) == *length;
    (void)fclose(file);
    if (!whole) {
        errno = data == NULL ? ENOMEM : EIO;
        free(data);
        return NULL;
    }
    return data;
}

/* value: the file's CRC-32. The service has compared them already; here it is compared with the
 * bytes that are really written. */
int doUpdate(const char* path, unsigned long value)
{
    size_t length = 0;
    unsigned char* data = readImage(path, &length);
    if (data == NULL) {
        return -1;
    }
    int result = -1;
    if (imageChecksum(data, length) == value) {
        result = doUpdate_decryption(data, (int)length);
    } else {
        errno = EBADMSG;
    }
    const int error = errno;
    free(data);
    errno = error;
    return result;
}

int getExpectedTime(int* seconds)
{
    *seconds = (int)readSetting("expected_time", 5);
    return 0;
}

int getUpdateProgress(unsigned int* progress)
{
    *progress = atomic_load(&percent);
    return 0;
}

int allUpdateDone(void)
{
    return 0;
}
