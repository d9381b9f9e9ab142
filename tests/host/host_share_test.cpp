// The line shared with other masters, against the built driver and the simulator: their
// requests go out once each between the host's own, the host's polling keeps its share
// of the line however many wait, and every reply the controller sent is told with the
// request it answers, so that nobody is shown a value for the wrong address.
#include <gtest/gtest.h>

#include <deque>
#include <thread>
#include <string>
#include <vector>

#include "host_fixture.h"
#include "rtuplc_link.h"
#include "rtuplc_support/modbus.h"

using namespace rtuhost;
using namespace std::chrono_literals;

using rtusupport::withCrc;

namespace {

std::vector<uint8_t> readRegisters(int station, int address, int count)
{
    return withCrc({uint8_t(station), 0x03, uint8_t(address >> 8), uint8_t(address), 0, uint8_t(count)});
}

struct Share : LineShare {
    std::deque<SharedRequest> waiting;
    bool endless = false; // a master that always has one more
    std::vector<uint8_t> endlessFrame;
    struct Answer {
        uint64_t id;
        Exchange::Outcome outcome;
        std::vector<uint8_t> reply;
    };
    std::vector<Answer> answers;
    struct Heard {
        std::vector<uint8_t> request, reply;
    };
    std::vector<Heard> told;
    uint64_t next = 1;

    void add(const std::vector<uint8_t> &frame) { waiting.push_back(SharedRequest{next++, frame}); }
    bool take(SharedRequest *r) override
    {
        if (endless && waiting.empty())
            add(endlessFrame);
        if (waiting.empty())
            return false;
        *r = waiting.front();
        waiting.pop_front();
        return true;
    }
    void answered(const SharedRequest &r, const Exchange &x, std::chrono::microseconds) override
    {
        answers.push_back({r.id, x.outcome, x.reply});
    }
    void heard(const uint8_t *req, size_t reqBytes, const uint8_t *reply, size_t replyBytes, Clock::time_point) override
    {
        told.push_back({{req, req + reqBytes}, {reply, reply + replyBytes}});
    }
};

struct Counter : HostEvents {
    int own = 0, shared = 0;
    void exchanged(const FRAME_PRO &f, const Exchange &) override { ++(f.reqKind == RTUPLC_KIND_IDLE ? shared : own); }
};

class HostShare : public HostAgainstSimulator {
protected:
    void SetUp() override
    {
        HostAgainstSimulator::SetUp();
        settings.margin = 40ms;
        settings.retries = 2;
    }
};

TEST_F(HostShare, TheHostsOwnPollingKeepsItsShareOfTheLineWhileOthersFloodIt)
{
    struct Row {
        double pollShare;
        double least, most; // of the exchanges, the host's own
    };
    // clang-format off
    const std::vector<Row> rows = {
        {0.5, 0.4, 0.6},
        {0.8, 0.68, 0.92},
        {0.2, 0.08, 0.32},
    };
    // clang-format on
    // The share is of line time: paced as a serial line carries them, every exchange
    // takes a few milliseconds, so that the scheduler's hiccups do not weigh.
    rtusupport::SerialLine fast;
    fast.baud = 115200;
    sim.setPacing(fast);
    for (const Row &row : rows) {
        SCOPED_TRACE(row.pollShare);
        Counter events;
        Share share;
        share.endless = true;
        share.endlessFrame = readRegisters(1, 0, 10); // as long as the host's own block
        Host host(api, *link, events, settings);
        host.monitor(items({"D_W:0..9@1"}));
        host.share(&share, row.pollShare);
        host.start();
        serve(host, 5s, [&] { return events.own + events.shared >= 150; });
        host.finish();
        const double own = double(events.own) / double(events.own + events.shared);
        EXPECT_GE(own, row.least);
        EXPECT_LE(own, row.most);
        EXPECT_EQ(size_t(events.shared), share.answers.size());
    }
}

TEST_F(HostShare, EachRequestIsAnsweredOnceAsTheControllerAnsweredIt)
{
    struct Row {
        const char *name;
        std::vector<uint8_t> frame;
        Exchange::Outcome outcome;
        bool heard;          // told as a reply the controller sent
        uint64_t lineFrames; // requests the simulator saw for it
    };
    sim.setStations({1});
    sim.refuse(1, rtusupport::Space::Registers, 500, 1, 0x02);
    const std::vector<Row> rows = {
        // clang-format off
        {"a read is passed back with the controller's bytes", readRegisters(1, 100, 3), Exchange::Outcome::Reply, true, 1},
        {"a refusal is passed back as it came", readRegisters(1, 500, 1), Exchange::Outcome::Exception, false, 1},
        {"a silent station is tried once: its master retries", readRegisters(9, 0, 1), Exchange::Outcome::NoReply, false, 1},
        {"a broadcast goes out and nobody waits", withCrc({0, 0x06, 0, 7, 0, 42}), Exchange::Outcome::NoReply, false, 1},
        {"a write's echo is told, so its addresses are known changed", withCrc({1, 0x06, 0, 7, 0, 42}), Exchange::Outcome::Reply, true, 1},
        // clang-format on
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Counter events;
        Share share;
        share.add(row.frame);
        Host host(api, *link, events, settings); // nothing of its own to poll
        host.share(&share);
        host.start();
        const uint64_t before = sim.counters().requests;
        serve(host, 2s, [&] { return !share.answers.empty(); });
        host.finish();
        // Nobody answers a broadcast: the line is free at once, maybe before the
        // simulator has counted it.
        for (int i = 0; i < 100 && sim.counters().requests - before < row.lineFrames; ++i)
            std::this_thread::sleep_for(10ms);
        ASSERT_EQ(share.answers.size(), 1u);
        EXPECT_EQ(share.answers[0].outcome, row.outcome);
        EXPECT_EQ(sim.counters().requests - before, row.lineFrames);
        ASSERT_EQ(share.told.size(), row.heard ? 1u : 0u);
        if (row.heard) {
            EXPECT_EQ(share.told[0].request, row.frame);
            EXPECT_EQ(share.told[0].reply, share.answers[0].reply);
        }
    }
    EXPECT_EQ(sim.reg(1, 7), 42);
}

TEST_F(HostShare, TheHostsOwnRepliesAreToldWithTheRequestTheyAnswer)
{
    Counter events;
    Share share;
    sim.setReg(1, 3, 0x1234);
    Host host(api, *link, events, settings);
    host.monitor(items({"D_W:0..9@1"}));
    host.share(&share);
    host.start();
    serve(host, 2s, [&] { return share.told.size() >= 3; });
    host.finish();
    ASSERT_GE(share.told.size(), 3u);
    for (const Share::Heard &h : share.told) {
        ASSERT_EQ(h.request.size(), 8u);
        EXPECT_EQ(h.request[1], 0x03);
        ASSERT_EQ(h.reply.size(), 3u + 2 * h.request[5] + 2);
        // The register the simulator holds, at its place in the reply of the request told.
        const int address = h.request[2] << 8 | h.request[3];
        const int at = 3 + 2 * (3 - address);
        EXPECT_EQ(h.reply[at] << 8 | h.reply[at + 1], 0x1234);
    }
}

} // namespace
