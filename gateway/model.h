// The gateway's picture of the line: every value with its quality and the time it was
// read, every station's status, and the writes in flight. It follows the host loop's
// events, so that a value is good only when it was read since the last failure, and it
// tells its sinks (the MQTT publishers, the web page, the CSV log) what changed. Writes
// from any of them are checked here, once, before anything is sent.
//
// Everything runs on the poll loop's thread.
#ifndef RTUPLC_GATEWAY_MODEL_H
#define RTUPLC_GATEWAY_MODEL_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "config.h"
#include "modbus_stats.h"
#include "plan.h"
#include "rtuplc_host/host.h"

namespace rtugw {

using rtuhost::Point;
using rtuhost::ValueType;
using SystemTime = std::chrono::system_clock::time_point;

// A point as the line gives it: the register or bit the host polls, unsigned.
struct PointState {
    Point point;
    bool known = false; // read at least once
    uint32_t value = 0; // unsigned; a 32-bit value whole
    bool good = false;  // read since the last failure
    std::string error;  // why it is bad
    SystemTime ts{};    // when it was read, or found bad
    int block = -1;     // the block it is polled in, once polled: into Model::blockReads()
};

// A value as it is published, made of one point or several (a float over two
// registers, a string), and what its sinks were last told of it.
struct ValueState {
    std::string path; // STATION/AREA/ADDR[.BIT], ADDR in the area's notation: "1/X/17", "1/D_W/100.3"
    Point point;      // where it starts
    ValueType type;
    bool writable = false;
    const ItemConfig *item = nullptr; // where the configuration names it
    std::vector<uint32_t> points;     // into Model::points(), in address order

    // As last published.
    bool known = false; // read at least once, every point of it
    bool good = false;  // read since the last failure, and a number where one is meant
    uint32_t raw = 0;   // its registers packed (rtuhost::packWords); a plain value as read
    std::string words;  // a string's registers, two bytes each, the high byte first
    std::string error;  // why it is bad
    SystemTime ts{};    // when it was read, or found bad

    // The registers as published: `words` gets them, for a string as many as it spans.
    int registers(uint16_t *words) const;
};

struct StationState {
    bool online = false;        // a read succeeded since the last silence
    bool saidOffline = false;   // "station N offline" was logged: its failures are counted, not logged
    uint64_t quietFailures = 0; // failures since, not logged
};

// What a write request gets: once, whatever happens.
struct WriteAnswer {
    bool ok = false;
    bool refused = false;  // refused before anything was sent
    std::string valueJson; // written, when ok: the value as its topic shows it
    std::string error;
};
using WriteDone = std::function<void(const WriteAnswer &)>;

struct WriteCounters {
    uint64_t ok = 0;
    uint64_t failed = 0;  // sent and not acknowledged, replaced, or dropped
    uint64_t refused = 0; // refused before anything was sent
};

class Sink {
public:
    virtual ~Sink();
    // A value read for the first time, changed (by more than its deadband), its quality
    // changed, or its heartbeat is due: Model::values()[index].
    virtual void valueChanged(size_t index);
    // A station went online or offline.
    virtual void stationChanged(int station);
    // Between exchanges, on the loop's thread: time for a sink's own work.
    virtual void tick();
};

class Model : public rtuhost::HostEvents {
public:
    Model(const Config &config, const rtuhost::DriverApi &api, const rtuhost::Catalogue &catalogue);

    // The host whose points this follows, after its items are set, and the values the plan makes of them.
    void attach(rtuhost::Host &host, const std::vector<PlannedValue> &values);
    void addSink(Sink *sink);

    const std::vector<PointState> &points() const { return points_; }
    const std::vector<ValueState> &values() const { return values_; }
    // The block a value is polled in (its first point's), -1 until polled.
    int blockOf(const ValueState &v) const { return points_[v.points.front()].block; }
    const std::map<int, StationState> &stations() const { return stations_; }
    const Config &config() const { return config_; }
    const rtuhost::Stats &hostStats() const;
    // The stations the host holds offline, with when each is tried next.
    const std::map<int, rtuhost::Host::Silence> &offline() const;
    const WriteCounters &writes() const { return writes_; }
    // When each block was last polled, answered or not; PointState::block says whose.
    const std::vector<SystemTime> &blockReads() const { return blockReads_; }
    // Polls a second over the last second or so, for the stats topic, the page and the status.
    double pollsPerSecond() const { return pollsPerSecond_; }
    long long uptimeSeconds() const;
    // The value of a path "STATION/AREA/ADDR[.BIT]", or -1.
    long find(const std::string &path) const;

    // A write of `value` to the value at `path`: a number (1234, -5, 0x1F; 21.5 where
    // the type takes one), true or false, or text for a string (`isText`: it came as
    // text). Refused at once, through done, unless the value is configured writable and
    // `value` fits it.
    void write(const std::string &path, const std::string &value, WriteDone done, bool isText = false);
    // A request refused before it could name a value (a payload that is no number).
    void refuse(const std::string &path, const std::string &why, WriteDone done);

    void tick();
    bool verbose = false;
    // The Modbus server's counters, when the gateway serves other masters; for the sinks
    // that show them.
    const ModbusServerStats *modbusStats = nullptr;

    // HostEvents
    void valueRead(const Point &point, uint32_t value) override;
    void blockRead(const FRAME_PRO &frame) override;
    void requestFailed(const FRAME_PRO &frame, const rtuhost::Failure &failure) override;
    void writeSettled(uint64_t id, const rtuhost::WriteRequest &write, rtuhost::WriteOutcome outcome,
                      const QString &detail) override;
    void exchanged(const FRAME_PRO &frame, const rtuhost::Exchange &exchange) override;
    void progress(const rtuhost::Stats &stats) override;

private:
    // A point changed: the values made of it are published, or, made of several, once
    // the reply that changed them is whole.
    void changed(size_t point, bool reported);
    // The value as its points now stand, told to the sinks if it changed (by more than
    // its deadband) or its quality did; `reported` a read the host reported, `force` a heartbeat.
    void refresh(size_t value, bool reported, bool force = false);
    void flushPending();
    void heartbeats();
    bool encodeWrite(const ValueState &v, const std::string &text, bool isText, rtuhost::WriteRequest *w,
                     std::string *json, std::string *why) const;
    void polled(const std::vector<size_t> &points, SystemTime now);
    void setStation(int station, bool online);
    void settle(WriteDone &done, const WriteAnswer &a);
    void measurePace();

    const Config &config_;
    const rtuhost::DriverApi &api_;
    const rtuhost::Catalogue &catalogue_;
    rtuhost::Host *host_ = nullptr;
    std::vector<PointState> points_;
    std::vector<ValueState> values_;
    // The values a point makes, points_[p]'s from feeds_[feedsFrom_[p]] to feeds_[feedsFrom_[p + 1]].
    std::vector<uint32_t> feedsFrom_, feeds_;
    std::vector<uint32_t> pending_; // made of several points, changed, not yet published
    std::vector<bool> isPending_;
    // For the deadband: the number last published of each value.
    std::vector<double> shown_;
    // Values with a heartbeat, and when each was last published.
    std::vector<uint32_t> beating_;
    std::vector<std::chrono::steady_clock::time_point> publishedAt_;
    std::chrono::steady_clock::time_point beatChecked_{};
    std::unordered_map<std::string, size_t> byPath_;
    std::map<int, StationState> stations_;
    std::vector<SystemTime> blockReads_;
    std::vector<Sink *> sinks_;
    std::unordered_map<uint64_t, std::pair<WriteDone, std::string>> writesOpen_; // and what it writes, as JSON
    WriteCounters writes_;
    const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    rtuhost::PollRate pace_{started_};
    double pollsPerSecond_ = 0;
    SystemTime stamp_{}; // when the values reported since the last turn were read
    bool stampTaken_ = false;
};

// "1/X/17" for a point.
std::string pathOf(const Point &p);

} // namespace rtugw

#endif
