// What other masters send the gateway's Modbus server, taken apart and checked before
// anything of it can reach the line, and the replies put together again: pure
// functions on bytes, no I/O.
//
// A request is the same PDU (function code and what follows) whether it came in a
// Modbus TCP frame (MBAP header: transaction, protocol 0, length, unit) or an RTU frame
// (station, PDU, CRC); the server judges the PDU and answers with a PDU that goes back
// in the framing the request came in.
#ifndef RTUPLC_GATEWAY_MODBUS_PDU_H
#define RTUPLC_GATEWAY_MODBUS_PDU_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "rtuplc_support/modbus.h"

namespace rtugw::mb {

// The most a standard slave moves in one request.
constexpr int kMaxReadRegisters = rtusupport::kStandardMaxReadRegisters;   // 125
constexpr int kMaxReadBits = rtusupport::kStandardMaxReadCoils;            // 2000
constexpr int kMaxWriteRegisters = rtusupport::kStandardMaxWriteRegisters; // 123
constexpr int kMaxWriteBits = rtusupport::kStandardMaxWriteCoils;          // 1968
constexpr long kAddressSpace = 65536;                                      // a block may end at 65535, not past it

constexpr size_t kMbapHeaderBytes = 7; // transaction, protocol, length, unit
constexpr size_t kMaxMbapLength = 254; // the length field counts the unit and the PDU
constexpr size_t kMaxPduBytes = kMaxMbapLength - 1;
constexpr size_t kMaxMbapFrameBytes = kMbapHeaderBytes - 1 + kMaxMbapLength;

// The exception codes the server answers with, besides the controller's own.
namespace ex {
constexpr uint8_t kIllegalFunction = rtusupport::ex::kIllegalFunction;   // 01
constexpr uint8_t kIllegalAddress = rtusupport::ex::kIllegalDataAddress; // 02
constexpr uint8_t kIllegalValue = rtusupport::ex::kIllegalDataValue;     // 03
constexpr uint8_t kBusy = rtusupport::ex::kDeviceBusy;                   // 06
constexpr uint8_t kPathUnavailable = 0x0A;                               // the gateway serves no such station
constexpr uint8_t kTargetFailed = 0x0B;                                  // the station did not answer in time
} // namespace ex

// The four tables of a station, by the functions that reach them.
enum class Table : uint8_t { Coils, Discrete, Holding, Input };
constexpr int kTables = 4;
const char *tableName(Table t); // "coils", "discrete", "holding", "input"

struct Request {
    uint8_t function = 0;
    uint16_t address = 0;
    uint16_t quantity = 0; // 1 for the single writes
    Table table = Table::Holding;
    bool write = false;
};

// Judges a request's PDU: 0 when the server can serve it (r filled), otherwise the
// exception it gets: 01 an unknown function, 03 a quantity of 0 or over the function's
// limit or a PDU whose length does not fit its function, 02 a block past 65535.
uint8_t checkPdu(const uint8_t *pdu, size_t n, Request *r);

// The table a read or write function reaches; false for any other function.
bool tableOf(uint8_t function, Table *t, bool *write);

// Cuts one Modbus TCP frame off the front of a stream.
enum class Cut {
    NeedMore, // not all of it is there yet
    Frame,    // one whole frame: frameBytes long
    Bad,      // not Modbus TCP (protocol id not 0, length 0, 1 or over 254): nothing
              // after it can be trusted to start a frame
};
struct Mbap {
    uint16_t transaction = 0;
    uint8_t unit = 0;
    const uint8_t *pdu = nullptr;
    size_t pduBytes = 0;
    size_t frameBytes = 0;
};
Cut cutMbap(const uint8_t *bytes, size_t n, Mbap *m);

// Appends a Modbus TCP frame carrying `pdu`.
void appendMbap(std::vector<uint8_t> &out, uint16_t transaction, uint8_t unit, const uint8_t *pdu, size_t n);
// Appends an RTU frame carrying `pdu`, its CRC after it.
void appendRtu(std::vector<uint8_t> &out, uint8_t station, const uint8_t *pdu, size_t n);

} // namespace rtugw::mb

#endif
