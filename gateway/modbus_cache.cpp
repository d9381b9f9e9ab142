#include "modbus_cache.h"

#include <algorithm>
#include <cstring>

namespace rtugw {

namespace {

constexpr size_t kReplyHeaderBytes = 3; // station, function, byte count

bool isBits(mb::Table t)
{
    return t == mb::Table::Coils || t == mb::Table::Discrete;
}

size_t dataBytes(mb::Table t, size_t quantity)
{
    return isBits(t) ? (quantity + 7) / 8 : quantity * 2;
}

} // namespace

ModbusCache::ModbusCache() = default;
ModbusCache::~ModbusCache() = default;

ModbusCache::Page *ModbusCache::page(int station, mb::Table table, size_t address) const
{
    const auto &dir = directories_[size_t(station) * mb::kTables + size_t(table)];
    return dir ? (*dir)[address >> kPageBits].get() : nullptr;
}

ModbusCache::Page &ModbusCache::pageFor(int station, mb::Table table, size_t address)
{
    auto &dir = directories_[size_t(station) * mb::kTables + size_t(table)];
    if (!dir)
        dir = std::make_unique<Directory>();
    auto &p = (*dir)[address >> kPageBits];
    if (!p)
        p = std::make_unique<Page>();
    return *p;
}

void ModbusCache::heard(const uint8_t *request, size_t requestBytes, const uint8_t *reply, size_t replyBytes,
                        Clock::time_point at)
{
    mb::Request r;
    // The request came from the driver or passed the server's checks; the reply is the
    // controller's, its CRC checked. A reply of another shape is not taken for data.
    if (requestBytes < rtuplc::kCrcBytes + 1 || replyBytes < 2 || reply[1] != request[1] ||
        mb::checkPdu(request + 1, requestBytes - 1 - rtuplc::kCrcBytes, &r) != 0)
        return;
    const int station = request[0];
    if (r.write) {
        const std::lock_guard<std::mutex> hold(lock_);
        unknown(station, r.table, r.address, r.quantity);
        return;
    }
    const size_t bytes = dataBytes(r.table, r.quantity);
    if (replyBytes != kReplyHeaderBytes + bytes + rtuplc::kCrcBytes || reply[2] != bytes)
        return;
    const std::lock_guard<std::mutex> hold(lock_);
    store(station, r.table, r.address, r.quantity, reply + kReplyHeaderBytes, at.time_since_epoch().count());
}

void ModbusCache::forget(int station, mb::Table table, uint16_t address, uint16_t quantity)
{
    const std::lock_guard<std::mutex> hold(lock_);
    unknown(station, table, address, quantity);
}

void ModbusCache::store(int station, mb::Table table, uint16_t address, uint16_t quantity, const uint8_t *data,
                        Clock::rep at)
{
    const bool bits = isBits(table);
    size_t a = address;
    const size_t end = a + quantity;
    for (size_t i = 0; a < end;) {
        Page &p = pageFor(station, table, a);
        const size_t stop = std::min(end, (a | (kPageSize - 1)) + 1);
        for (; a < stop; ++a, ++i) {
            const size_t slot = a & (kPageSize - 1);
            p.value[slot] = bits ? uint16_t(data[i / 8] >> (i % 8) & 1) : uint16_t(data[2 * i] << 8 | data[2 * i + 1]);
            p.at[slot] = at;
        }
    }
}

void ModbusCache::unknown(int station, mb::Table table, uint16_t address, uint16_t quantity)
{
    size_t a = address;
    const size_t end = a + quantity;
    while (a < end) {
        const size_t stop = std::min(end, (a | (kPageSize - 1)) + 1);
        if (Page *p = page(station, table, a))
            std::fill(p->at.begin() + (a & (kPageSize - 1)), p->at.begin() + ((stop - 1) & (kPageSize - 1)) + 1, 0);
        a = stop;
    }
}

size_t ModbusCache::read(int station, mb::Table table, uint16_t address, uint16_t quantity, Clock::time_point since,
                         uint8_t *data) const
{
    const bool bits = isBits(table);
    const size_t bytes = dataBytes(table, quantity);
    const Clock::rep oldest = since.time_since_epoch().count();
    if (bits)
        std::memset(data, 0, bytes);
    size_t a = address;
    const size_t end = a + quantity;
    const std::lock_guard<std::mutex> hold(lock_);
    for (size_t i = 0; a < end;) {
        const Page *p = page(station, table, a);
        if (!p)
            return 0;
        const size_t stop = std::min(end, (a | (kPageSize - 1)) + 1);
        for (; a < stop; ++a, ++i) {
            const size_t slot = a & (kPageSize - 1);
            // Unknown (0) is older than anything asked for.
            if (p->at[slot] == 0 || p->at[slot] < oldest)
                return 0;
            const uint16_t v = p->value[slot];
            if (bits) {
                data[i / 8] |= uint8_t((v & 1) << (i % 8));
            } else {
                data[2 * i] = uint8_t(v >> 8);
                data[2 * i + 1] = uint8_t(v & 0xFF);
            }
        }
    }
    return bytes;
}

} // namespace rtugw
