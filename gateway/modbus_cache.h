// What the line carried, by station, table and address: the value the controller last
// sent for each coil and register and when, so that the Modbus server answers a read
// at once when the line answered it lately, and never with a value from before a write.
//
// The host's loop tells every reply it accepted (heard); the server's thread asks
// (read). One lock guards both; a reply costs a copy of its data, and a new page the
// first time an address is seen, nothing more.
#ifndef RTUPLC_GATEWAY_MODBUS_CACHE_H
#define RTUPLC_GATEWAY_MODBUS_CACHE_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "modbus_pdu.h"

namespace rtugw {

class ModbusCache {
public:
    using Clock = std::chrono::steady_clock;

    ModbusCache();
    ~ModbusCache();

    // A reply the controller sent to `request` (both RTU frames): a read's values are
    // kept as heard `at`; an acknowledged write makes the addresses it wrote unknown
    // until they are read again. Anything else is ignored.
    void heard(const uint8_t *request, size_t requestBytes, const uint8_t *reply, size_t replyBytes,
               Clock::time_point at);
    // A write that may or may not have reached the controller: its addresses are unknown.
    void forget(int station, mb::Table table, uint16_t address, uint16_t quantity);

    // A read's data as the controller would send it (bits packed from the lowest,
    // registers high byte first) into `data`, when every address was heard at or after
    // `since`: the number of bytes, or 0 when the read must go to the line.
    size_t read(int station, mb::Table table, uint16_t address, uint16_t quantity, Clock::time_point since,
                uint8_t *data) const;

private:
    static constexpr int kPageBits = 8;
    static constexpr size_t kPageSize = size_t(1) << kPageBits; // addresses a page holds
    static constexpr size_t kPages = mb::kAddressSpace / kPageSize;
    struct Page {
        std::array<uint16_t, kPageSize> value{};
        std::array<Clock::rep, kPageSize> at{}; // 0: unknown
    };
    using Directory = std::array<std::unique_ptr<Page>, kPages>;
    static constexpr size_t kStations = 256;

    Page *page(int station, mb::Table table, size_t address) const;
    Page &pageFor(int station, mb::Table table, size_t address);
    void store(int station, mb::Table table, uint16_t address, uint16_t quantity, const uint8_t *data, Clock::rep at);
    void unknown(int station, mb::Table table, uint16_t address, uint16_t quantity);

    mutable std::mutex lock_;
    std::array<std::unique_ptr<Directory>, kStations * mb::kTables> directories_;
};

} // namespace rtugw

#endif
