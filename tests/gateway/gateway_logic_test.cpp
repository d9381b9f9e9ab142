// The gateway's logic against a broker client of the test's own: what goes out when
// the broker connects, what a write request on the broker becomes, what the broker's
// state reads, and what each dialect says on a clean stop. The driver is the real one
// (it checks items and values); no line and no broker are opened.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "broker.h"
#include "dialect.h"
#include "model.h"
#include "payload.h"
#include "plan.h"
#include "rtuplc_host/driver_location.h"
#include "web_state.h"

using namespace rtugw;

namespace {

class RecordingClient : public MqttClient {
public:
    std::vector<std::string> subscribed;
    std::vector<Message> published; // values made into their messages at once
    std::vector<MqttEvent> events;
    std::vector<Message> incoming;
    ValueFormatter formatter;
    std::function<Message()> willProvider;

    bool start(std::string *) override { return true; }
    void setWillProvider(std::function<Message()> p) override { willProvider = std::move(p); }
    void setFormatter(ValueFormatter f) override { formatter = std::move(f); }
    void subscribe(const std::string &filter) override { subscribed.push_back(filter); }
    void publish(Message m, Outbox::Kind) override { published.push_back(std::move(m)); }
    void publishValue(ValueUpdate v) override { published.push_back(formatter(v)); }
    void pump() override {}
    std::vector<Message> takeIncoming() override { return std::exchange(incoming, {}); }
    std::vector<MqttEvent> takeEvents() override { return std::exchange(events, {}); }
    bool connected() const override { return true; }
    MqttStats stats() const override { return {}; }
    void stop(const std::vector<Message> &, std::chrono::milliseconds) override {}
    void reconnect(const std::vector<Message> &, std::chrono::milliseconds) override {}
};

// A gateway of one station, D_W:500..501 writable, M:3 read only, without its line.
struct Rig {
    explicit Rig(bool sparkplug)
    {
        std::string why;
        EXPECT_TRUE(rtuhost::loadDriver(RTUPLC_LIBRARY, &api, &why)) << why;
        catalogue = std::make_unique<rtuhost::Catalogue>(api);
        config.file = "line1.yaml";
        config.name = "line1";
        config.mqtt.topic = "rtuplc/line1";
        config.mqtt.mode = sparkplug ? MqttConfig::Mode::Sparkplug : MqttConfig::Mode::Plain;
        config.sparkplug.group = "plant";
        config.items.resize(2);
        config.items[0].text = "D_W:500..501";
        config.items[0].writable = true;
        config.items[0].line = 1;
        config.items[1].text = "M:3";
        config.items[1].line = 2;
        EXPECT_TRUE(makePlan(config, api, *catalogue, &plan, &why)) << why;
        link = rtuhost::makeTcpLink("127.0.0.1", 1);
        model = std::make_unique<Model>(config, api, *catalogue);
        host = std::make_unique<rtuhost::Host>(api, *link, *model, rtuhost::HostSettings{});
        host->monitor(plan.items);
        model->attach(*host, plan.values);
        dialect = makeDialect(*model);
        dialect->shapeSession(&settings);
        auto owned = std::make_unique<RecordingClient>();
        client = owned.get();
        broker = std::make_unique<Broker>(std::move(owned), config.mqtt);
        dialect->bind(*broker);
        model->addSink(dialect.get());
        broker->addListener(dialect.get());
    }
    void turn()
    {
        broker->tick();
        model->tick();
    }

    rtuhost::DriverApi api;
    std::unique_ptr<rtuhost::Catalogue> catalogue;
    Config config;
    LinePlan plan;
    std::unique_ptr<rtuhost::Link> link;
    std::unique_ptr<Model> model;
    std::unique_ptr<rtuhost::Host> host;
    std::unique_ptr<Dialect> dialect;
    MqttSettings settings;
    RecordingClient *client = nullptr;
    std::unique_ptr<Broker> broker;
};

TEST(GatewayLogic, EachDialectShapesItsSessionIsBornAndSaysGoodbye)
{
    struct Case {
        const char *name;
        bool sparkplug;
        std::vector<std::string> subscribed;
        std::string will, birth; // "TOPIC PAYLOAD", in the settings; empty: none
        uint32_t sessionExpiry;
        std::vector<std::string> atStart;   // published before any connection; "TOPIC PAYLOAD"
        std::vector<std::string> connected; // published by the first connection, topics only
        std::vector<std::string> farewell;  // topics, after the first connection
    };
    const Case cases[] = {
        // clang-format off
        // Plain topics say the stations at once, and the birth on every connection.
        {"plain", false, {"rtuplc/line1/+/+/+/set"}, "rtuplc/line1/status offline",
         "rtuplc/line1/status online", 7 * 24 * 3600, {"rtuplc/line1/1/status offline"}, {}, {"rtuplc/line1/status"}},
        // A node is born anew each connection: no session kept; its will comes per attempt.
        // Its own death certificate too: one of the live session means hosts think it dead.
        // No station has answered yet: the node alone is born, its devices when they answer.
        {"sparkplug", true, {"spBv1.0/plant/NCMD/line1", "spBv1.0/plant/DCMD/line1/+", "spBv1.0/plant/NDEATH/line1"},
         "", "", 0, {}, {"spBv1.0/plant/NBIRTH/line1"}, {"spBv1.0/plant/NDEATH/line1"}},
        // clang-format on
    };
    const auto said = [](const Message &m) { return m.topic.empty() ? std::string() : m.topic + ' ' + m.payload; };
    const auto topics = [&](const std::vector<Message> &messages, bool payload) {
        std::vector<std::string> out;
        for (const Message &m : messages)
            out.push_back(payload ? said(m) : m.topic);
        return out;
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Rig rig(c.sparkplug);
        EXPECT_EQ(rig.client->subscribed, c.subscribed);
        EXPECT_EQ(said(rig.settings.will), c.will);
        EXPECT_EQ(said(rig.settings.birth), c.birth);
        EXPECT_EQ(rig.settings.sessionExpiry, c.sessionExpiry);
        EXPECT_EQ(bool(rig.client->willProvider), c.sparkplug);
        EXPECT_EQ(topics(rig.client->published, true), c.atStart);
        EXPECT_EQ(rig.broker->state(), "connecting");
        rig.client->published.clear();
        rig.client->events.push_back(MqttEvent{MqttEvent::Type::Connected, false, {}});
        rig.turn();
        EXPECT_TRUE(rig.broker->up());
        EXPECT_EQ(rig.broker->state(), "connected");
        EXPECT_EQ(topics(rig.client->published, false), c.connected);
        EXPECT_EQ(topics(rig.dialect->farewell(), false), c.farewell);
        rig.client->events.push_back(MqttEvent{MqttEvent::Type::Lost, false, "gone"});
        rig.turn();
        EXPECT_FALSE(rig.broker->up());
        EXPECT_EQ(rig.broker->state(), "connection lost");
    }
}

// A station back from a silence: each of its values may have changed unseen, whether
// its block was polled meanwhile or not. Its device is born only once every block was
// read since, never with a value from before the silence said good.
TEST(GatewayLogic, SparkplugDeviceIsBornAgainOnlyWithValuesReadSinceItsSilence)
{
    Rig rig(true);
    // The poll of the values from `first` to `last`, as the driver hands it over.
    const auto frame = [&](const char *first, const char *last) {
        const Point &a = rig.model->points()[size_t(rig.model->find(first))].point;
        const Point &b = rig.model->points()[size_t(rig.model->find(last))].point;
        FRAME_PRO f;
        f.station = a.station;
        f.regName = a.area->name;
        f.startAddr = a.firstUnit();
        f.len = f.dataLen = b.firstUnit() + b.units() - a.firstUnit();
        f.reqKind = RTUPLC_KIND_MONITOR_READ;
        return f;
    };
    const FRAME_PRO words = frame("1/D_W/500", "1/D_W/501"), bit = frame("1/M/3", "1/M/3");
    const size_t bitPoint = size_t(rig.model->find("1/M/3"));
    const auto births = [&] {
        return std::count_if(rig.client->published.begin(), rig.client->published.end(),
                             [](const Message &m) { return m.topic == "spBv1.0/plant/DBIRTH/line1/station1"; });
    };
    rig.client->events.push_back(MqttEvent{MqttEvent::Type::Connected, false, {}});
    rig.turn();
    // (what happens, DBIRTHs published since the start, the bit's value good)
    struct Step {
        const char *what;
        std::function<void()> event;
        long births;
        bool bitGood;
    };
    // A first read reports every value; later ones only what changed.
    const auto firstRead = [&](const FRAME_PRO &f) {
        for (const size_t i : rig.host->pointsIn(f))
            rig.model->valueRead(rig.host->points()[i], 1);
        rig.model->blockRead(f);
    };
    const Step steps[] = {
        // clang-format off
        {"the words answer", [&] { firstRead(words); }, 0, false},
        {"the bit answers: every block read", [&] { firstRead(bit); }, 1, true},
        {"the words fail: the station is silent", [&] { rig.model->requestFailed(words, rtuhost::Failure{}); }, 1,
         false},
        {"the words answer again, the bit not yet", [&] { rig.model->blockRead(words); }, 1, false},
        {"the bit answers again", [&] { rig.model->blockRead(bit); }, 2, true},
        // clang-format on
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(step.what);
        step.event();
        rig.turn();
        EXPECT_EQ(births(), step.births);
        EXPECT_EQ(rig.model->points()[bitPoint].good, step.bitGood);
    }
}

TEST(GatewayLogic, AWriteRequestGetsOneAnswer)
{
    struct Case {
        const char *name;
        std::string path, payload;
        std::string error; // empty: the write goes to the line, acknowledged below
    };
    const Case cases[] = {
        // clang-format off
        {"bare number", "1/D_W/500", "1234", ""},
        {"object with an id, the answer says what was written", "1/D_W/501", R"({"value":1234,"id":"a"})", ""},
        {"not a number", "1/D_W/500", "abc", R"(\"abc\" is not a number: send a whole number (1234, -5, 0x1F))"},
        {"out of range", "1/D_W/500", "70000", R"(\"70000\" is not a value here: a 16-bit value takes -32768..65535)"},
        {"empty", "1/D_W/500", "", R"(the payload is empty: send a number, or {\"value\":1234,\"id\":\"...\"})"},
        {"read only", "1/M/3", "1", "M:3@1 is not configured writable (writable: true in the gateway's configuration)"},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Rig rig(false);
        rig.client->published.clear();
        const uint64_t id = rig.host->nextWriteId();
        rig.client->incoming.push_back(
            Message{"rtuplc/line1/" + c.path + "/set", c.payload, 1, false, "reply/here", "42"});
        rig.turn();
        if (c.error.empty()) {
            ASSERT_TRUE(rig.client->published.empty()) << "answered before the controller did";
            ASSERT_EQ(rig.host->nextWriteId(), id + 1) << "no write queued";
            rig.model->writeSettled(id, rtuhost::WriteRequest{}, rtuhost::WriteOutcome::Acknowledged, {});
        }
        ASSERT_EQ(rig.client->published.size(), 2u);
        const Message &result = rig.client->published[0], &response = rig.client->published[1];
        EXPECT_EQ(result.topic, "rtuplc/line1/" + c.path + "/result");
        if (!c.error.empty())
            EXPECT_EQ(result.payload, R"({"id":null,"ok":false,"error":")" + c.error + "\"}");
        else
            EXPECT_NE(result.payload.find("\"ok\":true,\"value\":1234"), std::string::npos) << result.payload;
        // Where MQTT 5 asked, the same answer with the request's correlation.
        EXPECT_EQ(response.topic, "reply/here");
        EXPECT_EQ(response.payload, result.payload);
        EXPECT_EQ(response.correlation, "42");
    }
}

// A trend keeps one reading per step, never loses a change of quality, and once full
// gives up its oldest: its memory is set by its capacity, not by how long it runs.
TEST(GatewayLogic, TrendKeepsOneReadingAStepWithinItsCapacity)
{
    const double bad = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        const char *name;
        size_t capacity;
        std::vector<Sample> in;   // resolution 10 ms
        std::vector<int64_t> out; // the times kept, oldest first
    };
    const std::vector<Case> cases = {
        // clang-format off
        {"readings within a step replace the last", 10, {{0, 1}, {5, 2}, {8, 3}, {12, 4}},       {0, 8, 12}},
        {"a step apart, each stays",                10, {{0, 1}, {10, 2}, {20, 3}},              {0, 10, 20}},
        {"a bad reading breaks the line and stays", 10, {{0, 1}, {1, 2}, {2, bad}, {3, 4}},      {0, 1, 2, 3}},
        {"full: the oldest gives way",              3,  {{0, 1}, {10, 2}, {20, 3}, {30, 4}, {40, 5}}, {20, 30, 40}},
        {"no history kept",                         0,  {{0, 1}, {10, 2}},                       {}},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Trend t;
        for (const Sample &s : c.in)
            t.add(s, 10, c.capacity);
        std::vector<int64_t> kept;
        for (size_t i = 0; i < t.size(); ++i)
            kept.push_back(t.at(i).ms);
        EXPECT_EQ(kept, c.out);
    }
}

} // namespace
