// The host loop's account of writes, against the built driver and the simulator: every
// write is settled once, by the frame that carries it, and a value the host wrote is
// reported only once a read brings it back. And the link under it on a fast, faultless
// line: a block polled again and again gets the same reply each time, and none of them
// may be taken for a copy of the one before.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host_fixture.h"

using namespace rtuhost;
using namespace std::chrono_literals;

namespace {

struct Recorder : HostEvents {
    std::vector<std::string> log;              // "value D_W:500=9", "write 2 Replaced"
    std::map<uint64_t, WriteOutcome> outcomes; // by id
    void valueRead(const Point &p, uint32_t v) override
    {
        log.push_back("value " + p.label().toStdString() + "=" + std::to_string(v));
    }
    void writeSettled(uint64_t id, const WriteRequest &, WriteOutcome o, const QString &detail) override
    {
        log.push_back("write " + std::to_string(id) + (o == WriteOutcome::Acknowledged ? " ack" : " not: ") +
                      (o == WriteOutcome::Acknowledged ? std::string() : detail.toStdString()));
        outcomes[id] = o;
    }
};

class HostLayer : public HostAgainstSimulator {
protected:
    void SetUp() override
    {
        HostAgainstSimulator::SetUp();
        settings.margin = std::chrono::milliseconds(50);
        settings.retries = 2;
        settings.confirmWrites = false;
    }

    Recorder events;
};

TEST_F(HostLayer, EachWriteIsSettledOnceByTheFrameThatCarriesIt)
{
    struct Row {
        const char *name;
        std::vector<const char *> writes;   // issued together, before the first exchange
        std::vector<int> stations;          // the simulator answers these
        std::vector<WriteOutcome> expected; // by id
        uint16_t register500;               // what the controller holds afterwards
    };
    using O = WriteOutcome;
    const std::vector<Row> rows = {
        // clang-format off
        {"a write waiting behind the head is replaced by a later one to the same address",
         {"D_W:500=1", "D_W:500=2", "D_W:500=3"}, {1}, {O::Acknowledged, O::Replaced, O::Acknowledged}, 3},
        {"writes to neighbouring addresses are each acknowledged", {"D_W:500=7", "D_W:501=8"}, {1},
         {O::Acknowledged, O::Acknowledged}, 7},
        {"a write to a silent station fails after its retries", {"D_W:500@2=5"}, {1}, {O::Failed}, 500},
        // clang-format on
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        sim.fill(rtusupport::Fill::Pattern);
        sim.setStations(row.stations);
        Recorder recorder;
        Host host(api, *link, recorder, settings);
        host.monitor({});
        std::vector<uint64_t> ids;
        for (const char *w : row.writes)
            ids.push_back(host.write(request(w)));
        host.start();
        serve(host, 5s, [&] { return recorder.outcomes.size() >= row.writes.size(); });
        std::vector<WriteOutcome> byId;
        for (uint64_t id : ids)
            byId.push_back(recorder.outcomes.count(id) ? recorder.outcomes[id] : O::Unfinished);
        EXPECT_EQ(byId, row.expected);
        EXPECT_EQ(sim.reg(1, 500), row.register500);
        host.finish();
    }
}

TEST_F(HostLayer, AWrittenValueIsReportedOnlyOnceAReadBringsIt)
{
    sim.setStations({1});
    Host host(api, *link, events, settings);
    host.monitor(items({"D_W:500"}));
    host.start();
    serve(host, 5s, [&] { return !events.log.empty(); });
    ASSERT_EQ(events.log, std::vector<std::string>{"value D_W:500=500"});

    host.write(request("D_W:500=9"));
    serve(host, 5s, [&] { return events.log.size() >= 3; });
    // The cache shows the value at once; the host says so only after the controller
    // acknowledged it and a read brought it back.
    EXPECT_EQ(events.log, (std::vector<std::string>{"value D_W:500=500", "write 1 ack", "value D_W:500=9"}));
    host.finish();
}

TEST_F(HostLayer, IdenticalRepliesToTheSameRequestAreAllAnswers)
{
    link->setTiming(std::chrono::milliseconds(100), std::chrono::milliseconds(0));
    FRAME_PRO f;
    const uint8_t request[] = {0x01, 0x03, 0x00, 0x64, 0x00, 0x02, 0x85, 0xD4}; // D 100..101
    std::copy(std::begin(request), std::end(request), f.frame);
    f.frameLen = int(sizeof request);
    f.replyLen = 9;
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(link->exchange(f, std::chrono::milliseconds(100), stop).outcome, Exchange::Outcome::Reply) << i;
    EXPECT_EQ(link->stats().dropped[int(DropReason::Doubled)], 0u);
}

} // namespace
