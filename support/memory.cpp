#include "rtuplc_support/memory.h"

#include <bitset>
#include <cstdio>

namespace rtusim {

const std::vector<AreaRange> &controllerMap()
{
    // Where the controller keeps each area in the two Modbus spaces. CV and the 32-bit
    // counters share one register range: CV 0..199 from 9500, then two registers for
    // each of the 56 counters 200..255, which a read of the counters from 200 reaches.
    static const std::vector<AreaRange> map = {
        {Space::Coils, 0, 256, "Y", true},
        {Space::Coils, 1200, 256, "X", true},
        {Space::Coils, 2000, 2000, "M", false},
        {Space::Coils, 4400, 256, "SM", false},
        {Space::Coils, 6000, 992, "S", false},
        {Space::Coils, 8000, 256, "T", false},
        {Space::Coils, 9200, 256, "C", false},
        {Space::Registers, 0, 8000, "D", false},
        {Space::Registers, 8000, 256, "SD", false},
        {Space::Registers, 8500, 16, "Z", false},
        {Space::Registers, 9000, 256, "TV", false},
        {Space::Registers, 9500, 200, "CV", false},
        {Space::Registers, 9700, 112, "32C-reg", false},
    };
    return map;
}

namespace {
const AreaRange *rangeOf(Space space, uint32_t address)
{
    for (const AreaRange &r : controllerMap()) {
        if (r.space == space && address >= r.first && address < r.first + r.count)
            return &r;
    }
    return nullptr;
}
} // namespace

bool isMapped(Space space, uint32_t first, uint32_t count)
{
    for (uint32_t a = first; a < first + count;) {
        const AreaRange *r = rangeOf(space, a);
        if (r == nullptr)
            return false;
        a = r->first + r->count; // ranges may touch: go on in the next one
    }
    return first + count <= kAddressSpace;
}

std::string describeAddress(Space space, uint32_t address)
{
    const AreaRange *r = rangeOf(space, address);
    if (r == nullptr)
        return std::string(space == Space::Coils ? "coil " : "register ") + std::to_string(address);
    const uint32_t unit = address - r->first;
    char text[32];
    snprintf(text, sizeof text, r->octal ? "%s:%o" : "%s:%u", r->area, unit);
    return text;
}

uint16_t patternRegister(int station, uint32_t address)
{
    return static_cast<uint16_t>(address + 1000u * static_cast<uint32_t>(station > 0 ? station - 1 : 0));
}

uint8_t patternCoil(int station, uint32_t address)
{
    const uint32_t v = address + static_cast<uint32_t>(station > 0 ? station - 1 : 0);
    return static_cast<uint8_t>(std::bitset<32>(v).count() & 1);
}

void fillMemory(StationMemory &memory, int station, Fill fill)
{
    for (uint32_t a = 0; a < kAddressSpace; ++a) {
        memory.coils[a] = fill == Fill::Pattern ? patternCoil(station, a) : 0;
        memory.registers[a] = fill == Fill::Pattern ? patternRegister(station, a) : 0;
    }
}

} // namespace rtusim
