#include "rtuplc_support/request.h"

namespace rtusupport {

namespace {

uint16_t word(const uint8_t *p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

void putWord(std::vector<uint8_t> &out, uint16_t v)
{
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v & 0xFF));
}

std::vector<uint8_t> exception(uint8_t function, uint8_t code)
{
    return {static_cast<uint8_t>(function | rtuplc::kExceptionFlag), code};
}

bool mapped(const Limits &l, Space space, uint32_t first, uint32_t count)
{
    if (l.everyAddressMapped)
        return uint64_t(first) + count <= kAddressSpace;
    return isMapped(space, first, count);
}

// Header of every request served here: function, address, quantity (or value).
constexpr size_t kHeaderBytes = 5;
// Multiple writes add a byte count after the header.
constexpr size_t kMultipleWriteHeaderBytes = 6;

std::vector<uint8_t> readCoils(const StationMemory &m, uint8_t f, uint16_t first, uint16_t count, const Limits &l)
{
    if (count < 1 || count > l.maxReadCoils)
        return exception(f, ex::kIllegalDataValue);
    if (!mapped(l, Space::Coils, first, count))
        return exception(f, ex::kIllegalDataAddress);
    std::vector<uint8_t> out{f, static_cast<uint8_t>((count + 7) / 8)};
    for (int i = 0; i < count; i += 8) {
        uint8_t packed = 0;
        for (int j = 0; j < 8 && i + j < count; ++j)
            packed = static_cast<uint8_t>(packed | ((m.coils[first + i + j] & 1) << j));
        out.push_back(packed);
    }
    return out;
}

std::vector<uint8_t> readRegisters(const StationMemory &m, uint8_t f, uint16_t first, uint16_t count, const Limits &l)
{
    if (count < 1 || count > l.maxReadRegisters)
        return exception(f, ex::kIllegalDataValue);
    if (!mapped(l, Space::Registers, first, count))
        return exception(f, ex::kIllegalDataAddress);
    std::vector<uint8_t> out{f, static_cast<uint8_t>(2 * count)};
    for (int i = 0; i < count; ++i)
        putWord(out, m.registers[first + i]);
    return out;
}

} // namespace

std::vector<uint8_t> executeRequest(StationMemory &memory, const uint8_t *pdu, size_t n, const Limits &limits)
{
    if (n < 1)
        return {};
    const uint8_t f = pdu[0];
    const bool known = f == rtuplc::kReadCoils || f == rtuplc::kReadHoldingRegisters || rtuplc::isWriteFunction(f);
    if (!known)
        return exception(f, ex::kIllegalFunction);
    if (n < kHeaderBytes)
        return exception(f, ex::kIllegalDataValue);
    const uint16_t address = word(pdu + 1);
    const uint16_t quantity = word(pdu + 3); // the value for the single writes
    const std::vector<uint8_t> echo(pdu, pdu + kHeaderBytes);

    switch (f) {
    case rtuplc::kReadCoils:
        return readCoils(memory, f, address, quantity, limits);
    case rtuplc::kReadHoldingRegisters:
        return readRegisters(memory, f, address, quantity, limits);
    case rtuplc::kWriteSingleCoil:
        if (quantity != kCoilOn && quantity != kCoilOff)
            return exception(f, ex::kIllegalDataValue);
        if (!mapped(limits, Space::Coils, address, 1))
            return exception(f, ex::kIllegalDataAddress);
        memory.coils[address] = quantity == kCoilOn ? 1 : 0;
        return echo;
    case rtuplc::kWriteSingleRegister:
        if (!mapped(limits, Space::Registers, address, 1))
            return exception(f, ex::kIllegalDataAddress);
        memory.registers[address] = quantity;
        return echo;
    default:
        break;
    }

    // Multiple writes: the byte count must match the quantity and the bytes present.
    if (n < kMultipleWriteHeaderBytes)
        return exception(f, ex::kIllegalDataValue);
    const size_t byteCount = pdu[5];
    const uint8_t *data = pdu + kMultipleWriteHeaderBytes;
    if (f == rtuplc::kWriteMultipleCoils) {
        if (quantity < 1 || quantity > limits.maxWriteCoils || byteCount != size_t(quantity + 7) / 8 ||
            n < kMultipleWriteHeaderBytes + byteCount)
            return exception(f, ex::kIllegalDataValue);
        if (!mapped(limits, Space::Coils, address, quantity))
            return exception(f, ex::kIllegalDataAddress);
        for (int i = 0; i < quantity; ++i)
            memory.coils[address + i] = (data[i / 8] >> (i % 8)) & 1;
        return echo;
    }
    if (quantity < 1 || quantity > limits.maxWriteRegisters || byteCount != size_t(2 * quantity) ||
        n < kMultipleWriteHeaderBytes + byteCount)
        return exception(f, ex::kIllegalDataValue);
    if (!mapped(limits, Space::Registers, address, quantity))
        return exception(f, ex::kIllegalDataAddress);
    for (int i = 0; i < quantity; ++i)
        memory.registers[address + i] = word(data + 2 * i);
    return echo;
}

} // namespace rtusupport
