#include "rows/round-trips.h"

#include <mqueue.h>

#include <chrono>
#include <iterator>
#include <string>

#include "driven/placement.h"
#include "driven/service.h"
#include "process/device.h"
#include "process/statistics.h"
#include "rows/rows.h"

namespace quillon::bench {
namespace {

constexpr const char* kEchoIn = "/quillon-bench-in";
constexpr const char* kEchoOut = "/quillon-bench-out";
constexpr int kQuestionsInARow = 500;

/// The floor: a process that gives every record back.
class Echo
{
public:
    explicit Echo(const std::string& buildFolder)
        : process_({buildFolder + "/bench/queue-echo", kEchoIn, kEchoOut}, socket_)
    {
        process_.waitUntilReady();
    }
    ~Echo()
    {
        mq_unlink(kEchoIn);
        mq_unlink(kEchoOut);
    }
    Echo(const Echo&) = delete;
    Echo& operator=(const Echo&) = delete;
    pid_t pid() const { return process_.pid(); }

private:
    ReadySocket socket_;
    StartedProcess process_;
};

void append(std::vector<double>& all, std::vector<double> more)
{
    all.insert(all.end(), std::make_move_iterator(more.begin()),
               std::make_move_iterator(more.end()));
}

void addRows(const std::string& placement, const std::vector<double>& service,
             const std::vector<double>& floor, std::vector<Row>& rows)
{
    const auto add = [&](const std::string& what, double ours, double theirs, double limit) {
        rows.push_back({"command 6 round trip, " + placement + ", " + what,
                        "bare queue ping-pong of 284 bytes", "times its time", ours / theirs,
                        Sense::kAtMost, limit,
                        fixed(ours, 1) + " µs; ping-pong " + fixed(theirs, 1) + " µs"});
    };
    add("median", median(service), median(floor), 1.5);
    add("99th percentile", percentile(service, 99), percentile(floor, 99), 2);
}

}  // namespace

std::vector<double> roundTrips(RecordChannel& channel, MQCommand command, int count)
{
    using std::chrono::steady_clock;
    const MQData question = recordOf(command);
    std::vector<double> times;
    times.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        const auto asked = steady_clock::now();
        static_cast<void>(channel.ask(question));
        const std::chrono::duration<double, std::micro> taken = steady_clock::now() - asked;
        times.push_back(taken.count());
    }
    return times;
}

void measureRoundTrips(const BenchPlan& plan, std::vector<Row>& rows, Json::Value& /*series*/)
{
    installModules(plan.buildFolder + "/bench/tiny-module.so", 1);
    Service service(plan.buildFolder);
    const Echo echo(plan.buildFolder);
    RecordChannel bare(kEchoIn, kEchoOut);

    const std::vector<int> places = processors();
    struct Placement
    {
        std::string name;
        int theirs;
    };
    std::vector<Placement> placements = {{"same CPU", places.front()}};
    if (places.size() > 1) {
        placements.push_back({"across CPUs", places.back()});
    }
    for (const Placement& placement : placements) {
        const OnProcessor here(places.front());
        placeOn(service.pid(), placement.theirs);
        placeOn(echo.pid(), placement.theirs);
        std::vector<double> questions;
        std::vector<double> pings;
        roundTrips(service.channel(), MQ_COMMAND_PROGRESS, kQuestionsInARow);
        roundTrips(bare, MQ_COMMAND_PROGRESS, kQuestionsInARow);
        for (int round = 0; round < plan.rounds * 2; ++round) {
            append(questions, roundTrips(service.channel(), MQ_COMMAND_PROGRESS, kQuestionsInARow));
            append(pings, roundTrips(bare, MQ_COMMAND_PROGRESS, kQuestionsInARow));
        }
        addRows(placement.name, questions, pings, rows);
    }
}

}  // namespace quillon::bench
