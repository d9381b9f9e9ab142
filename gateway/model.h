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
#include "rtuplc_host/host.h"

namespace rtugw {

using rtuhost::Point;
using SystemTime = std::chrono::system_clock::time_point;

struct PointState {
    Point point;
    std::string path; // STATION/AREA/ADDR, ADDR in the area's notation: "1/X/17"
    bool writable = false;
    bool known = false;               // read at least once
    uint32_t value = 0;               // unsigned; a 32-bit value whole
    bool good = false;                // read since the last failure
    std::string error;                // why it is bad
    SystemTime ts{};                  // when it was read, or found bad
    int block = -1;                   // the block it is polled in, once polled: into Model::blockReads()
    const ItemConfig *item = nullptr; // where the configuration names it
};

struct StationState {
    bool online = false;        // a read succeeded since the last silence
    bool saidOffline = false;   // "station N offline" was logged: its failures are counted, not logged
    uint64_t quietFailures = 0; // failures since, not logged
};

// What a write request gets: once, whatever happens.
struct WriteAnswer {
    bool ok = false;
    bool refused = false; // refused before anything was sent
    uint32_t value = 0;   // written, when ok
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
    // A value read for the first time, changed, or its quality changed.
    virtual void pointChanged(size_t index);
    // A station went online or offline.
    virtual void stationChanged(int station);
    // Between exchanges, on the loop's thread: time for a sink's own work.
    virtual void tick();
};

class Model : public rtuhost::HostEvents {
public:
    Model(const Config &config, const rtuhost::DriverApi &api, const rtuhost::Catalogue &catalogue);

    // The host whose points this follows; after its items are set.
    void attach(rtuhost::Host &host, const std::vector<std::pair<rtuhost::Item, const ItemConfig *>> &items);
    void addSink(Sink *sink);

    const std::vector<PointState> &points() const { return points_; }
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
    // The point of a path "STATION/AREA/ADDR", or -1.
    long find(const std::string &path) const;

    // A write of `value` (a number: 1234, -5, 0x1F) to the point at `path`. Refused at
    // once, through done, unless the point is configured writable and the value fits.
    void write(const std::string &path, const std::string &value, WriteDone done);
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

private:
    void changed(size_t index);
    void polled(const std::vector<size_t> &points, SystemTime now);
    void setStation(int station, bool online);
    void settle(WriteDone &done, const WriteAnswer &a);
    void measurePace();

    const Config &config_;
    const rtuhost::DriverApi &api_;
    const rtuhost::Catalogue &catalogue_;
    rtuhost::Host *host_ = nullptr;
    std::vector<PointState> points_;
    std::unordered_map<std::string, size_t> byPath_;
    std::map<int, StationState> stations_;
    std::vector<SystemTime> blockReads_;
    std::vector<Sink *> sinks_;
    std::unordered_map<uint64_t, WriteDone> pending_;
    WriteCounters writes_;
    const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    rtuhost::PollRate pace_{started_};
    double pollsPerSecond_ = 0;
};

// "1/X/17" for a point.
std::string pathOf(const Point &p);

} // namespace rtugw

#endif
