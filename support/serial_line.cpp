#include "rtuplc_support/serial_line.h"

#include <termios.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <vector>

namespace rtusupport {

namespace {

constexpr int kFastLineBaud = 19200;
constexpr std::chrono::microseconds kFastLineSilence{1750};
constexpr int kSilentCharacters2 = 7; // 3.5 characters, counted in halves

struct Speed {
    int baud;
    speed_t code;
};
const Speed kSpeeds[] = {
    {1200, B1200},   {2400, B2400},   {4800, B4800},     {9600, B9600},     {19200, B19200},
    {38400, B38400}, {57600, B57600}, {115200, B115200}, {230400, B230400},
};

std::string upper(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::toupper(c)); });
    return s;
}

bool toInt(const std::string &s, int *out)
{
    if (s.empty() || s.size() > 9 || !std::all_of(s.begin(), s.end(), [](unsigned char c) { return std::isdigit(c); }))
        return false;
    *out = std::stoi(s);
    return true;
}

// A pseudo-terminal carries bytes whatever the parity and character size, and keeps
// them at 8 bits without parity: the C library then reports the request as refused
// when nothing else was to change. Everything but the framing took hold, though.
bool onlyFramingIgnored(int fd, const termios &wanted)
{
    termios now{};
    if (tcgetattr(fd, &now) != 0)
        return false;
    const tcflag_t framing = CSIZE | PARENB | PARODD;
    return (now.c_cflag & ~framing) == (wanted.c_cflag & ~framing) && now.c_iflag == wanted.c_iflag &&
           now.c_oflag == wanted.c_oflag && now.c_lflag == wanted.c_lflag;
}

} // namespace

bool parseSerialLine(const std::string &text, SerialLine *line, std::string *error)
{
    std::vector<std::string> parts;
    std::stringstream in(text);
    for (std::string part; std::getline(in, part, ',');)
        parts.push_back(part);
    const auto fail = [&](const std::string &why) {
        if (error)
            *error = "line \"" + text + "\": " + why + " (expected e.g. 9600,8,EVEN,1)";
        return false;
    };
    if (parts.size() != 4)
        return fail("four fields needed: baud rate, data bits, parity, stop bits");
    SerialLine l;
    if (!toInt(parts[0], &l.baud) ||
        std::none_of(std::begin(kSpeeds), std::end(kSpeeds), [&](const Speed &s) { return s.baud == l.baud; }))
        return fail("unsupported baud rate " + parts[0] + " (1200 to 230400)");
    if (!toInt(parts[1], &l.dataBits) || l.dataBits < 7 || l.dataBits > 8)
        return fail("data bits must be 7 or 8");
    const std::string p = upper(parts[2]);
    if (p == "NONE" || p == "N")
        l.parity = 'N';
    else if (p == "EVEN" || p == "E")
        l.parity = 'E';
    else if (p == "ODD" || p == "O")
        l.parity = 'O';
    else
        return fail("parity must be NONE, EVEN or ODD");
    if (!toInt(parts[3], &l.stopBits) || l.stopBits < 1 || l.stopBits > 2)
        return fail("stop bits must be 1 or 2");
    *line = l;
    return true;
}

std::string formatSerialLine(const SerialLine &line)
{
    const char *parity = line.parity == 'N' ? "NONE" : line.parity == 'O' ? "ODD" : "EVEN";
    return std::to_string(line.baud) + "," + std::to_string(line.dataBits) + "," + parity + "," +
           std::to_string(line.stopBits);
}

int bitsPerCharacter(const SerialLine &line)
{
    return 1 + line.dataBits + (line.parity == 'N' ? 0 : 1) + line.stopBits;
}

std::chrono::microseconds characterTime(const SerialLine &line)
{
    return std::chrono::microseconds(int64_t(bitsPerCharacter(line)) * 1000000 / std::max(line.baud, 1));
}

std::chrono::microseconds silentInterval(const SerialLine &line)
{
    if (line.baud > kFastLineBaud)
        return kFastLineSilence;
    return std::chrono::microseconds(int64_t(bitsPerCharacter(line)) * 1000000 * kSilentCharacters2 /
                                     (2 * int64_t(std::max(line.baud, 1))));
}

bool configureTerminal(int fd, const SerialLine &line, std::string *error)
{
    termios t{};
    if (tcgetattr(fd, &t) != 0) {
        if (error)
            *error = std::string("not a terminal: ") + std::strerror(errno);
        return false;
    }
    cfmakeraw(&t);
    speed_t speed = B9600;
    for (const Speed &s : kSpeeds) {
        if (s.baud == line.baud)
            speed = s.code;
    }
    cfsetispeed(&t, speed);
    cfsetospeed(&t, speed);
    t.c_cflag &= ~(CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS);
    t.c_cflag |= (line.dataBits == 7 ? CS7 : CS8) | CLOCAL | CREAD;
    if (line.parity != 'N')
        t.c_cflag |= PARENB | (line.parity == 'O' ? PARODD : 0);
    if (line.stopBits == 2)
        t.c_cflag |= CSTOPB;
    t.c_cc[VMIN] = 0; // reads return what is there; poll() does the waiting
    t.c_cc[VTIME] = 0;
    if (tcsetattr(fd, TCSANOW, &t) != 0 && !(errno == EINVAL && onlyFramingIgnored(fd, t))) {
        if (error)
            *error = std::string("cannot set the line: ") + std::strerror(errno);
        return false;
    }
    return true;
}

} // namespace rtusupport
