// The simulator's shared state, seen by the frame server and by the endpoint threads.
#ifndef RTUPLC_SIM_SIMULATOR_IMPL_H
#define RTUPLC_SIM_SIMULATOR_IMPL_H

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <thread>

#include "rtuplc_support/simulator.h"

namespace rtusupport {

// Counters updated by several endpoint threads.
struct AtomicCounters {
    std::atomic<uint64_t> requests{0}, replies{0}, exceptions{0}, writes{0}, broadcasts{0}, otherStations{0},
        dropped{0}, corrupted{0}, discarded{0}, late{0}, doubled{0}, foreign{0}, noise{0}, split{0}, wrongFunction{0};
};

// A pipe that becomes readable, for good, when the simulator stops: every endpoint
// thread polls it next to its own descriptors.
class StopSignal {
public:
    bool open();
    void raise();
    void close();
    int fd() const { return fds_[0]; }
    // Waits up to `d` unless the stop is raised first; true when it was.
    bool waitFor(std::chrono::microseconds d) const;

private:
    int fds_[2] = {-1, -1};
};

// Units of one station's space answered with an exception instead of served.
struct Refusal {
    int station;
    Space space;
    uint32_t first;
    uint32_t count;
    uint8_t code;
};

struct Simulator::Impl {
    mutable std::mutex memoryMutex;
    std::map<int, StationMemory> memory; // every station ever simulated
    std::vector<int> stations{1};
    Fill fillKind = Fill::Zero;
    Limits limits;
    std::vector<Refusal> refusals; // under memoryMutex

    mutable std::mutex faultMutex;
    Faults faults;
    std::optional<SerialLine> pacing;
    std::mt19937_64 random{std::random_device{}()};

    std::mutex logMutex;
    std::function<void(const std::string &)> log;
    Simulator::ReplySent replySent; // under logMutex

    AtomicCounters counters;
    std::atomic<bool> animate{false};
    std::atomic<bool> churn{false};

    std::mutex endpointMutex;
    StopSignal stop;
    std::vector<std::thread> threads;
    std::vector<int> ownedFds; // closed on stop
    int tcpPort = 0;
    std::string ptyPath;

    StationMemory &stationMemory(int station); // under memoryMutex
    // The exception code a refusal gives this request of `station`, 0 for none; under memoryMutex.
    uint8_t refusalFor(int station, const uint8_t *pdu, size_t pduBytes) const;
    const StationMemory &stationMemory(int station) const;

    // Serves one frame with a valid CRC: the bytes to send, if any, as pieces each
    // written `after` the one before (the first after the request).
    struct Piece {
        std::vector<uint8_t> bytes;
        std::chrono::microseconds after{0};
    };
    struct Answer {
        std::vector<Piece> pieces;
    };
    std::optional<Answer> serve(const std::vector<uint8_t> &frame);

    void logFrame(const char *direction, const std::vector<uint8_t> &bytes);
    void ensureThreadsStarted(); // the animation thread, with the first endpoint
    void animateLoop();
    // Every value a read returned is changed for the next one: coils toggled,
    // registers counted up. Called with the memory locked.
    static void churnRead(StationMemory &m, const uint8_t *pdu);
    void startThread(std::function<void()> body);
};

// Endpoint loops, one per thread; `fd` is owned by the simulator.
void serveListeningSocket(Simulator::Impl &sim, int listenFd);
void serveStream(Simulator::Impl &sim, int fd, std::chrono::microseconds silence);

} // namespace rtusupport

#endif
