// Frames as the Qt side of the tests, fuzzers and benchmarks holds them.
#ifndef RTUPLC_SUPPORT_FRAMES_H
#define RTUPLC_SUPPORT_FRAMES_H

#include <QByteArray>

#include "rtuplc_support/modbus.h"

namespace rtusim {

// Bytes with the Modbus CRC appended, low byte first.
inline QByteArray withCrc(QByteArray bytes)
{
    const uint16_t crc = crc16(reinterpret_cast<const uint8_t *>(bytes.constData()), size_t(bytes.size()));
    bytes.append(static_cast<char>(crc & 0xFF));
    bytes.append(static_cast<char>(crc >> 8));
    return bytes;
}

} // namespace rtusim

#endif
