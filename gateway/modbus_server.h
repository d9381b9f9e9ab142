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
#include "modbus_stats.h"
#include "modbus_transport.h"
#include "rtuplc_host/line_share.h"
#include "rtuplc_support/serial_line.h"

namespace rtugw {

// The serial listener's line: its own settings, else the line's.
rtusupport::SerialLine serverSerialLine(const ModbusServerConfig &config, const rtusupport::SerialLine &line);
// "tcp 127.0.0.1:1502" for each listener the configuration asks for.
std::vector<std::string> listenerNames(const ModbusServerConfig &config, const rtusupport::SerialLine &serialLine);

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

    std::vector<std::string> listeners() const { return listenerNames(config_, serialLine_); }
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
    // A connection on `fd`, from listener `l`, watched and kept.
    Connection &adopt(Listener &l, int fd);
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
    std::deque<Waiting> waiting_; // in arrival order, and so in order of deadline
    std::vector<Answer> answers_; // from the line, for the server's thread
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
