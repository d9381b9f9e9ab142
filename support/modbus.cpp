#include "rtuplc_support/modbus.h"

namespace rtusupport {

void appendCrc(std::vector<uint8_t> &frame)
{
    const uint16_t crc = rtuplc::crc16(frame.data(), frame.size());
    frame.push_back(static_cast<uint8_t>(crc & 0xFF));
    frame.push_back(static_cast<uint8_t>(crc >> 8));
}

const char *exceptionName(uint8_t code)
{
    switch (code) {
    case ex::kIllegalFunction:
        return "illegal function";
    case ex::kIllegalDataAddress:
        return "illegal data address";
    case ex::kIllegalDataValue:
        return "illegal data value";
    case ex::kDeviceFailure:
        return "slave device failure";
    case 0x05:
        return "acknowledge";
    case ex::kDeviceBusy:
        return "slave device busy";
    case 0x08:
        return "memory parity error";
    case 0x0A:
        return "gateway path unavailable";
    case 0x0B:
        return "gateway target failed to respond";
    default:
        return "unknown exception";
    }
}

} // namespace rtusupport
