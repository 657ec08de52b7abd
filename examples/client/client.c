/* A client of the control channel in plain C, without libquillon-client: updates from a directory
 * and waits for the end.
 *
 *     cc -std=c11 -I/usr/include/quillon -o client client.c && ./client /opt/media/USBDriveA/
 *
 * Status 0: updated, or nothing to update; 1: anything else, which the error output tells.
 *
 * quillon-control-channel(7) describes the records. This client does what it asks of every client:
 * it takes the clients' lock, throws old replies away, and never waits without an end. */
#define _POSIX_C_SOURCE 200809L
#define _DEFAULT_SOURCE /* flock() */
#include <errno.h>
#include <fcntl.h>
#include <fw-update-mqdata.h>
#include <mqueue.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define LONGEST_PATH 127
#define ESTIMATE_SECONDS 600 /* the service reads every image meanwhile */
#define REPLY_SECONDS 5

static mqd_t commands, replies;

static _Noreturn void fail(const char* what)
{
    fprintf(stderr, "client: %s\n", what);
    exit(1);
}

static _Noreturn void fail_with_errno(const char* what)
{
    fprintf(stderr, "client: %s: %s\n", what, strerror(errno));
    exit(1);
}

/* As every client: in /run/lock where every user may write, else in /tmp. */
static const char* lock_file(void)
{
    struct stat status;
    const int is_shared = stat("/run/lock", &status) == 0 && S_ISDIR(status.st_mode) &&
                          (status.st_mode & 01002) == 01002;
    return is_shared ? "/run/lock/quillon-client.lock" : "/tmp/quillon-client.lock";
}

/* The kernel releases the lock when this process ends, however it ends. */
static void lock_out_other_clients(void)
{
    const int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    int file = open(lock_file(), flags);
    if (file < 0 && errno == ENOENT) {
        file = open(lock_file(), flags | O_CREAT | O_EXCL, 0666);
        if (file >= 0) {
            fchmod(file, 0666); /* whatever the umask */
        }
    }
    struct stat status;
    if (file < 0 || fstat(file, &status) != 0) {
        fail_with_errno(lock_file());
    }
    if (!S_ISREG(status.st_mode) || (status.st_nlink != 1 && (status.st_mode & 07777) != 0666)) {
        fail("somebody else's file stands at the clients' lock: its owner or root may remove it");
    }
    if (flock(file, LOCK_EX | LOCK_NB) != 0) {
        fail("another client is connected: try again when it has ended");
    }
}

static mqd_t open_queue(const char* name, int flags)
{
    const mqd_t queue = mq_open(name, flags | O_CLOEXEC);
    struct mq_attr attributes;
    if (queue == (mqd_t)-1 && errno == ENOENT) {
        fail("the update service is not running");
    }
    if (queue == (mqd_t)-1 || mq_getattr(queue, &attributes) != 0) {
        fail_with_errno(name);
    }
    if (attributes.mq_msgsize != sizeof(MQData)) {
        fail("the queue carries records of another size: it is not the update service's");
    }
    return queue;
}

/* Queues know this clock alone: a limit moves when somebody sets the time. */
static struct timespec in_seconds(int seconds)
{
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += seconds;
    return until;
}

static long waiting(mqd_t queue)
{
    struct mq_attr attributes;
    return mq_getattr(queue, &attributes) == 0 ? attributes.mq_curmsgs : 0;
}

/* What earlier clients have left: the service first answers their commands, and waits while ten
 * replies are unread. */
static void throw_old_replies_away(void)
{
    const struct timespec past = {0, 0}, pause = {0, 5000000};
    const time_t end = time(NULL) + ESTIMATE_SECONDS;
    char bytes[sizeof(MQData)];
    while (waiting(commands) + waiting(replies) > 0) {
        if (mq_timedreceive(replies, bytes, sizeof bytes, NULL, &past) < 0) {
            nanosleep(&pause, NULL);
        }
        if (time(NULL) > end) {
            fail("the update service is busy with earlier commands, or does not answer");
        }
    }
}

static void send_command(MQCommand command, const char* path)
{
    MQData record;
    memset(&record, 0, sizeof record);
    record.command = command;
    record.kind = FW_MQ_KIND;
    snprintf(record.path, sizeof record.path, "%s", path);
    const struct timespec until = in_seconds(REPLY_SECONDS);
    if (mq_timedsend(commands, (const char*)&record, sizeof record, 0, &until) != 0) {
        fail_with_errno("the update service does not take the command");
    }
}

static MQData receive_reply(struct timespec until)
{
    MQData reply;
    do {
        const ssize_t size = mq_timedreceive(replies, (char*)&reply, sizeof reply, NULL, &until);
        if (size < 0) {
            fail_with_errno("no reply from the update service");
        }
        if (size != sizeof reply) {
            reply.command = 0;
        }
    } while (reply.command != MQ_COMMAND_REPLY);
    return reply;
}

static int is_progress(const MQData* reply)
{
    return reply->result == MQ_RESULT_RUNNING || reply->result == MQ_RESULT_DONE ||
           reply->result == MQ_RESULT_FAILED || reply->result == MQ_RESULT_NOT_RUNNING;
}

/* A reply does not name its command; replies to progress queries have results of their own. */
static MQData ask(MQCommand command, const char* path, int seconds)
{
    MQData reply;
    send_command(command, path);
    const struct timespec until = in_seconds(seconds); /* for all, also replies to others */
    do {
        reply = receive_reply(until);
    } while (is_progress(&reply) != (command == MQ_COMMAND_PROGRESS));
    return reply;
}

/* A start may get no reply. A query right behind it always does: if its reply is the first to come,
 * the start was dropped. */
static void start_update(void)
{
    send_command(MQ_COMMAND_START, "");
    send_command(MQ_COMMAND_PROGRESS, "");
    const MQData reply = receive_reply(in_seconds(ESTIMATE_SECONDS));
    if (is_progress(&reply)) {
        fail("the service has started nothing: its log tells why");
    }
    if (reply.result != MQ_RESULT_ACCEPTED) {
        fail("the service is already updating");
    }
}

/* The end is told once, to the query that comes first behind it; that may be the start's. */
static int wait_for_the_end(void)
{
    MQData reply = receive_reply(in_seconds(REPLY_SECONDS));
    while (reply.result == MQ_RESULT_RUNNING || !is_progress(&reply)) {
        printf("%d %%\n", (int)reply.value);
        fflush(stdout);
        sleep(1);
        reply = ask(MQ_COMMAND_PROGRESS, "", REPLY_SECONDS);
    }
    return reply.result;
}

int main(int argc, char** argv)
{
    if (argc != 2 || argv[1][0] != '/') {
        fail("name one directory, from / on");
    }
    const size_t length = strlen(argv[1]);
    if (length >= LONGEST_PATH) {
        fail("the service takes at most 126 characters of a directory and a / behind them");
    }
    char path[LONGEST_PATH + 1];
    memset(path, '/', LONGEST_PATH); /* a shorter path would keep the end of an earlier one */
    memcpy(path, argv[1], length);
    path[LONGEST_PATH] = '\0';

    commands = open_queue(FW_MQ_SERVICE_QUEUE, O_WRONLY);
    replies = open_queue(FW_MQ_CONTROL_QUEUE, O_RDONLY);
    lock_out_other_clients();
    throw_old_replies_away();
    /* One more may be on its way. It comes before the reply to this query. */
    ask(MQ_COMMAND_PROGRESS, "", REPLY_SECONDS);

    ask(MQ_COMMAND_PATH, path, REPLY_SECONDS);
    const MQData estimate = ask(MQ_COMMAND_TIME, "", ESTIMATE_SECONDS);
    if (estimate.result != MQ_RESULT_ACCEPTED) {
        puts("nothing to update");
        return 0;
    }
    printf("updating, about %d s\n", (int)estimate.value);
    start_update();
    const int result = wait_for_the_end();
    ask(MQ_COMMAND_TIME, "",
        ESTIMATE_SECONDS); /* renews the service's marks while the stick is there */
    puts(result == MQ_RESULT_DONE ? "updated" : "the update failed: the service's log tells why");
    return result == MQ_RESULT_DONE ? 0 : 1;
}
