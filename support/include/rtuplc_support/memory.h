// The controller's memory as the simulator holds it: a coil space and a holding-register
// space per station, of which only the ranges the controller really has are mapped.
#ifndef RTUPLC_SIM_MEMORY_H
#define RTUPLC_SIM_MEMORY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace rtusim {

enum class Space { Coils, Registers };

constexpr size_t kAddressSpace = 65536; // Modbus addresses are 16 bits

// One mapped range: Modbus addresses [first, first + count) of a space, holding the
// controller area `area` from its address 0.
struct AreaRange {
    Space space;
    uint32_t first;
    uint32_t count;
    const char *area;
    bool octal; // the area writes its addresses in octal
};

// Every mapped range of the controller, by space and address.
const std::vector<AreaRange> &controllerMap();

// True when every address of [first, first + count) is mapped.
bool isMapped(Space space, uint32_t first, uint32_t count);

// The controller's name of a Modbus address, e.g. "X:17" for coil 1215 or "D:100"
// for register 100; "coil 300" or "register 8400" where nothing is mapped.
std::string describeAddress(Space space, uint32_t address);

struct StationMemory {
    std::vector<uint8_t> coils = std::vector<uint8_t>(kAddressSpace); // 0 or 1
    std::vector<uint16_t> registers = std::vector<uint16_t>(kAddressSpace);
};

// What memory holds when the simulator starts. The pattern makes every address hold
// a different-looking value, so that a value read from the wrong address shows: a
// register holds its own address (plus 1000 per station above 1), a coil the parity
// of the bits of its address (plus station - 1).
enum class Fill { Zero, Pattern };
uint16_t patternRegister(int station, uint32_t address);
uint8_t patternCoil(int station, uint32_t address);
void fillMemory(StationMemory &memory, int station, Fill fill);

} // namespace rtusim

#endif
