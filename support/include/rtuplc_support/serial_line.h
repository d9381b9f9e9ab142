// Serial line settings in the "9600,8,EVEN,1" form the driver's parameters use, their
// timing, and setting them on a terminal device.
#ifndef RTUPLC_SIM_SERIAL_LINE_H
#define RTUPLC_SIM_SERIAL_LINE_H

#include <chrono>
#include <string>

namespace rtusim {

struct SerialLine {
    int baud = 9600;
    int dataBits = 8;
    char parity = 'E'; // 'N', 'E' or 'O'
    int stopBits = 1;
};

// Reads "BAUD,DATABITS,PARITY,STOPBITS" (parity NONE, EVEN, ODD or N, E, O, any case).
bool parseSerialLine(const std::string &text, SerialLine *line, std::string *error);
std::string formatSerialLine(const SerialLine &line);

// Bits on the wire per character: start bit, data bits, parity bit, stop bits; a
// character of 8E1 takes 11.
int bitsPerCharacter(const SerialLine &line);
std::chrono::microseconds characterTime(const SerialLine &line);
// The silence that separates two RTU frames: 3.5 character times, and a fixed 1.75 ms
// above 19200 baud, where 3.5 characters become too short for the receivers' timers.
std::chrono::microseconds silentInterval(const SerialLine &line);

// Puts the open terminal `fd` into raw mode with the line's settings.
bool configureTerminal(int fd, const SerialLine &line, std::string *error);

} // namespace rtusim

#endif
