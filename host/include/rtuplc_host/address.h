// Where a host connects: HOST:PORT, [IPV6]:PORT, or a bare HOST with a default port.
// One reading for rtuplc-poll's --tcp and rtuplc-gateway's line.tcp, mqtt and http
// addresses, so an address one accepts the other accepts too.
#ifndef RTUPLC_HOST_ADDRESS_H
#define RTUPLC_HOST_ADDRESS_H

#include <string>

namespace rtuhost {

// The defaultPort that makes the port required.
constexpr int kPortRequired = 0;

// Reads `text` into a host (IPv6 without its brackets) and a port 1..65535. Without a
// port, *port becomes `defaultPort` (any value but kPortRequired, e.g. -1 for "the
// driver's, once it is loaded"). An IPv6 address with a port needs its brackets
// ("[::1]:1502"): a bare "::1" is refused rather than guessed at. False for an empty
// host, a host with blanks or '/', a port out of range or a missing required port.
bool parseHostPort(const std::string &text, std::string *host, int *port, int defaultPort = kPortRequired);

// The address as people write it: "host:502", "[::1]:1502".
std::string formatHostPort(const std::string &host, int port);

} // namespace rtuhost

#endif
