#include "rtuplc_support/modbus.h"

namespace rtusim {

uint16_t crc16(const uint8_t *data, size_t n)
{
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i < n; ++i) {
        crc ^= data[i];
        for (int k = 0; k < 8; ++k)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : static_cast<uint16_t>(crc >> 1);
    }
    return crc;
}

void appendCrc(std::vector<uint8_t> &frame)
{
    const uint16_t crc = crc16(frame.data(), frame.size());
    frame.push_back(static_cast<uint8_t>(crc & 0xFF));
    frame.push_back(static_cast<uint8_t>(crc >> 8));
}

bool crcMatches(const uint8_t *frame, size_t n)
{
    if (n < kCrcBytes + 1)
        return false;
    const uint16_t crc = crc16(frame, n - kCrcBytes);
    return frame[n - 2] == (crc & 0xFF) && frame[n - 1] == (crc >> 8);
}

bool isExceptionReply(const uint8_t *bytes, size_t n)
{
    return n >= kExceptionReplyBytes && (bytes[1] & fc::kExceptionFlag) != 0 &&
           crcMatches(bytes, kExceptionReplyBytes);
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

} // namespace rtusim
