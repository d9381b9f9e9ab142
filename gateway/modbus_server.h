// The gateway's Modbus server: other masters (a panel, a SCADA, an engineer's tool) reach
// the line through the gateway instead of fighting it for the wire. A read the line
// answered lately is answered at once from what it carried (ModbusCache); anything else
// waits its turn on the line, between the gateway's own polls (rtuhost::LineShare), and
// gets the controller's own answer.
//
// The server runs a thread of its own, so cached reads are answered while the gateway's
// loop waits on the line. The loop thread calls take(), answered() and heard(), and
// tells which stations it holds offline; everything else happens on the server's thread.
#ifndef RTUPLC_GATEWAY_MODBUS_SERVER_H
#define RTUPLC_GATEWAY_MODBUS_SERVER_H

#include <atomic>
#include <bitset>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "config.h"
#include "modbus_cache.h"
#include "modbus_transport.h"
#include "rtuplc_host/line_share.h"
#include "rtuplc_support/serial_line.h"

namespace rtugw {

// What the server did, for the status line, P/stats, /metrics and the page. Counters
// only grow; read them from any thread.
struct ModbusServerStats {
    static constexpr size_t kFunctions = 9; // 01 02 03 04 05 06 0F 10, then any other
    static constexpr size_t kExceptionCodes = 12;
    std::atomic<uint64_t> requests[kFunctions] = {};
    std::atomic<uint64_t> fromCache{0};       // reads answered from what the line carried
    std::atomic<uint64_t> forwarded{0};       // requests put on the line
    std::atomic<uint64_t> forwardedReads{0};  // of which reads: the cache's misses
    std::atomic<uint64_t> lineAnswers{0};     // forwarded requests the controller answered
    std::atomic<uint64_t> exceptions[kExceptionCodes] = {}; // by code, the controller's and ours
    std::atomic<uint64_t> unanswered{0};      // RTU requests to absent stations: silence
    std::atomic<uint64_t> lineMicros{0};      // line time forwarded requests took
    std::atomic<int64_t> queued{0};           // waiting for the line now
    std::atomic<int64_t> masters{0};          // connected now
    std::atomic<uint64_t> refused{0};         // connections refused: too many, or not allowed
    std::atomic<uint64_t> dropped{0};         // connections closed: idle, not reading, garbage

    // Of the reads the cache was asked for, the share it answered; 0 when none.
    double hitRatio() const;
    static size_t functionIndex(uint8_t function);
    static const char *functionLabel(size_t index); // "01".."10", "other"
};

class ModbusServer : public rtuhost::LineShare {
public:
    // `stations`: those the gateway knows (its items', line.station, stations:); `serialLine`
    // the serial listener's settings.
    ModbusServer(const ModbusServerConfig &config, const std::vector<int> &stations,
                 const rtusupport::SerialLine &serialLine);
    ~ModbusServer() override;

    // Opens every listener and starts the server's thread; false with `error` saying
    // which listener and why.
    bool start(std::string *error);
    // Closes the listeners and every connection; requests still waiting get nothing.
    void stop();

    // From the loop thread: the stations held offline (their requests get 0B at once),
    // and how old a value may be when the configuration leaves it to the line's pace.
    void setOffline(const std::bitset<256> &offline);
    void setMaxAge(std::chrono::milliseconds age);
    std::chrono::milliseconds maxAge() const { return std::chrono::milliseconds(maxAgeMs_.load()); }

    // "tcp 127.0.0.1:1502" for each listener, as configured.
    std::vector<std::string> listeners() const;
    const ModbusServerStats &stats() const { return stats_; }
    ModbusCache &cache() { return cache_; }
    // The port a TCP listener got (tests listen on port 0), 0 when none.
    int boundPort(const char *transport) const;

    // rtuhost::LineShare, on the loop thread.
    bool take(rtuhost::SharedRequest *request) override;
    void answered(const rtuhost::SharedRequest &request, const rtuhost::Exchange &exchange,
                  std::chrono::microseconds lineTime) override;
    void heard(const uint8_t *request, size_t requestBytes, const uint8_t *reply, size_t replyBytes,
               rtuhost::Clock::time_point at) override;

private:
    struct Listener;
    struct Connection;
    struct Slot;
    struct Waiting {
        uint64_t id;
        uint64_t connection;
        Clock::time_point deadline;
        std::vector<uint8_t> frame;
    };
    struct Answer {
        uint64_t id;
        rtuhost::Exchange::Outcome outcome;
        std::vector<uint8_t> reply;
    };

    void serve();
    void accept(Listener &l);
    void openSerial(Listener &l);
    void readFrom(Connection &c, Clock::time_point now);
    void handle(Connection &c, const Incoming &in, Clock::time_point now);
    void reply(Connection &c, const Head &head, const uint8_t *pdu, size_t n);
    void exception(Connection &c, const Head &head, uint8_t function, uint8_t code);
    void forward(Connection &c, const Incoming &in, bool read, Clock::time_point now);
    void settle(uint64_t id, const uint8_t *pdu, size_t n, uint8_t code);
    void takeAnswers();
    void expire(Clock::time_point now);
    void sweep(Clock::time_point now);
    bool flush(Connection &c);
    void watch(Connection &c);
    void close(Connection &c);
    int waitMs(Clock::time_point now) const;
    bool writable(uint8_t station, const mb::Request &r) const;
    bool offline(uint8_t station) const;

    const ModbusServerConfig config_;
    const rtusupport::SerialLine serialLine_;
    std::bitset<256> known_;
    std::atomic<uint64_t> offline_[4] = {};
    std::atomic<int64_t> maxAgeMs_;
    ModbusCache cache_;
    ModbusServerStats stats_;
    TransportContext context_;

    // Shared with the loop thread.
    std::mutex lineLock_;
    std::deque<Waiting> waiting_;   // in arrival order, and so in order of deadline
    std::vector<Answer> answers_;   // from the line, for the server's thread
    std::atomic<size_t> waitingCount_{0};

    // The server's thread's own.
    int epoll_ = -1;
    int wake_ = -1; // eventfd: the line answered, or stop
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::vector<std::unique_ptr<Listener>> listeners_;
    std::unordered_map<uint64_t, std::unique_ptr<Connection>> connections_;
    std::unordered_map<uint64_t, uint64_t> pending_; // request id -> connection
    std::deque<std::pair<Clock::time_point, uint64_t>> deadlines_;
    uint64_t nextConnection_;
    uint64_t nextRequest_ = 1;
    Clock::time_point nextSweep_{};
    std::vector<uint8_t> scratch_;
};

} // namespace rtugw

#endif
