// What the gateway's Modbus server did, for the status line, /metrics and the page:
// counters the server's thread bumps (atomics, read from any thread), and a plain copy
// of them for whoever shows them.
#ifndef RTUPLC_GATEWAY_MODBUS_STATS_H
#define RTUPLC_GATEWAY_MODBUS_STATS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace rtugw {

// A copy at one moment: what /metrics and the page show.
struct ModbusFigures {
    static constexpr size_t kFunctions = 9; // 01 02 03 04 05 06 0F 10, then any other
    static constexpr size_t kExceptionCodes = 12;
    uint64_t requests[kFunctions] = {};
    uint64_t fromCache = 0, forwarded = 0, forwardedReads = 0, lineAnswers = 0;
    uint64_t exceptions[kExceptionCodes] = {};
    uint64_t unanswered = 0, lineMicros = 0, refused = 0, dropped = 0;
    int64_t queued = 0, masters = 0;

    // Of the reads the cache was asked for, the share it answered; 0 when none.
    double hitRatio() const;
    static size_t functionIndex(uint8_t function);
    static const char *functionLabel(size_t index); // "01".."10", "other"
};

struct ModbusServerStats {
    static constexpr size_t kFunctions = ModbusFigures::kFunctions;
    static constexpr size_t kExceptionCodes = ModbusFigures::kExceptionCodes;
    std::atomic<uint64_t> requests[kFunctions] = {};
    std::atomic<uint64_t> fromCache{0};                     // reads answered from what the line carried
    std::atomic<uint64_t> forwarded{0};                     // requests put on the line
    std::atomic<uint64_t> forwardedReads{0};                // of which reads: the cache's misses
    std::atomic<uint64_t> lineAnswers{0};                   // forwarded requests the controller answered, refusals too
    std::atomic<uint64_t> exceptions[kExceptionCodes] = {}; // the gateway's own, by code
    std::atomic<uint64_t> unanswered{0};                    // RTU requests to absent stations: silence
    std::atomic<uint64_t> lineMicros{0};                    // line time forwarded requests took
    std::atomic<int64_t> queued{0};                         // waiting for the line now
    std::atomic<int64_t> masters{0};                        // connected now
    std::atomic<uint64_t> refused{0};                       // connections refused: too many, or not allowed
    std::atomic<uint64_t> dropped{0};                       // connections closed: idle, not reading, garbage

    ModbusFigures figures() const;
};

// The figures as the stats topic and the page's API carry them:
// {"masters":2,"requests":{"03":10},"from_cache":9,"forwarded":1,"hit_ratio":0.9,...}
std::string figuresJson(const ModbusFigures &f);
// `stats` (a JSON object) with the server's figures added as "modbus_server" when the
// gateway runs one (`server` not null); as it was otherwise.
std::string withServerFigures(std::string stats, const ModbusServerStats *server);

} // namespace rtugw

#endif
