// A Modbus slave's vocabulary beyond what the public rtuplc_link.h gives every host
// (function codes, the CRC, reply sizes): exception codes and their names, station
// numbers, the quantities a standard slave and this controller accept.
#ifndef RTUPLC_SUPPORT_MODBUS_H
#define RTUPLC_SUPPORT_MODBUS_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "rtuplc_link.h"

namespace rtusupport {

namespace ex {
constexpr uint8_t kIllegalFunction = 0x01;
constexpr uint8_t kIllegalDataAddress = 0x02;
constexpr uint8_t kIllegalDataValue = 0x03;
constexpr uint8_t kDeviceFailure = 0x04;
constexpr uint8_t kDeviceBusy = 0x06;
} // namespace ex

constexpr int kBroadcastStation = 0;
constexpr int kHighestStation = 247;
constexpr size_t kMinFrameBytes = 4; // station, function, CRC

// Quantities a standard slave accepts in one request; the controller reads more
// registers than that (kControllerMaxReadRegisters).
constexpr int kStandardMaxReadRegisters = 125;
constexpr int kControllerMaxReadRegisters = 128;
constexpr int kStandardMaxReadCoils = 2000;
constexpr int kStandardMaxWriteRegisters = 123;
constexpr int kStandardMaxWriteCoils = 1968;

constexpr uint16_t kCoilOn = 0xFF00; // the two values function 0x05 accepts
constexpr uint16_t kCoilOff = 0x0000;

// Appends the CRC, low byte first.
void appendCrc(std::vector<uint8_t> &frame);
inline std::vector<uint8_t> withCrc(std::vector<uint8_t> frame)
{
    appendCrc(frame);
    return frame;
}
// "illegal data address" and so on; "exception N" for codes without a name.
const char *exceptionName(uint8_t code);

} // namespace rtusupport

#endif
