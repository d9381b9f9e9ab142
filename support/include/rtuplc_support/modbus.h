// Modbus RTU vocabulary shared by the controller simulator and the reference host:
// function codes, exception codes, the CRC-16 and the frame sizes both sides rely on.
#ifndef RTUPLC_SIM_MODBUS_H
#define RTUPLC_SIM_MODBUS_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace rtusim {

namespace fc {
constexpr uint8_t kReadCoils = 0x01;
constexpr uint8_t kReadHoldingRegisters = 0x03;
constexpr uint8_t kWriteSingleCoil = 0x05;
constexpr uint8_t kWriteSingleRegister = 0x06;
constexpr uint8_t kWriteMultipleCoils = 0x0F;
constexpr uint8_t kWriteMultipleRegisters = 0x10;
constexpr uint8_t kExceptionFlag = 0x80; // set in the function byte of an exception reply
} // namespace fc

namespace ex {
constexpr uint8_t kIllegalFunction = 0x01;
constexpr uint8_t kIllegalDataAddress = 0x02;
constexpr uint8_t kIllegalDataValue = 0x03;
constexpr uint8_t kDeviceFailure = 0x04;
constexpr uint8_t kDeviceBusy = 0x06;
} // namespace ex

constexpr int kBroadcastStation = 0;
constexpr int kHighestStation = 247;
constexpr size_t kCrcBytes = 2;
constexpr size_t kExceptionReplyBytes = 5; // station, function | 0x80, code, CRC
constexpr size_t kMinFrameBytes = 4;       // station, function, CRC
constexpr size_t kMaxFrameBytes = 256;     // the RTU frame limit

// Quantities a standard slave accepts in one request; the controller reads more
// registers than that (kControllerMaxReadRegisters).
constexpr int kStandardMaxReadRegisters = 125;
constexpr int kControllerMaxReadRegisters = 128;
constexpr int kStandardMaxReadCoils = 2000;
constexpr int kStandardMaxWriteRegisters = 123;
constexpr int kStandardMaxWriteCoils = 1968;

constexpr uint16_t kCoilOn = 0xFF00; // the two values function 0x05 accepts
constexpr uint16_t kCoilOff = 0x0000;

// The Modbus CRC-16 (initial 0xFFFF, reflected polynomial 0xA001).
uint16_t crc16(const uint8_t *data, size_t n);
// Appends the CRC, low byte first.
void appendCrc(std::vector<uint8_t> &frame);
// True when the last two of n bytes are the CRC of the bytes before them.
bool crcMatches(const uint8_t *frame, size_t n);
// True when the first five bytes are a complete exception reply with a valid CRC.
bool isExceptionReply(const uint8_t *bytes, size_t n);
// "illegal data address" and so on; "exception N" for codes without a name.
const char *exceptionName(uint8_t code);

} // namespace rtusim

#endif
