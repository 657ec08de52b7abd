/* Questions through message queues, and the floor under them. Queues that are not there are made.

   queues echo IN OUT takes every record out of one queue and puts it into the other, until it is
   killed. queues ask ROUNDS COUNT IN OUT IN OUT asks both pairs of queues COUNT times, ROUNDS times
   in turns, after COUNT times each that are not told. Prints PAIR MICROSECONDS for each question.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <mqueue.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "fw-update-mqdata.h"

static mqd_t openQueue(const char* name)
{
    struct mq_attr attributes = {.mq_maxmsg = FW_MQ_MAX_MESSAGES, .mq_msgsize = sizeof(MQData)};
    return mq_open(name, O_RDWR | O_CREAT, 0600, &attributes);
}

static int echo(mqd_t in, mqd_t out)
{
    char record[sizeof(MQData)];
    ssize_t size = 0;
    do {
        size = mq_receive(in, record, sizeof record, NULL);
    } while (size >= 0 && mq_send(out, record, (size_t)size, 0) == 0);
    return 1;
}

static double microseconds(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e6 + (double)now.tv_nsec / 1e3;
}

int main(int count, char* arguments[])
{
    if (count == 4 && strcmp(arguments[1], "echo") == 0) {
        return echo(openQueue(arguments[2]), openQueue(arguments[3]));
    }
    if (count != 8 || strcmp(arguments[1], "ask") != 0) {
        fputs("usage: queues echo IN OUT | queues ask ROUNDS COUNT IN OUT IN OUT\n", stderr);
        return 2;
    }
    const int questions = atoi(arguments[3]);
    const int all = (2 * atoi(arguments[2]) + 2) * questions; /* two turns of them are not told */
    double* times = calloc((size_t)all, sizeof *times);
    const mqd_t in[] = {openQueue(arguments[4]), openQueue(arguments[6])};
    const mqd_t out[] = {openQueue(arguments[5]), openQueue(arguments[7])};
    for (int i = 0; i < all; ++i) {
        const MQData question = {.command = MQ_COMMAND_PROGRESS, .kind = FW_MQ_KIND};
        char reply[sizeof question];
        const int pair = i / questions % 2;
        const double asked = microseconds();
        if (mq_send(in[pair], (const char*)&question, sizeof question, 0) != 0 ||
            mq_receive(out[pair], reply, sizeof reply, NULL) == -1) {
            perror("queues");
            return 1;
        }
        times[i] = microseconds() - asked;
    }
    /* Not earlier, since whoever reads it would compete with the next turn for the processor. */
    for (int i = 2 * questions; i < all; ++i) {
        printf("%d %.3f\n", i / questions % 2, times[i]);
    }
    free(times);
    return 0;
}
