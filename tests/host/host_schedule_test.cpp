// The line's time, against the built driver and the simulator: a station that stops
// answering is tried now and then instead of costing every pass its time-outs, one that
// answers in any way is never taken for gone, and blocks read slowly cost the fast ones
// nothing while their values stay as fresh as asked.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host_fixture.h"

using namespace rtuhost;
using namespace std::chrono_literals;

namespace {

struct Recorder : HostEvents {
    std::map<int, int> reads, failures, sent;  // by station: fresh block reads, failed requests, frames on the line
    std::map<int, Clock::time_point> lastRead; // by station
    std::map<std::string, std::vector<Clock::time_point>> blockReads; // by block text
    std::map<std::string, int> values;                                // by point: values reported
    std::vector<std::pair<WriteOutcome, std::string>> writes;
    Clock::time_point writeSettledAt{};
    long turns = 0;
    void blockRead(const FRAME_PRO &f) override
    {
        ++reads[f.station];
        lastRead[f.station] = Clock::now();
        blockReads[std::to_string(f.station) + ":" + std::to_string(f.startAddr)].push_back(Clock::now());
    }
    void requestFailed(const FRAME_PRO &f, const Failure &why) override
    {
        ++failures[f.station];
        failed.push_back(why.why.toStdString());
    }
    std::vector<std::string> failed;
    void exchanged(const FRAME_PRO &f, const Exchange &x) override { sent[f.station] += x.sent ? 1 : 0; }
    void valueRead(const Point &p, uint32_t) override { ++values[p.label().toStdString()]; }
    void writeSettled(uint64_t, const WriteRequest &, WriteOutcome o, const QString &detail) override
    {
        writes.emplace_back(o, detail.toStdString());
        writeSettledAt = Clock::now();
    }
    void progress(const Stats &) override { ++turns; }
};

class HostSchedule : public HostAgainstSimulator {
protected:
    void SetUp() override
    {
        HostAgainstSimulator::SetUp();
        settings.margin = 40ms;
        settings.retries = 3;
        settings.probeInterval = 300ms;
        settings.probeMax = 600ms;
    }

    // Polls stations 1 and 2 with 2 switched off, until the host takes it for offline.
    void startWithStation2Off(Host &host)
    {
        sim.setStations({1});
        host.monitor(items({"D_W:0..9@1", "D_W:0..9@2"}));
        host.start();
        serve(host, 2s, [&] { return host.offline().count(2) == 1; });
        ASSERT_EQ(host.offline().count(2), 1u);
    }
};

TEST_F(HostSchedule, OnlyASilentStationIsTakenOfflineAndItCostsTheLineOneTryNowAndThen)
{
    struct Row {
        const char *name;
        std::vector<int> answering; // the simulator's stations during the run
        rtusupport::Faults faults;  // on every station
        int retries;
        std::vector<int> offlineAtEnd;
        int most2; // frames to station 2 on the line at most
    };
    rtusupport::Faults none, garbage, lossy;
    garbage.corrupt = 1;
    lossy.drop = 1.0 / 3;
    // In 1.2 s station 2 gets its retries, then a try at 0.3 s and at 0.9 s (the pause
    // doubled): 3 + 2, and a retry or two at most for a try under way.
    const std::vector<Row> rows = {
        // clang-format off
        {"a station switched off goes offline and is only tried now and then", {1}, none, 3, {2}, 7},
        {"a station that refuses with an exception is alive", {1, 2}, none, 3, {}, 100000},
        {"replies that fail the check take stations offline", {1, 2}, garbage, 3, {1, 2}, 7},
        {"one reply in three lost: the retries suffice, nobody is taken offline", {1, 2}, lossy, 6, {}, 100000},
        // clang-format on
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        sim.setStations(row.answering);
        sim.setFaults(row.faults);
        sim.setSeed(7);
        sim.accept(1);
        if (row.offlineAtEnd.empty() && row.faults.drop == 0)
            sim.refuse(2, rtusupport::Space::Registers, 0, 1000, 2);
        settings.retries = row.retries;
        Recorder events;
        Host host(api, *link, events, settings);
        host.monitor(items({"D_W:0..9@1", "D_W:0..9@2"}));
        host.start();
        serve(host, 1200ms, [] { return false; });
        host.finish();
        std::vector<int> offline;
        for (const auto &[station, silence] : host.offline())
            offline.push_back(station);
        EXPECT_EQ(offline, row.offlineAtEnd);
        EXPECT_LE(events.sent[2], row.most2);
        if (row.answering.size() == 1) { // the station still answering is polled flat out
            EXPECT_GT(events.reads[1], 100);
        }
        sim.accept(2);
        sim.setFaults(none);
    }
}

TEST_F(HostSchedule, AStationGoneCostsItsTimeOutsNotTheWholeMarginOfQuietAfterEach)
{
    // Once answers have been timed the quiet after a time-out is twice the longest of
    // them, not the margin: two attempts cost two time-outs, about 0.6 s, not 1.2 s.
    settings.margin = 300ms;
    settings.retries = 2;
    sim.setStations({1});
    Recorder events;
    Host host(api, *link, events, settings);
    host.monitor(items({"D_W:0..9@1", "D_W:0..9@2"}));
    host.start();
    const auto started = Clock::now();
    serve(host, 3s, [&] { return host.offline().count(2) == 1; });
    EXPECT_LT((Clock::now() - started) / 1ms, 900);
    EXPECT_LT(host.stats().line.guardTotal / 1ms, 150);
    host.finish();
}

TEST_F(HostSchedule, AStationBackIsPolledAgainWithinItsProbeInterval)
{
    Recorder events;
    Host host(api, *link, events, settings);
    ASSERT_NO_FATAL_FAILURE(startWithStation2Off(host));
    const int failedBefore = events.failures[2];
    sim.setStations({1, 2});
    const auto on = Clock::now();
    serve(host, 2s, [&] { return events.reads[2] > 0; });
    ASSERT_GT(events.reads[2], 0);
    EXPECT_LE(events.lastRead[2] - on, settings.probeInterval + 100ms);
    EXPECT_TRUE(host.offline().empty());
    EXPECT_EQ(events.failures[2], failedBefore) << events.failed.back();
    host.finish();
}

TEST_F(HostSchedule, AWriteToAnOfflineStationIsTriedAtOnceAndSaysSo)
{
    settings.probeInterval = 5s; // far off: a write waiting for it would show
    Recorder events;
    Host host(api, *link, events, settings);
    ASSERT_NO_FATAL_FAILURE(startWithStation2Off(host));
    const auto asked = Clock::now();
    host.write(request("D_W:500@2=5"));
    serve(host, 2s, [&] { return !events.writes.empty(); });
    ASSERT_EQ(events.writes.size(), 1u);
    EXPECT_EQ(events.writes[0].first, WriteOutcome::Failed);
    EXPECT_NE(events.writes[0].second.find("station 2 is offline"), std::string::npos) << events.writes[0].second;
    EXPECT_LT(events.writeSettledAt - asked, 500ms); // one time-out, not the probe's turn
    host.finish();
}

TEST_F(HostSchedule, SlowBlocksAreReadAsOftenAsAskedAndNothingIsReportedBetween)
{
    sim.setStations({1});
    sim.setChurn(true); // every fresh read changes every value: a value reported is a value read
    Recorder events;
    Host host(api, *link, events, settings);
    host.monitor(items({"D_W:0..9@1", "D_W:1000..1009@1/250ms"}));
    host.start();
    serve(host, 1200ms, [] { return false; });
    host.finish();
    sim.setChurn(false);
    const auto &slow = events.blockReads["1:1000"];
    ASSERT_GE(slow.size(), 4u);
    EXPECT_LE(slow.size(), 6u);
    for (size_t i = 1; i < slow.size(); ++i)
        EXPECT_LE(slow[i] - slow[i - 1], 250ms + 50ms) << "read " << i;
    EXPECT_GT(events.blockReads["1:0"].size(), 20 * slow.size());
    EXPECT_EQ(events.values["D_W:1005"], int(slow.size())) << "a value reported without a read";
}

TEST_F(HostSchedule, ALineWithNothingDueRestsInsteadOfSpinning)
{
    sim.setStations({1});
    Recorder events;
    Host host(api, *link, events, settings);
    host.monitor(items({"D_W:0..9@2", "D_W:100..109@2", "D_W:0..9@1/1m"}));
    host.start();
    serve(host, 1s, [] { return false; });
    host.finish();
    EXPECT_EQ(host.offline().count(2), 1u);
    EXPECT_LT(events.turns, 2000) << "the loop turned without putting anything on the line";
}

} // namespace
