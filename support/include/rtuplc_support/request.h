// Serving one Modbus request against one station's memory.
#ifndef RTUPLC_SIM_REQUEST_H
#define RTUPLC_SIM_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "rtuplc_support/memory.h"
#include "rtuplc_support/modbus.h"

namespace rtusim {

// The largest quantities one request may carry; more is answered with exception 03.
struct Limits {
    int maxReadRegisters = kControllerMaxReadRegisters;
    int maxReadCoils = kStandardMaxReadCoils;
    int maxWriteRegisters = kStandardMaxWriteRegisters;
    int maxWriteCoils = kStandardMaxWriteCoils;
    // Answer at every address of both spaces, not only where the controller has memory:
    // a fuzzer's addresses land anywhere, and its replies should still carry values.
    bool everyAddressMapped = false;
};

bool isWriteFunction(uint8_t function);

// Executes a request PDU (function code and data: the frame without station and CRC)
// and returns the reply PDU, a normal reply or an exception (function | 0x80, code).
// Writes change `memory` only when the whole request is valid.
std::vector<uint8_t> executeRequest(StationMemory &memory, const uint8_t *pdu, size_t n, const Limits &limits);

} // namespace rtusim

#endif
