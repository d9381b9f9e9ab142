// Sparkplug B: the node speaks for the gateway, one device per station. SCADA hosts
// learn every metric from the births, follow the data by alias, notice a lost message
// by the sequence number, and know the node is gone from its death certificate, which
// the broker sends for it when the connection dies.
//
// Everything runs on the poll loop's thread except will(), which the broker client may
// call from its own before each connection attempt.
#ifndef RTUPLC_GATEWAY_DIALECT_SPARKPLUG_H
#define RTUPLC_GATEWAY_DIALECT_SPARKPLUG_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "dialect.h"

namespace org::eclipse::tahu::protobuf {
class Payload;
}

namespace rtugw {

// Sparkplug's datatypes as the payload numbers them.
enum class SparkplugType : uint32_t {
    Int8 = 1,
    Int16 = 2,
    Int32 = 3,
    Int64 = 4,
    UInt16 = 6,
    UInt32 = 7,
    UInt64 = 8,
    Float = 9,
    Double = 10,
    Boolean = 11,
    String = 12,
};
// A metric's datatype: a plain value's by its area (bits Boolean, 16-bit UInt16, 32-bit
// UInt32), a typed one's by its type, Double once scaled.
SparkplugType sparkplugType(const rtuhost::ValueType &type);

// What a host reads from a metric's Quality property.
constexpr int32_t kQualityBad = 0;
constexpr int32_t kQualityGood = 192;

class SparkplugNode : public Dialect {
public:
    explicit SparkplugNode(Model &model);

    // A node is born afresh on every connection: commands queued for an older one mean
    // nothing to it, so the broker keeps no session.
    void shapeSession(MqttSettings *settings) const override;
    // The subscriptions, and will() as the will of every connection, from the bdSeq kept on disk.
    void bind(Broker &broker) override;
    // The death certificate of the connection about to be made: a new bdSeq for each
    // connection, so that a host pairs each death with the birth it ends. The one after
    // it is on disk before the broker holds this will, so that a restart after a crash
    // never reuses a bdSeq the broker may still publish for the old session.
    Message will();
    // A clean stop: the death certificate, since the broker sends no will then.
    std::vector<Message> farewell() const override;
    std::string where() const override;
    std::string planLine(const PlannedValue &v) const override;

    void valueChanged(size_t index) override;
    void stationChanged(int station) override;
    void tick() override;

    void connected(bool sessionPresent) override;
    void lost() override;
    bool message(const Message &m) override;

    std::string deviceName(int station) const;
    // "spBv1.0/GROUP/TYPE/NODE[/DEVICE]"
    std::string topic(const char *type, const std::string &device = {}) const;

private:
    struct Device {
        int station = 0;
        std::string name;
        std::vector<size_t> values; // model indexes
        bool born = false;
        std::vector<size_t> changed; // since the last DDATA
        // Back online and not yet born: waiting for a read of every block since.
        bool waiting = false;
        SystemTime backAt{}; // when the station last came back
        std::chrono::steady_clock::time_point waitSince{};
        size_t readUpTo = 0; // d.values before it are read since backAt
    };

    void onHostState(const std::string &payload);
    void onDeath(const std::string &payload);
    void keepNextBdSeq(unsigned next);
    void handleDeviceCommand(Device &device, const std::string &payload);
    bool birthAllowed() const { return connected_ && hostOnline_; }
    void birthNode();
    void birthDevice(Device &device);
    // Born now if every block of the station was read since it came back, else once they are.
    void startBirth(Device &device);
    bool readSinceBack(Device &device) const;
    void deathDevice(Device &device);
    void flushData();
    std::vector<std::pair<std::string, uint64_t>> stats() const;
    bool addStats(org::eclipse::tahu::protobuf::Payload *p);
    void publishStats();
    void publish(const std::string &topic, const std::string &payload, Outbox::Kind kind = Outbox::Kind::Event);
    uint64_t nextSeq();

    Model &model_;
    Broker *broker_ = nullptr;
    MqttClient *mqtt_ = nullptr;
    std::string group_, node_, primaryHost_;
    std::map<int, Device> devices_;     // by station
    std::map<std::string, int> byName_; // device name to station
    std::vector<uint64_t> aliasOf_;     // model value index to alias
    std::vector<bool> sentGood_;        // the quality hosts were last told, by model index
    // The bdSeq in the will of the connection being made, and of the next one.
    std::atomic<unsigned> willBdSeq_{0};
    std::atomic<unsigned> nextBdSeq_{0};
    // Where the next bdSeq is kept, and what was last written there (-1: nothing yet).
    std::string bdSeqFile_;
    std::mutex bdSeqFileLock_;
    int storedBdSeq_ = -1;
    bool storeFailed_ = false;
    unsigned seq_ = 0;
    bool connected_ = false;
    bool hostOnline_ = true;    // no primary host: always
    double hostStateStamp_ = 0; // of the newest host state seen, ms
    bool nodeBorn_ = false;
    std::map<std::string, uint64_t> sentStats_; // node metrics as hosts last saw them
    std::chrono::steady_clock::time_point lastStats_{};
};

// The file that keeps the node's next bdSeq across restarts:
// DIR/sparkplug-GROUP-NODE.bdseq, DIR being sparkplug.state-dir, else the first folder
// of systemd's $STATE_DIRECTORY, else the working directory.
std::string sparkplugBdSeqFile(const Config &config);
// The bdSeq kept in `file`: false, and why, when it is missing or unreadable.
bool loadBdSeq(const std::string &file, unsigned *bdSeq, std::string *why);
// Keeps it so that a crash or a power cut at any moment leaves the old number or the
// new one, never a torn file: a temporary file, flushed, renamed over, the folder flushed.
bool storeBdSeq(const std::string &file, unsigned bdSeq, std::string *why);

// station<N> unless the configuration names the station.
std::string sparkplugDevice(const Config &config, int station);
// "spBv1.0/GROUP/+/NODE": where the node publishes, for people to read.
std::string sparkplugNodeTopics(const Config &config);

} // namespace rtugw

#endif
