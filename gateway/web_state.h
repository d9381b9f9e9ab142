// What the web page, the JSON API and /metrics show, kept apart from the Model: the
// HTTP server answers on its own threads while the Model lives on the poll loop's, so
// the loop copies what changed in here (under a mutex) and the server reads only this.
// Writes from the page travel the other way: queued here, taken by the loop.
#ifndef RTUPLC_GATEWAY_WEB_STATE_H
#define RTUPLC_GATEWAY_WEB_STATE_H

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "model.h"
#include "mqtt_client.h"

namespace rtugw {

// One reading of a value for the trend; a bad reading (NaN) breaks the line.
struct Sample {
    int64_t ms = 0; // since the epoch
    double value = 0;
    bool good() const { return value == value; }
};

// A value's trend: its latest samples, at most `capacity`, oldest first. Fixed once
// full, so that a value changing at every read for days costs what it did after one
// window, and nothing at all until it is first read.
class Trend {
public:
    // Within `resolution` of the sample before the last, the last is replaced: at most
    // one reading per step is kept, the latest, and a change of quality always stays.
    void add(const Sample &s, int64_t resolution, size_t capacity);
    size_t size() const { return ring_.size(); }
    const Sample &at(size_t i) const { return ring_[(head_ + i) % ring_.size()]; }

private:
    Sample &slot(size_t i) { return ring_[(head_ + i) % ring_.size()]; }
    std::vector<Sample> ring_;
    size_t head_ = 0; // the oldest, once the ring is full
};

// A value /metrics shows as a gauge of its own (metrics: true), as last copied.
struct Gauge {
    std::string labels; // station="1",path="1/D_W/100",name="..",unit=".."
    double value = 0;
    bool good = false; // a bad or unread value is left out
};

// Upper bounds (s) of the poll cycle histogram's buckets: from a fast TCP link to a
// slow serial line retrying.
constexpr std::array<double, 10> kCycleBuckets{0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5};

struct CycleHistogram {
    std::array<uint64_t, kCycleBuckets.size()> counts{}; // not cumulative
    uint64_t count = 0;
    double sum = 0; // s
    void add(double seconds);
};

// The line's and the broker's figures, as last copied by the loop.
struct WebFigures {
    rtuhost::Stats host;
    MqttStats mqtt;
    WriteCounters writes;
    bool brokerUp = false;
    std::string brokerState;
    bool lineUp = false; // some station answers
    double pollsPerSecond = 0;
    int64_t uptime = 0; // s
    CycleHistogram cycle;
    std::string statsJson;            // as the stats topic carries it
    std::map<int, int64_t> nextProbe; // offline station -> when it is tried next, ms since the epoch
    bool modbusServer = false;        // the gateway serves other masters:
    ModbusFigures modbus;             // what its Modbus server did
};

// A write asked for over HTTP, answered by the loop.
struct PendingWrite {
    std::string path;
    std::string value; // empty: refused with `refusal`
    bool isText = false;
    std::string refusal;
    std::string idJson = "null";
    std::mutex lock;
    std::condition_variable settled;
    bool done = false;
    WriteAnswer answer;
};

class WebState {
public:
    WebState(const Model &model, std::chrono::minutes history);

    // On the loop's thread. A changed value is only marked; flush() copies the values
    // marked since, under one lock for them all.
    void valueChanged(size_t index);
    void flush();
    void stationsChanged();
    void setFigures(WebFigures figures);
    // When each block was last polled (Model::blockReads); a few times a second.
    void setReads(const std::vector<SystemTime> &reads);
    std::vector<std::shared_ptr<PendingWrite>> takeWrites();

    // On the server's threads.
    std::string itemsJson() const;
    // False when there is no such value.
    bool historyJson(const std::string &path, std::string *json) const;
    std::string statsJson() const;
    WebFigures figures() const;
    std::vector<Gauge> gauges() const;
    std::map<int, bool> stations() const;
    void queueWrite(const std::shared_ptr<PendingWrite> &write);

    // For the live page: what changed since `seen` (a sequence number this returns in
    // `*seen`); everything when `seen` is 0. Waits up to `wait` for a change; empty when
    // nothing changed or on stop. The loop copies the figures a few times a second only,
    // so a client that asks ten times a second gets each change once.
    std::string updatesSince(uint64_t *seen, std::chrono::milliseconds wait);
    void stop();

private:
    struct Item {
        std::string meta;  // "station":..,"area":.. fields, fixed
        ValueType type;    // how its payload is made
        ValueUpdate value; // made into its topic's payload when asked for
        uint64_t seq = 0;  // when it last changed
        Trend history;
        long gauge = -1; // into gauges_, with metrics: true
    };
    std::string stationsJsonLocked() const;
    std::string figuresJsonLocked() const;

    const Model &model_;
    const int64_t historyMs_;
    size_t trendSamples_ = 0;    // kept per value, from a budget shared by them all
    int64_t resolutionMs_ = 0;   // samples closer than this replace each other
    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::vector<Item> items_;
    std::vector<Gauge> gauges_;
    std::vector<size_t> marked_; // the loop's own: changed since the last flush()
    std::vector<bool> isMarked_;
    std::map<int, bool> stations_;
    uint64_t stationsSeq_ = 0;
    WebFigures figures_;
    uint64_t figuresSeq_ = 0;
    // The page works out each value's last read from its block's.
    std::vector<int64_t> reads_; // ms since the epoch, by block
    std::vector<int> blockOf_;   // by value; -1 until polled
    uint64_t readsSeq_ = 0;
    uint64_t blocksSeq_ = 0;
    uint64_t seq_ = 0;
    bool stopping_ = false;
    std::vector<std::shared_ptr<PendingWrite>> writes_;
};

} // namespace rtugw

#endif
