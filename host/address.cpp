#include "rtuplc_host/address.h"

#include <algorithm>
#include <cctype>

#include "rtuplc_host/line_limits.h"

namespace rtuhost {

namespace {

bool parsePort(const std::string &text, int *port)
{
    constexpr size_t kMaxDigits = 5;
    if (text.empty() || text.size() > kMaxDigits ||
        !std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); }))
        return false;
    const int n = std::stoi(text);
    if (n < kLowestPort || n > kHighestPort)
        return false;
    *port = n;
    return true;
}

} // namespace

bool parseHostPort(const std::string &text, std::string *host, int *port, int defaultPort)
{
    std::string name, rest;
    if (!text.empty() && text[0] == '[') {
        const size_t close = text.find(']');
        if (close == std::string::npos || close == 1)
            return false;
        name = text.substr(1, close - 1);
        rest = text.substr(close + 1);
    } else {
        const size_t colon = text.rfind(':');
        name = text.substr(0, colon);
        rest = colon == std::string::npos ? "" : text.substr(colon);
        // A second colon is an IPv6 address without brackets: its last group would be
        // taken for the port.
        if (name.find(':') != std::string::npos)
            return false;
    }
    if (name.empty() || std::any_of(name.begin(), name.end(), [](unsigned char c) {
            return std::isspace(c) || c == '/' || c == '[' || c == ']';
        }))
        return false;
    int p = defaultPort;
    if (rest.empty() ? defaultPort == kPortRequired : rest[0] != ':' || !parsePort(rest.substr(1), &p))
        return false;
    *host = name;
    *port = p;
    return true;
}

std::string formatHostPort(const std::string &host, int port)
{
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

} // namespace rtuhost
