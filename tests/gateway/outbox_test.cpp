// The outbox decides what a broker that was away gets to see: the order of the messages,
// the latest value of every topic, and every answer to a write.
#include "mqtt_mosquitto.h"
#include "mqtt_outbox.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using rtugw::Message;
using rtugw::MosquittoMqttClient;
using rtugw::MqttEvent;
using rtugw::MqttSettings;
using rtugw::Outbox;
using Clock = std::chrono::steady_clock;

namespace {

// A scenario in a few characters: "a=1" holds value 1 on topic a, "!r=1" holds event 1 on
// topic r, "#3=1" holds the compact reading 1 of value 3 (topic "#3"), "~#3=1" the same
// with the broker there (a waiting reading gives way), "<" takes the oldest message out. What comes out, in order, is
// every "<" and then whatever is still held.
struct Scenario {
    const char *name;
    size_t capacity;
    const char *steps;
    const char *out;
    uint64_t dropped;
};

const Scenario kScenarios[] = {
    // clang-format off
    {"order kept while there is room, replaced values included", 10, "a=1 b=1 a=2 c=1 b=2", "a=1 b=1 a=2 c=1 b=2", 0},
    {"when full the replaced value goes, not the newest", 3, "a=1 b=1 a=2 c=1", "b=1 a=2 c=1", 1},
    {"the value replaced longest ago goes first", 4, "a=1 a=2 b=1 b=2 a=3", "a=2 b=1 b=2 a=3", 1},
    {"latest of each topic kept even past the capacity", 2, "a=1 b=1 c=1 a=2 b=2 c=2", "a=2 b=2 c=2", 3},
    {"events are never dropped", 2, "!r=1 !r=2 !r=3 a=1", "r=1 r=2 r=3 a=1", 0},
    {"an event replaces a value but is never replaced", 1, "a=1 !r=1 a=2 !r=2", "r=1 a=2 r=2", 1},
    {"grows past the capacity when nothing may go", 2, "a=1 b=1 c=1 d=1", "a=1 b=1 c=1 d=1", 0},
    {"pop skips a dropped message at the front", 2, "a=1 a=2 a=3 < <", "a=2 a=3", 1},
    {"pops between pushes, drop in the middle", 3, "a=1 b=1 < b=2 c=1 b=3 <", "a=1 b=2 c=1 b=3", 1},
    {"a value already sent is not dropped nor counted", 2, "a=1 a=2 < b=1 c=1", "a=1 a=2 b=1 c=1", 0},
    {"a topic sent in full starts afresh", 1, "a=1 < a=2 a=3", "a=1 a=3", 1},
    {"pop on empty gives nothing", 1, "< < a=1", "a=1", 0},
    {"readings keep their order among messages", 10, "#1=1 a=1 #2=1 !r=1 #1=2", "#1=1 a=1 #2=1 r=1 #1=2", 0},
    {"a reading replaced longest ago goes first", 3, "#1=1 #1=2 #2=1 #2=2 a=1", "#1=2 #2=2 a=1", 2},
    {"the latest reading of each value is kept past the capacity", 1, "#1=1 #2=1 #1=2 #2=2", "#1=2 #2=2", 2},
    {"a value sent in full starts afresh", 1, "#1=1 < #1=2 #1=3", "#1=1 #1=3", 1},
    {"with the broker there a waiting reading gives way to the next in its place", 10, "~#1=1 ~#2=1 ~#1=2", "#1=2 #2=1", 1},
    {"readings held while it was away are not given way", 10, "#1=1 ~#1=2 ~#1=3", "#1=1 #1=3", 1},
    {"a reading already sent is not given way", 10, "~#1=1 < ~#1=2", "#1=1 #1=2", 0},
    // clang-format on
};

// What the tests' readings become: topic "#KEY", the value as the payload.
const rtugw::ValueFormatter kFormatter = [](const rtugw::ValueUpdate &v) {
    return Message{"#" + std::to_string(v.key), std::to_string(v.value), 1, true, {}, {}};
};

std::string describe(const Message &m)
{
    return m.topic + "=" + m.payload;
}

TEST(Outbox, Scenarios)
{
    for (const Scenario &s : kScenarios) {
        SCOPED_TRACE(s.name);
        Outbox box(s.capacity, kFormatter);
        std::vector<std::string> out;
        std::istringstream steps(s.steps);
        for (std::string step; steps >> step;) {
            const bool conflate = step[0] == '~', event = step[0] == '!';
            const size_t eq = step.find('=');
            if (step == "<") {
                if (auto m = box.pop())
                    out.push_back(describe(*m));
            } else if (step[conflate] == '#') {
                const uint32_t key = uint32_t(std::stoul(step.substr(conflate + 1, eq - conflate - 1)));
                const uint32_t value = uint32_t(std::stoul(step.substr(eq + 1)));
                box.push(rtugw::ValueUpdate{key, value, 0, true, true, {}}, conflate);
            } else {
                box.push(Message{step.substr(event, eq - event), step.substr(eq + 1), 1, !event, {}, {}},
                         event ? Outbox::Kind::Event : Outbox::Kind::Value);
            }
        }
        EXPECT_EQ(box.dropped(), s.dropped);
        const size_t held = box.size(), before = out.size();
        while (auto m = box.pop())
            out.push_back(describe(*m));
        EXPECT_EQ(out.size() - before, held) << "size() disagrees with what comes out";
        EXPECT_EQ(box.size(), 0u);
        std::string joined;
        for (const std::string &o : out)
            joined += (joined.empty() ? "" : " ") + o;
        EXPECT_EQ(joined, s.out);
    }
}

// A long outage with values changing on many topics, answers mixed in, and the line
// sending now and then: whatever is dropped, the broker must end up with each topic's
// latest value, every answer, and everything in the order it was published.
TEST(Outbox, LongOutageKeepsLatestOrderAndAnswers)
{
    const size_t kCapacity = 500;
    const int kTopics = 200, kPushes = 20000;
    std::mt19937 random(7);
    Outbox box(kCapacity, [](const rtugw::ValueUpdate &v) {
        return Message{"t" + std::to_string(v.key), std::to_string(v.value), 1, true, {}, {}};
    });
    std::map<std::string, int> latest, lastOut;
    int events = 0, eventsOut = 0, lastSeq = -1;
    auto take = [&](const Message &m) {
        const int seq = std::stoi(m.payload);
        ASSERT_GT(seq, lastSeq) << "out of order";
        lastSeq = seq;
        if (m.topic == "answer")
            ++eventsOut;
        else
            lastOut[m.topic] = seq;
    };
    for (int i = 0; i < kPushes; ++i) {
        if (random() % 50 == 0) {
            box.push(Message{"answer", std::to_string(i), 1, false, {}, {}}, Outbox::Kind::Event);
            ++events;
        } else {
            // Even topics come as the line's compact readings, odd ones as whole messages.
            const unsigned t = random() % kTopics;
            const std::string topic = "t" + std::to_string(t);
            latest[topic] = i;
            if (t % 2 == 0)
                box.push(rtugw::ValueUpdate{t, uint32_t(i), 0, true, true, {}});
            else
                box.push(Message{topic, std::to_string(i), 1, true, {}, {}}, Outbox::Kind::Value);
        }
        EXPECT_LE(box.size(), kCapacity + size_t(events)) << "held more than room plus answers";
        if (random() % 100 == 0)
            if (auto m = box.pop())
                take(*m);
    }
    EXPECT_GT(box.dropped(), 0u);
    while (auto m = box.pop())
        take(*m);
    EXPECT_EQ(eventsOut, events);
    EXPECT_EQ(lastOut, latest);
}

// Nothing listens on port 1 of loopback.
constexpr int kClosedPort = 1;

// The broker may be away when the gateway starts, for hours: the line must be polled
// all the same, the values held, one clear complaint made rather than one per retry,
// and the gateway must still stop at once.
TEST(MqttClientWithoutBroker, StartsHoldsComplainsOnceAndStops)
{
    MqttSettings s;
    s.host = "127.0.0.1";
    s.port = kClosedPort;
    s.clientId = "outbox-test";
    s.username = "gw";
    s.password = "sesame-42";
    s.buffer = 3;
    MosquittoMqttClient client(s);
    client.subscribe("p/+/+/+/set");

    std::string error;
    const Clock::time_point started = Clock::now();
    ASSERT_TRUE(client.start(&error)) << error;
    EXPECT_LT(Clock::now() - started, std::chrono::milliseconds(200)) << "start() waited for the broker";

    for (const char *v : {"1", "2", "3", "4"})
        client.publish(Message{"p/1/D/1", v, 1, true, {}, {}});
    client.publish(Message{"p/1/D/2", "9", 1, true, {}, {}});
    client.publish(Message{"p/1/D/1/result", "ok", 1, false, {}, {}}, Outbox::Kind::Event);
    client.pump(); // handed over to the sender, which holds them
    EXPECT_FALSE(client.connected());
    EXPECT_EQ(client.stats().held, 3u);
    EXPECT_EQ(client.stats().dropped, 3u);
    EXPECT_EQ(client.stats().published, 0u);

    // Long enough for the first attempt and the retry a second later.
    std::vector<MqttEvent> events;
    for (const Clock::time_point end = Clock::now() + std::chrono::milliseconds(1600); Clock::now() < end;) {
        client.pump();
        for (MqttEvent &e : client.takeEvents())
            events.push_back(e);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_EQ(events.size(), 1u) << "a failure that does not change is told once";
    EXPECT_EQ(events[0].type, MqttEvent::Type::Failed);
    EXPECT_EQ(events[0].text,
              "cannot reach the broker at 127.0.0.1:" + std::to_string(s.port) + ": connection refused");

    const Clock::time_point stopping = Clock::now();
    client.stop({Message{"p/status", "offline", 1, true, {}, {}}}, std::chrono::seconds(5));
    EXPECT_LT(Clock::now() - stopping, std::chrono::seconds(1)) << "stop() waited for a broker that is not there";
}

TEST(MqttClientWithoutBroker, RefusesUnreadableTlsFiles)
{
    MqttSettings s;
    s.host = "127.0.0.1";
    s.port = kClosedPort;
    s.tls = true;
    s.ca = "/nonexistent/ca.crt";
    s.clientId = "outbox-test";
    MosquittoMqttClient client(s);
    std::string error;
    EXPECT_FALSE(client.start(&error));
    EXPECT_NE(error.find("/nonexistent/ca.crt"), std::string::npos) << error;
}

} // namespace
