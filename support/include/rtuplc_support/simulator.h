// The controller simulator: a Modbus RTU slave holding the controller's memory, served
// over TCP (RTU frames, no MBAP header), a pseudo-terminal or a serial device.
//
// It runs in the caller's process, one thread per endpoint, so tests start it on a
// free loopback port or a pty, set memory, inject faults and read the memory back:
//
//     rtusupport::Simulator sim;
//     sim.fill(rtusupport::Fill::Pattern);
//     std::string error;
//     if (!sim.startTcp("127.0.0.1", 0, &error)) ...   // 0: any free port
//     int port = sim.tcpPort();
//     sim.setReg(1, 100, 1234);
//     ... talk to it ...
//     sim.stop();
//
// Every function may be called from any thread, also while the simulator serves.
#ifndef RTUPLC_SIM_SIMULATOR_H
#define RTUPLC_SIM_SIMULATOR_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rtuplc_support/memory.h"
#include "rtuplc_support/request.h"
#include "rtuplc_support/serial_line.h"

namespace rtusupport {

constexpr int kDefaultTcpPort = 8000;

// Faults injected into the conversation, each drawn per request.
struct Faults {
    double drop = 0;      // no reply: the request was lost on its way in (not executed)
                          // or its reply was lost (executed), one or the other at random
    double corrupt = 0;   // one bit of the reply flipped, so its CRC fails
    double exception = 0; // refused with "slave device busy" instead of executed
    int delayMs = 0;      // added before every reply
    // Faults of a line whose replies do not answer the request in flight:
    double late = 0; // the reply sent lateByMs later (past the master's time-out)
    int lateByMs = 0;
    double doubled = 0;       // the reply sent twice, the copy 0..5 ms after it
    double foreign = 0;       // another station's reply to the same request (that station's
                              // data, valid CRC) instead of its own; the request is not executed
    double noise = 0;         // 1..8 random bytes before the reply
    double split = 0;         // the reply written in 2..4 pieces, 1..5 ms apart
    double wrongFunction = 0; // the reply with another function code and a valid CRC
};

struct Counters {
    uint64_t requests = 0;      // frames with a valid CRC, whatever their station
    uint64_t replies = 0;       // frames sent back, exceptions and corrupted ones included
    uint64_t exceptions = 0;    // exception replies, injected or earned
    uint64_t writes = 0;        // write requests executed, broadcasts included
    uint64_t broadcasts = 0;    // requests to station 0 (executed if writes, never answered)
    uint64_t otherStations = 0; // requests for stations not simulated (not answered)
    uint64_t dropped = 0;
    uint64_t corrupted = 0;
    uint64_t discarded = 0; // received bytes that formed no valid frame
    uint64_t late = 0, doubled = 0, foreign = 0, noise = 0, split = 0, wrongFunction = 0;
};

class Simulator {
public:
    Simulator();
    ~Simulator(); // stops serving
    Simulator(const Simulator &) = delete;
    Simulator &operator=(const Simulator &) = delete;

    // Stations answered (1..247); the default is station 1. New stations get the
    // current fill; stations left out keep their memory for when they come back.
    void setStations(const std::vector<int> &stations);
    std::vector<int> stations() const;
    // Fills the memory of every station; dump() reports what differs from it.
    void fill(Fill fill);
    void setFaults(const Faults &faults);
    void setSeed(uint64_t seed);
    void setLimits(const Limits &limits);
    // Lets values change over time, starting from 0: D 0 counts every 250 ms, M 0
    // toggles every second, and the 32-bit counter 200 (registers 9700, 9701) ramps
    // by 1000 every 250 ms up to 100000.
    void setAnimate(bool on);
    // Changes every value a read returned, so that each poll finds every value new:
    // the heaviest load a host can get from a line (benchmarks).
    void setChurn(bool on);
    // Answers no faster than a serial line of these settings would carry request and
    // reply, so that a host on loopback sees the pace of the real line; off by default.
    void setPacing(const std::optional<SerialLine> &line);
    // Receives one line per frame received and sent, in hex; empty switches it off.
    void setLog(std::function<void(const std::string &)> log);
    // Called as the last byte of each reply is written, with the request it answers and
    // the reply: for a benchmark that times what a host does with a reply on the
    // simulator's clock. Empty switches it off.
    using ReplySent = std::function<void(const std::vector<uint8_t> &request, const std::vector<uint8_t> &reply)>;
    void setReplySent(ReplySent hook);

    // Each start adds an endpoint, served until stop(). False, with a reason, when the
    // endpoint cannot be opened.
    bool startTcp(const std::string &host, int port, std::string *error);
    int tcpPort() const; // of the last TCP endpoint started
    bool startPty(std::string *error);
    std::string ptyPath() const; // of the last pty started, e.g. /dev/pts/4
    bool startSerial(const std::string &device, const SerialLine &line, std::string *error);
    void stop();
    bool running() const;

    // Memory of a simulated station; other stations throw std::out_of_range.
    uint16_t reg(int station, uint32_t address) const;
    void setReg(int station, uint32_t address, uint16_t value);
    // Consecutive registers from `address` at once: a read never sees half of them.
    void setRegs(int station, uint32_t address, const std::vector<uint16_t> &values);
    // Two registers, the high half at `address`, as the controller keeps 32-bit values.
    uint32_t reg32(int station, uint32_t address) const;
    void setReg32(int station, uint32_t address, uint32_t value);
    bool coil(int station, uint32_t address) const;
    void setCoil(int station, uint32_t address, bool on);

    // Requests of `station` that touch units [first, first + count) of `space` are
    // answered with exception `code`, as a controller refuses a range it has locked;
    // code 0 lifts the refusals of that station that overlap the range.
    void refuse(int station, Space space, uint32_t first, uint32_t count, uint8_t code);
    void accept(int station); // lifts every refusal of the station

    Counters counters() const;
    // One line per unit that differs from the fill, e.g. "1 register 100 D:100 = 1234".
    std::string dump() const;

    struct Impl; // the state the endpoint threads share; defined inside the library

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace rtusupport

#endif
