#ifndef QUILLON_BENCH_DRIVEN_RECORDS_H
#define QUILLON_BENCH_DRIVEN_RECORDS_H

#include <mqueue.h>

#include <string>

#include "fw-update-mqdata.h"

namespace quillon::bench {

/// A pair of message queues as a client sees them: records go in, records come out.
/// Every failure is a std::system_error. Not for use by two threads.
class RecordChannel
{
public:
    /// Opens two queues that are there.
    RecordChannel(const std::string& in, const std::string& out);
    ~RecordChannel();
    RecordChannel(const RecordChannel&) = delete;
    RecordChannel& operator=(const RecordChannel&) = delete;

    /// Sends a record and waits for one, for two minutes at most.
    MQData ask(const MQData& record);
    MQData ask(MQCommand command, const std::string& path = "");

private:
    mqd_t in_;
    mqd_t out_;
};

/// A record that asks for something.
MQData recordOf(MQCommand command, const std::string& path = "");

}  // namespace quillon::bench

#endif
