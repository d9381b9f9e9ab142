#include "modbus_pdu.h"

namespace rtugw::mb {

namespace {

constexpr size_t kFixedPduBytes = 5;       // function, address, quantity or value
constexpr size_t kMultipleHeaderBytes = 6; // function, address, quantity, byte count
constexpr uint16_t kProtocolModbus = 0;

uint16_t word(const uint8_t *b)
{
    return uint16_t(b[0] << 8 | b[1]);
}

void putWord(std::vector<uint8_t> &out, uint16_t w)
{
    out.push_back(uint8_t(w >> 8));
    out.push_back(uint8_t(w & 0xFF));
}

} // namespace

const char *tableName(Table t)
{
    switch (t) {
    case Table::Coils:
        return "coils";
    case Table::Discrete:
        return "discrete";
    case Table::Holding:
        return "holding";
    case Table::Input:
        return "input";
    }
    return "?";
}

bool tableOf(uint8_t function, Table *t, bool *write)
{
    switch (function) {
    case rtuplc::kReadCoils:
        *t = Table::Coils, *write = false;
        return true;
    case rtuplc::kReadDiscreteInputs:
        *t = Table::Discrete, *write = false;
        return true;
    case rtuplc::kReadHoldingRegisters:
        *t = Table::Holding, *write = false;
        return true;
    case rtuplc::kReadInputRegisters:
        *t = Table::Input, *write = false;
        return true;
    case rtuplc::kWriteSingleCoil:
    case rtuplc::kWriteMultipleCoils:
        *t = Table::Coils, *write = true;
        return true;
    case rtuplc::kWriteSingleRegister:
    case rtuplc::kWriteMultipleRegisters:
        *t = Table::Holding, *write = true;
        return true;
    default:
        return false;
    }
}

uint8_t checkPdu(const uint8_t *pdu, size_t n, Request *r)
{
    if (n == 0 || !tableOf(pdu[0], &r->table, &r->write))
        return ex::kIllegalFunction;
    r->function = pdu[0];
    if (n < kFixedPduBytes)
        return ex::kIllegalValue;
    r->address = word(pdu + 1);
    r->quantity = word(pdu + 3);
    long most = 0;
    switch (r->function) {
    case rtuplc::kReadCoils:
    case rtuplc::kReadDiscreteInputs:
        most = kMaxReadBits;
        break;
    case rtuplc::kReadHoldingRegisters:
    case rtuplc::kReadInputRegisters:
        most = kMaxReadRegisters;
        break;
    case rtuplc::kWriteSingleCoil:
        // A coil is switched with FF00 or 0000 and nothing else.
        if (n != kFixedPduBytes || (r->quantity != rtusupport::kCoilOn && r->quantity != rtusupport::kCoilOff))
            return ex::kIllegalValue;
        r->quantity = 1;
        return 0;
    case rtuplc::kWriteSingleRegister:
        if (n != kFixedPduBytes)
            return ex::kIllegalValue;
        r->quantity = 1;
        return 0;
    case rtuplc::kWriteMultipleCoils:
    case rtuplc::kWriteMultipleRegisters: {
        const bool coils = r->function == rtuplc::kWriteMultipleCoils;
        most = coils ? kMaxWriteBits : kMaxWriteRegisters;
        if (r->quantity == 0 || r->quantity > most || n < kMultipleHeaderBytes)
            return ex::kIllegalValue;
        // The byte count must be what the quantity takes, and the data all there.
        const size_t bytes = coils ? (size_t(r->quantity) + 7) / 8 : size_t(r->quantity) * 2;
        if (pdu[5] != bytes || n != kMultipleHeaderBytes + bytes)
            return ex::kIllegalValue;
        return long(r->address) + r->quantity > kAddressSpace ? ex::kIllegalAddress : 0;
    }
    }
    if (n != kFixedPduBytes || r->quantity == 0 || r->quantity > most)
        return ex::kIllegalValue;
    return long(r->address) + r->quantity > kAddressSpace ? ex::kIllegalAddress : 0;
}

Cut cutMbap(const uint8_t *bytes, size_t n, Mbap *m)
{
    if (n < kMbapHeaderBytes)
        return Cut::NeedMore;
    const size_t length = word(bytes + 4);
    // A length of 1 would be a unit without a function: no request is that short.
    if (word(bytes + 2) != kProtocolModbus || length < 2 || length > kMaxMbapLength)
        return Cut::Bad;
    const size_t total = kMbapHeaderBytes - 1 + length;
    if (n < total)
        return Cut::NeedMore;
    m->transaction = word(bytes);
    m->unit = bytes[6];
    m->pdu = bytes + kMbapHeaderBytes;
    m->pduBytes = length - 1;
    m->frameBytes = total;
    return Cut::Frame;
}

void appendMbap(std::vector<uint8_t> &out, uint16_t transaction, uint8_t unit, const uint8_t *pdu, size_t n)
{
    putWord(out, transaction);
    putWord(out, kProtocolModbus);
    putWord(out, uint16_t(n + 1));
    out.push_back(unit);
    out.insert(out.end(), pdu, pdu + n);
}

void appendRtu(std::vector<uint8_t> &out, uint8_t station, const uint8_t *pdu, size_t n)
{
    const size_t start = out.size();
    out.push_back(station);
    out.insert(out.end(), pdu, pdu + n);
    const uint16_t crc = rtuplc::crc16(out.data() + start, n + 1);
    out.push_back(uint8_t(crc & 0xFF));
    out.push_back(uint8_t(crc >> 8));
}

} // namespace rtugw::mb
