// The floor under a question to the service: takes a record out of one queue and puts it into
// another, until it is killed. Usage: queue-echo QUEUE-IN QUEUE-OUT
// Both queues are made anew. It says READY=1 as the service does.

#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>

#include <cstdio>

#include "floor/say-ready.h"
#include "fw-update-mqdata.h"

namespace {

mqd_t make(const char* name)
{
    mq_attr attributes = {};
    attributes.mq_maxmsg = FW_MQ_MAX_MESSAGES;
    attributes.mq_msgsize = sizeof(MQData);
    mq_unlink(name);
    return mq_open(name, O_RDWR | O_CREAT | O_EXCL, 0600, &attributes);
}

}  // namespace

int main(int count, char* arguments[])
{
    if (count != 3) {
        return 2;
    }
    const mqd_t in = make(arguments[1]);
    const mqd_t out = make(arguments[2]);
    if (in == -1 || out == -1 || !sayReadyIfAsked()) {
        return 1;
    }
    char record[sizeof(MQData)];
    for (;;) {
        const ssize_t size = mq_receive(in, record, sizeof record, nullptr);
        if (size < 0 || mq_send(out, record, static_cast<size_t>(size), 0) != 0) {
            return 1;
        }
    }
}
