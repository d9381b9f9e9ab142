// The modbus-server section of the configuration: where other masters reach the line
// through the gateway, who may, and what they may write. A server that would listen
// beyond this machine without a list of client networks or client certificates is
// refused at start, like any other mistake in the file.
#ifndef RTUPLC_GATEWAY_CONFIG_SERVER_H
#define RTUPLC_GATEWAY_CONFIG_SERVER_H

#include <string>

#include "config.h"
#include "yaml_reader.h"

struct sockaddr;

namespace rtugw {

extern const Keys kModbusServerKeys;
extern const Keys kModbusServerTlsKeys;

bool parseModbusServer(Reader &r, const Section &top, ModbusServerConfig *server);

// "holding:100..119", "coils:7@2": false with `why` when it is not a range of a
// writable table.
bool parseWritable(const std::string &text, ModbusServerConfig::Writable *w, std::string *why);
// "10.1.2.0/24", "127.0.0.1" (one address), "fd00::/8".
bool parseNetwork(const std::string &text, ModbusServerConfig::Network *n);
// Whether a listener on `host` can be reached only from this machine.
bool isLoopbackHost(const std::string &host);
// Whether a client at `peer` (IPv4 or IPv6, IPv4-mapped included) is in one of `allow`.
bool inNetworks(const std::vector<ModbusServerConfig::Network> &allow, const sockaddr *peer);

} // namespace rtugw

#endif
